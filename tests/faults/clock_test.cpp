// The wall clock moved under the running service: the day turning at midnight
// while agents are at their daily limit, the clock set back an hour, and set
// forward a day. The service is embedded in a second run of this binary, with
// libfaketime preloaded and steered through a file the test rewrites; only
// the wall clock jumps, as it does when an operator or NTP sets it, and the
// monotonic clock runs on.
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "include/qorapi.h"
#include "support/qortest.h"
#include "watchdog/qorcmd.h"

namespace {

using e2e::agentFor;
using e2e::Seen;

constexpr char kFakeTime[] = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1";
// Set in the second run, the one whose clock is faked; the offset file's path.
constexpr char kClockFileVar[] = "QOR_CLOCK_FILE";
// Where the second run notes its programs' folder, for the first run to clean up after a crash.
constexpr char kProgramsNoteVar[] = "QOR_CLOCK_PROGRAMS_NOTE";
// A second run that outlives this is ended by its alarm.
constexpr unsigned kInnerLimitSeconds = 400;

// libfaketime hangs in its own start-up under AddressSanitizer, whose start
// calls clock_gettime before the preloaded library has set itself up; the
// runs under a fake clock are skipped there. ThreadSanitizer lets it start.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kFakeClockHangs = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kFakeClockHangs = true;
#else
constexpr bool kFakeClockHangs = false;
#endif
#else
constexpr bool kFakeClockHangs = false;
#endif

bool underFakeClock() { return std::getenv(kClockFileVar) != nullptr; }

// Seconds since the epoch of a UTC date and time.
time_t utc(int year, int month, int day, int hour, int minute, int second) {
  struct tm when = {};
  when.tm_year = year - 1900;
  when.tm_mon = month - 1;
  when.tm_mday = day;
  when.tm_hour = hour;
  when.tm_min = minute;
  when.tm_sec = second;
  return timegm(&when);
}

int dayOfYear(time_t when) {
  struct tm parts;
  gmtime_r(&when, &parts);
  return parts.tm_yday;
}

// The fake clock as the second run sees it: the offset from the real wall
// clock is written to a file that libfaketime reads at every call. The file
// is replaced whole, so that no call reads half of it.
class FakeClock {
 public:
  // Outside the run under the fake clock there is no file, and nothing to move.
  FakeClock() {
    if (!underFakeClock()) return;
    path_ = std::getenv(kClockFileVar);
    offset_ = std::atol(qortest::readFile(path_).c_str());
  }
  // Moves the wall clock by `seconds`, forward or back.
  void jump(long seconds) { setOffset(offset_ + seconds); }
  // Sets the wall clock to `when`.
  void set(time_t when) { setOffset(offset_ + static_cast<long>(when - time(nullptr))); }

 private:
  void setOffset(long offset) {
    const std::string next = path_ + ".next";
    qortest::writeFile(next, (offset >= 0 ? "+" : "") + std::to_string(offset) + "\n");
    ASSERT_EQ(0, std::rename(next.c_str(), path_.c_str()));
    offset_ = offset;
  }
  std::string path_;
  long offset_ = 0;
};

// Kills what the second run left of its programs when it did not end well:
// each pid file of the noted folder whose process runs a program of it.
void killLeftPrograms(const std::string& note) {
  const std::string dir = qortest::readFile(note);
  if (dir.empty()) return;
  qortest::RunResult found = qortest::runProgram({"/bin/sh", "-c", "cat '" + dir + "'/*.pid 2>/dev/null"});
  for (const std::string& line : qortest::linesWith(found.out, "")) {
    const int pid = std::atoi(line.c_str());
    if (pid <= 0) continue;
    char exe[512] = {0};
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    if (readlink(link.c_str(), exe, sizeof exe - 1) > 0 && std::string(exe).rfind(dir + "/bin/", 0) == 0)
      kill(pid, SIGKILL);
  }
}

// How many times a run under the fake clock is tried, and how long it may
// take to reach the test. Started as /proc/self/exe from a ThreadSanitizer
// build, the run deadlocked in libfaketime's first symbol look-up; it is
// started by its real path, and a start that still hangs is tried again,
// then the test is skipped, saying so, rather than waiting for the time limit.
constexpr int kStartTries = 3;
constexpr int kStartLimitMs = 30000;

// Runs the current test again in a child of this binary, with libfaketime
// preloaded and the wall clock at `start` (UTC), and fails if that run fails.
void runUnderFakeClock(time_t start) {
  if (access(kFakeTime, R_OK) != 0) GTEST_SKIP() << "libfaketime is not installed: " << kFakeTime;
  if (kFakeClockHangs)
    GTEST_SKIP()
        << "libfaketime cannot start under AddressSanitizer: its clock_gettime is called before it is set up";
  const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
  char self[4096] = {0};
  ASSERT_LT(0, readlink("/proc/self/exe", self, sizeof self - 1));
  const char* asan = std::getenv("ASAN_OPTIONS");
  // The preload comes before a sanitizer's runtime, which AddressSanitizer would refuse.
  const std::string asanOptions = std::string("ASAN_OPTIONS=") +
                                  (asan != nullptr ? std::string(asan) + ":" : "") +
                                  "verify_asan_link_order=0";
  for (int tries = 1; tries <= kStartTries; ++tries) {
    qortest::TempDir dir;
    const std::string clock = dir.file("clock");
    const std::string note = dir.file("programs");
    const long offset = static_cast<long>(start - time(nullptr));
    qortest::writeFile(clock, (offset >= 0 ? "+" : "") + std::to_string(offset) + "\n");
    qortest::Child inner(
        {self, std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name()},
        {std::string("LD_PRELOAD=") + kFakeTime, "FAKETIME_TIMESTAMP_FILE=" + clock, "FAKETIME_NO_CACHE=1",
         "FAKETIME_DONT_FAKE_MONOTONIC=1", "NO_FAKE_STAT=1", "TZ=UTC",
         std::string(kClockFileVar) + "=" + clock, std::string(kProgramsNoteVar) + "=" + note, asanOptions});
    if (!qortest::waitFor([&] { return qortest::fileExists(note) || inner.wait(0) != -1; }, kStartLimitMs)) {
      std::printf("clock: the run under the fake clock did not start within %d ms (try %d)\n", kStartLimitMs,
                  tries);
      continue;  // the child is killed as it goes
    }
    const int code = inner.wait(static_cast<int>(kInnerLimitSeconds + 60) * 1000);
    killLeftPrograms(note);
    std::printf("%s", inner.out().c_str());
    std::fflush(stdout);
    EXPECT_EQ(0, code) << "the run under the fake clock failed (its output above):\n" << inner.err();
    return;
  }
  GTEST_SKIP() << "libfaketime deadlocked in its start-up " << kStartTries << " times in a row";
}

// The checks of the agents, as the trace tells them and the test sees them
// come: the monotonic time at which each "Agent ID checked at" line appeared.
class CheckWatch {
 public:
  CheckWatch(std::vector<std::string> ids, std::function<std::string()> trace)
      : ids_(std::move(ids)), trace_(std::move(trace)) {
    look();
  }
  // Watches for `ms`, noting each new check at the time it is seen.
  void watchFor(int ms) {
    const long long end = qortest::nowMs() + ms;
    while (qortest::nowMs() < end) {
      look();
      usleep(50 * 1000);
    }
    look();
  }
  void markJump() { jumpMs_ = qortest::nowMs(); }
  // Checks of `id` seen after the jump.
  int checksAfterJump(const std::string& id) const {
    int count = 0;
    for (long long at : seen_.at(id)) count += at >= jumpMs_ ? 1 : 0;
    return count;
  }
  // Checks of `id` seen from `fromMs` to `toMs` after the jump.
  int checksBetween(const std::string& id, long long fromMs, long long toMs) const {
    int count = 0;
    for (long long at : seen_.at(id)) count += at >= jumpMs_ + fromMs && at < jumpMs_ + toMs ? 1 : 0;
    return count;
  }
  // The longest time without a check of `id`, from its last check before the
  // jump to the end of the watch, in seconds.
  double maxGapAcrossJump(const std::string& id) const {
    long long previous = -1;
    long long longest = 0;
    for (long long at : seen_.at(id)) {
      if (at < jumpMs_) {
        previous = at;
        continue;
      }
      if (previous >= 0) longest = std::max(longest, at - previous);
      previous = at;
    }
    if (previous >= 0) longest = std::max(longest, lastLookMs_ - previous);
    return static_cast<double>(longest) / 1000.0;
  }

 private:
  void look() {
    const std::string text = trace_();
    lastLookMs_ = qortest::nowMs();
    for (const std::string& id : ids_) {
      const size_t count =
          static_cast<size_t>(qortest::countOccurrences(text, "Agent " + id + " checked at "));
      std::vector<long long>& times = seen_[id];
      while (times.size() < count) times.push_back(lastLookMs_);
    }
  }
  std::vector<std::string> ids_;
  std::function<std::string()> trace_;
  std::map<std::string, std::vector<long long>> seen_;
  long long jumpMs_ = 0;
  long long lastLookMs_ = 0;
};

// How long the checks are watched after a jump, and what a gap between two
// checks may exceed the period by on a loaded machine: a skipped check
// exceeds it by a whole period.
constexpr int kWindowMs = 16000;
constexpr double kSlackSeconds = 3.0;

class ClockChanges : public e2e::EmbeddedService {
 protected:
  void SetUp() override {
    if (!underFakeClock()) return;
    alarm(kInnerLimitSeconds);
    EmbeddedService::SetUp();
    if (const char* note = std::getenv(kProgramsNoteVar)) qortest::writeFile(note, programs.dir());
  }
  void TearDown() override {
    if (underFakeClock()) EmbeddedService::TearDown();
  }

  // The smallest "last checked N sec ago" of `id` in the trace.
  double minSecondsAgo(const std::string& id) {
    const std::string head = "Agent " + id + " was last checked ";
    double least = 1e18;
    for (const std::string& line : qortest::linesWith(trace(), head)) {
      least = std::min(least, std::atof(line.substr(line.find(head) + head.size()).c_str()));
    }
    return least;
  }
  // Kills the program `name` of `agent` and waits until it has been restarted.
  void killAndWaitForRestart(const std::string& agentName, const std::string& program, int started) {
    kill(programs.pid(program), SIGKILL);
    ASSERT_TRUE(qortest::waitFor([&] { return heard.count(agentName, 7) == started; }, 30000))
        << agentName << " was not heard started " << started << " times:\n"
        << ::testing::PrintToString(heard.of(agentName));
  }
  std::string resetLine(const std::string& id, int day) {
    return "Reset restart count for agent " + id + " new day " + std::to_string(day) + ".\n";
  }

  FakeClock clock;
};

std::vector<std::string> restartOnce(const std::string& name) {
  const std::string prefix = "] " + name + " Operational Event: ";
  return {"[ 8" + prefix + "Agent stopped abnormally.", "[24" + prefix + "Agent start after failure",
          "[ 7" + prefix + "Agent started successfully."};
}

// ---- Midnight -------------------------------------------------------------------

TEST_F(ClockChanges, AgentsAtTheirDailyLimitAreRestartedAgainOnceTheDayTurnsAtMidnight) {
  if (!underFakeClock()) return runUnderFakeClock(utc(2026, 11, 23, 23, 55, 0));
  const std::vector<std::string> ids = {"clock.night1", "clock.night2"};
  const std::vector<std::string> names = {"Night one", "Night two"};
  const std::vector<std::string> bins = {"qorclocknight1d", "qorclocknight2d"};
  for (size_t i = 0; i < ids.size(); ++i) {
    programs.start(bins[i]);
    writeAgent(ids[i] + ".xml", agentFor(ids[i], names[i], programs, bins[i], start, 1));
  }
  startService();

  // The one restart of the day each, then the limit.
  for (size_t i = 0; i < ids.size(); ++i) killAndWaitForRestart(names[i], bins[i], 1);
  for (size_t i = 0; i < ids.size(); ++i) kill(programs.pid(bins[i]), SIGKILL);
  for (size_t i = 0; i < ids.size(); ++i) {
    // After the limit, one more message, then silence.
    ASSERT_TRUE(qortest::waitFor([&] { return heard.count(names[i], 22) == 1; }, 30000))
        << ::testing::PrintToString(heard.of(names[i]));
  }
  for (const std::string& id : ids) ASSERT_TRUE(waitForChecks(id, 2, 30000));
  const time_t beforeJump = time(nullptr);
  ASSERT_EQ(dayOfYear(utc(2026, 11, 23, 0, 0, 0)), dayOfYear(beforeJump)) << "the limit took too long";
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ((Seen{2, 0, 1}), seen(ids[i])) << ids[i];
    EXPECT_EQ(1, traced("Agent id " + ids[i] + " restart count exceeded and will not be restarted."));
    EXPECT_EQ(1u, start.log("begin", bins[i]).size()) << ids[i];
  }

  // The clock runs up to a few seconds before midnight, then past it.
  CheckWatch watch(ids, [this] { return trace(); });
  clock.set(utc(2026, 11, 23, 23, 59, 57));
  watch.markJump();
  const int newDay = dayOfYear(utc(2026, 11, 24, 0, 0, 0));
  watch.watchFor(kWindowMs);
  for (size_t i = 0; i < ids.size(); ++i) {
    ASSERT_TRUE(qortest::waitFor([&] { return heard.count(names[i], 7) == 2; }, 30000))
        << names[i] << " was not started after midnight:\n"
        << ::testing::PrintToString(heard.of(names[i])) << trace();
  }
  int resets = 0;
  int checks = 0;
  double gap = 0.0;
  for (size_t i = 0; i < ids.size(); ++i) {
    checks += watch.checksAfterJump(ids[i]);
    gap = std::max(gap, watch.maxGapAcrossJump(ids[i]));
    // The agent is not checked while it starts: a start may take the place of one check.
    EXPECT_LE(watch.maxGapAcrossJump(ids[i]), 2 * 5.0 + kSlackSeconds) << ids[i];
    EXPECT_GE(watch.checksAfterJump(ids[i]), kWindowMs / 5000 - 2) << ids[i];
    resets += traced(resetLine(ids[i], newDay));
    EXPECT_EQ(1, traced(resetLine(ids[i], newDay))) << ids[i];
    EXPECT_EQ(1, traced("Reset restart count for agent " + ids[i] + " ")) << ids[i];
    // A first start of the day is not charged.
    EXPECT_EQ((Seen{4, programs.pid(bins[i]), 0}), seen(ids[i])) << ids[i];
    EXPECT_EQ(2u, start.log("begin", bins[i]).size()) << ids[i];
  }
  // And a restart of the new day is made and charged as any other.
  for (size_t i = 0; i < ids.size(); ++i) killAndWaitForRestart(names[i], bins[i], 3);
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ((Seen{4, programs.pid(bins[i]), 1}), seen(ids[i])) << ids[i];
    std::vector<std::string> expected = restartOnce(names[i]);
    const std::string prefix = "] " + names[i] + " Operational Event: ";
    expected.push_back("[ 8" + prefix + "Agent stopped abnormally.");
    expected.push_back("[24" + prefix + "Agent start after failure");
    expected.push_back("[12" + prefix + "Agent exceeded restart tries.");
    expected.push_back("[22" + prefix + "Agent initial start");
    // Past midnight: started as on a new day, then restarted after a kill.
    expected.push_back("[22" + prefix + "Agent initial start");
    expected.push_back("[ 7" + prefix + "Agent started successfully.");
    for (const std::string& line : restartOnce(names[i])) expected.push_back(line);
    EXPECT_EQ(expected, heard.of(names[i]));
    // Alerts: the three stops found and the limit.
    const std::vector<std::string> heardAlerts = alerts.of(names[i]);
    ASSERT_EQ(4u, heardAlerts.size()) << ::testing::PrintToString(heardAlerts);
    EXPECT_EQ("[12] ALERT agent '" + names[i] + "' state 2 managed 1 pid 0: N/A", heardAlerts[2]);
  }
  const double least = std::min(minSecondsAgo(ids[0]), minSecondsAgo(ids[1]));
  std::printf(
      "clock summary: midnight: agents %zu, checks per agent after the turn %.1f in %d s, max gap %.1f s, "
      "min sec ago %.1f, resets seen %d (day %d), starts after midnight %d\n",
      ids.size(), checks / 2.0, kWindowMs / 1000, gap, least, resets, newDay,
      heard.count(names[0], 7) + heard.count(names[1], 7) - 2);
  EXPECT_GE(least, 0.0);
}

// ---- Back an hour ---------------------------------------------------------------

TEST_F(ClockChanges, AClockSetBackAnHourStillHasTheAgentCheckedWithinOnePeriodWithNoNegativeAgeTraced) {
  if (!underFakeClock()) return runUnderFakeClock(utc(2026, 11, 23, 12, 0, 0));
  const std::string id = "clock.back";
  const std::string name = "Back program";
  programs.start("qorclockbackd");
  writeAgent("back.xml", agentFor(id, name, programs, "qorclockbackd", start, 3));
  startService();
  killAndWaitForRestart(name, "qorclockbackd", 1);
  ASSERT_TRUE(waitForChecks(id, 2, 30000));

  // Just after a check, the worst moment: the next one is a period away.
  CheckWatch watch({id}, [this] { return trace(); });
  ASSERT_TRUE(waitForChecks(id, 1, 30000));
  clock.jump(-3600);
  watch.markJump();
  watch.watchFor(kWindowMs);
  const int checks = watch.checksAfterJump(id);
  const double gap = watch.maxGapAcrossJump(id);
  const double least = minSecondsAgo(id);
  const int resets = traced("Reset restart count for agent " + id + " ");
  std::printf(
      "clock summary: back 1h: checks after jump %d in %d s, max gap %.1f s, min sec ago %.1f, "
      "resets seen %d\n",
      checks, kWindowMs / 1000, gap, least, resets);
  EXPECT_GE(checks, kWindowMs / 5000 - 1);
  EXPECT_LE(checks, kWindowMs / 5000 + 1);
  EXPECT_LE(gap, 5.0 + kSlackSeconds) << "a check was skipped for longer than one period";
  EXPECT_GE(least, 0.0) << "a negative age was traced";
  // Still the same day: the count stays.
  EXPECT_EQ(0, resets);
  EXPECT_EQ((Seen{4, programs.pid("qorclockbackd"), 1}), seen(id));

  // And a kill after the jump is found and restarted as before.
  killAndWaitForRestart(name, "qorclockbackd", 2);
  EXPECT_EQ((Seen{4, programs.pid("qorclockbackd"), 2}), seen(id));
  std::vector<std::string> expected = restartOnce(name);
  for (const std::string& line : restartOnce(name)) expected.push_back(line);
  EXPECT_EQ(expected, heard.of(name));
}

// ---- Forward a day --------------------------------------------------------------

TEST_F(ClockChanges, AClockSetForwardADayChecksEachAgentOnceInItsPeriodAndResetsEachCount) {
  if (!underFakeClock()) return runUnderFakeClock(utc(2026, 11, 23, 12, 0, 0));
  const std::vector<std::string> ids = {"clock.fwd5", "clock.fwd10"};
  const std::vector<std::string> names = {"Forward five", "Forward ten"};
  const std::vector<std::string> bins = {"qorclockfwd5d", "qorclockfwd10d"};
  const std::vector<int> periods = {5, 10};
  for (size_t i = 0; i < ids.size(); ++i) {
    programs.start(bins[i]);
    writeAgent(ids[i] + ".xml", agentFor(ids[i], names[i], programs, bins[i], start, 3, periods[i]));
  }
  startService();
  for (size_t i = 0; i < ids.size(); ++i) killAndWaitForRestart(names[i], bins[i], 1);
  for (const std::string& id : ids) ASSERT_TRUE(waitForChecks(id, 2, 30000));
  for (size_t i = 0; i < ids.size(); ++i) EXPECT_EQ((Seen{4, programs.pid(bins[i]), 1}), seen(ids[i]));

  CheckWatch watch(ids, [this] { return trace(); });
  ASSERT_TRUE(waitForChecks(ids[0], 1, 30000));
  clock.jump(86400);
  watch.markJump();
  const int newDay = dayOfYear(time(nullptr));
  watch.watchFor(kWindowMs);
  for (size_t i = 0; i < ids.size(); ++i) {
    const int checks = watch.checksAfterJump(ids[i]);
    // The checks in the first period after the jump: one, not a storm.
    const int first = watch.checksBetween(ids[i], 0, periods[i] * 1000 - 500);
    const double gap = watch.maxGapAcrossJump(ids[i]);
    const int resets = traced(resetLine(ids[i], newDay));
    std::printf(
        "clock summary: forward 1d: agent %s period %d s: checks after jump %d in %d s "
        "(%d in its first period), max gap %.1f s, min sec ago %.1f, resets seen %d\n",
        ids[i].c_str(), periods[i], checks, kWindowMs / 1000, first, gap, minSecondsAgo(ids[i]), resets);
    EXPECT_LE(first, 1) << ids[i] << " was checked more than once in its first period";
    EXPECT_GE(checks, kWindowMs / (periods[i] * 1000) - 1) << ids[i];
    EXPECT_LE(checks, kWindowMs / (periods[i] * 1000) + 1) << ids[i];
    EXPECT_LE(gap, periods[i] + kSlackSeconds)
        << ids[i] << ": a check was skipped for longer than one period";
    EXPECT_GE(minSecondsAgo(ids[i]), 0.0) << ids[i];
    EXPECT_EQ(1, resets) << ids[i];
    EXPECT_EQ(1, traced("Reset restart count for agent " + ids[i] + " ")) << ids[i];
    EXPECT_EQ((Seen{4, programs.pid(bins[i]), 0}), seen(ids[i])) << ids[i];
    EXPECT_EQ(restartOnce(names[i]), heard.of(names[i]));
  }
}

// ---- The figures of a health check ----------------------------------------------

// The span since a last check that lies an hour ahead, after the clock was set
// back, was cast from a negative number to a count of seconds: undefined, and
// fatal under the undefined-behaviour sanitizer. It now counts as no span.
TEST(ClockSetBack, RuntimeFiguresMeasuredSinceALastCheckAnHourAheadTakeNoIntervalAndRatesOfZero) {
  Agent agent;
  Policy* policy = new Policy();
  policy->setCPUThreshold(50);
  agent.setPolicy(policy);
  agent.setProcID(getpid());
  long lastChecked = static_cast<long>(time(nullptr)) + 3600;
  GetCmdManager()->collectRuntimeData(&agent, &lastChecked);
  EXPECT_EQ(0u, agent.getCPUPercent());
  EXPECT_EQ(0u, agent.getTotalCPUPercent());
  EXPECT_EQ(0u, agent.getPageFaultsPerSec());
  EXPECT_LT(0u, agent.getTotalMemSizeBytes());
}

}  // namespace
