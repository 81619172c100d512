// qorhost, the OS agent, killed with SIGKILL fifty times while qorwd keeps it
// alive: in the middle of an agent's check, of an agent's restart, of a CAP
// file change, of its own stop and of the writing of teo.dat, and at random
// moments. Each time qorwd starts a new qorhost; no agent and no qorhost ever
// runs twice; teo.dat is whole whenever it is read; and each event that qorwd
// kept for the OS agent reaches it once. The real qorwd and qorhost, real
// programs and scripts. QOR_FAULT_SEED replays a run; its seed is printed.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2ehelp.h"
#include "e2e/twoproc.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;
using e2e::Programs;
using e2e::StartScript;

constexpr int kKills = 50;

// The moments aimed at. Random ones fill what the named ones leave.
enum Moment { Check, Restart, CapChange, Shutdown, TeoWrite, Random, kMoments };
const char* const kMomentNames[kMoments] = {"check",    "restart",  "capchange",
                                            "shutdown", "teowrite", "random"};

// The process ids whose executable is `exe`, zombies aside (they have none),
// and the parent of each.
std::map<int, int> processesOf(const std::string& exe) {
  std::map<int, int> found;
  DIR* dir = opendir("/proc");
  if (dir == nullptr) return found;
  char link[512];
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
    const std::string proc = std::string("/proc/") + entry->d_name;
    const ssize_t length = readlink((proc + "/exe").c_str(), link, sizeof link - 1);
    if (length <= 0) continue;
    link[length] = '\0';
    if (exe != link) continue;
    const std::string stat = qortest::readFile(proc + "/stat");
    const size_t close = stat.rfind(')');
    int parent = 0;
    if (close != std::string::npos) std::sscanf(stat.c_str() + close + 1, " %*c %d", &parent);
    found[std::atoi(entry->d_name)] = parent;
  }
  closedir(dir);
  return found;
}

// The copies of `exe` that are programs of their own: a child that a copy
// forked to run a script shows the same executable until it has called exec,
// and is no second copy.
std::vector<int> copiesOf(const std::string& exe) {
  const std::map<int, int> found = processesOf(exe);
  std::vector<int> copies;
  for (const auto& process : found) {
    if (found.count(process.second) == 0) copies.push_back(process.first);
  }
  return copies;
}

// What is wrong with a state file's text; empty when it is whole: its count
// line matches its records, and each record has all its lines.
std::string stateFileFault(const std::string& text, const std::set<std::string>& ids) {
  if (text.empty() || text.back() != '\n') return "no final line end";
  const std::vector<std::string> lines = e2e::lines(text);
  if (lines.empty()) return "empty";
  const int count = std::atoi(lines[0].c_str());
  if (lines[0] != std::to_string(count)) return "count line '" + lines[0] + "'";
  if (lines.size() != 1 + 18 * static_cast<size_t>(count))
    return std::to_string(lines.size()) + " lines for " + std::to_string(count) + " records";
  for (int record = 0; record < count; ++record) {
    const size_t first = 1 + 18 * static_cast<size_t>(record);
    if (lines[first] != "*" || lines[first + 17] != "*" || lines[first + 1] != "6.2.2.2")
      return "record " + std::to_string(record) + " is not framed";
    if (ids.count(lines[first + 2]) == 0)
      return "record " + std::to_string(record) + " of '" + lines[first + 2] + "'";
  }
  return std::string();
}

class SupervisorKilled : public e2e::TwoProcesses {
 protected:
  SupervisorKilled() : start(programs) {}

  void SetUp() override {
    e2e::TwoProcesses::SetUp();
    // Both programs inherit it: an exchange waits for its answer in steps of
    // 100 ms rather than of a second.
    setenv("QOR_SOCKET_ANSWER_WAIT", "100", 1);
    // qorwd may restart qorhost far more often than on a real day.
    std::string host = qortest::readFile(caps.file("host.xml"));
    const std::string limit = "<maxRestarts>3</maxRestarts>";
    ASSERT_NE(std::string::npos, host.find(limit));
    host.replace(host.find(limit), limit.size(), "<maxRestarts>500</maxRestarts>");
    qortest::writeFile(caps.file("host.xml"), host);
    std::remove(caps.file("other.xml").c_str());

    // The checked agent's status script notes each run, then takes a moment.
    qortest::writeFile(run.file("status.sh"),
                       "#!/bin/sh\n"
                       "echo check >>'" +
                           run.file("checks.log") +
                           "'\n"
                           "sleep 0.3\n"
                           "QOR_EXAMPLES_RUN='" +
                           programs.dir() + "' exec /bin/sh '" + programs.script() +
                           "' status qorfkcheckd\n");
    captest::Subagent checked =
        agentFor("fk.checked", "Checked program", programs, "qorfkcheckd", start, 200);
    checked.availabilityStatusScript =
        captest::script("availabilityStatusScript", "/bin/sh " + run.file("status.sh"));
    qortest::writeFile(caps.file("checked.xml"), captest::document(checked));
    // The restarted agent's start takes a second before the program runs.
    start.delay("qorfkrestartd", 1);
    qortest::writeFile(caps.file("restarted.xml"),
                       captest::document(agentFor("fk.restarted", "Restarted program", programs,
                                                  "qorfkrestartd", start, 200)));
    writePlain(5);
    programs.startAll({"qorfkcheckd", "qorfkrestartd", "qorfkplaind"});
    for (const char* name : {"qorfkcheckd", "qorfkrestartd", "qorfkplaind"})
      exes.push_back(programs.path(name));
    ids = {"e2e.host", "fk.checked", "fk.restarted", "fk.plain"};
  }

  void TearDown() override {
    stopSampling();
    const int last = hostPid();
    if (last > 0 && proctest::runsExecutable(last, hostExe())) remember(last);
    e2e::TwoProcesses::TearDown();
    // Whatever copy of qorhost is left, however it was started.
    for (int pid : copiesOf(hostExe())) proctest::killProcess(pid);
  }

  void writePlain(int checkFrequency) {
    qortest::writeFile(caps.file("plain.xml"),
                       captest::document(agentFor("fk.plain", "Plain program", programs, "qorfkplaind", start,
                                                  200, checkFrequency)));
  }

  // ---- The sampler: a thread of the test that watches /proc and teo.dat --------------

  void startSampling() {
    sampling = true;
    sampler = std::thread([this] {
      while (sampling) {
        sampleOnce();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
  }
  void stopSampling() {
    sampling = false;
    if (sampler.joinable()) sampler.join();
  }
  void sampleOnce() {
    std::vector<std::string> seen;
    for (const std::string& exe : exes) {
      const std::vector<int> copies = copiesOf(exe);
      if (copies.size() > 1) seen.push_back(exe + " runs " + std::to_string(copies.size()) + " times");
    }
    const std::vector<int> hosts = copiesOf(hostExe());
    if (hosts.size() > 1) {
      // A copy whose parent was killed between its fork and its exec would
      // be taken for one; a real second qorhost is still there a moment later.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      int still = 0;
      for (int pid : hosts) still += proctest::runsExecutable(pid, hostExe()) ? 1 : 0;
      if (still > 1) seen.push_back("qorhost runs " + std::to_string(still) + " times");
    }
    readStateFile();
    std::lock_guard<std::mutex> lock(mutex);
    ++samples;
    for (const std::string& line : seen) duplicates.push_back(line);
  }
  // Reads teo.dat once: it must be whole, and either the last version read
  // or a new one written by a stop asked for since.
  void readStateFile() {
    const int stopsBefore = stopsAsked.load();
    const std::string text = qortest::readFile(caps.file("teo.dat"));
    std::lock_guard<std::mutex> lock(mutex);
    if (text.empty() && versions.empty()) return;  // not written yet
    ++stateReads;
    const std::string fault = stateFileFault(text, ids);
    if (!fault.empty()) {
      badStates.push_back(fault + ":\n" + text);
      return;
    }
    ++wholeStates;
    if (!versions.empty() && versions.back() == text) return;
    if (std::find(versions.begin(), versions.end(), text) != versions.end()) {
      badStates.push_back("an older teo.dat came back:\n" + text);
    } else if (!versions.empty() && stopsBefore <= stopsAtLastVersion) {
      badStates.push_back("teo.dat changed with no stop asked for:\n" + text);
    }
    versions.push_back(text);
    stopsAtLastVersion = stopsBefore;
  }

  // ---- Events that qorwd kept for qorhost ----------------------------------------------

  // The ids qorwd cached, the CAP file events (id 0) aside, which it never keeps.
  std::vector<int> cachedIds() {
    std::vector<int> found;
    for (const std::string& line :
         qortest::linesWith(qortest::readFile(run.file("wd.trace")), "push event onto cache ")) {
      const int id = std::atoi(line.c_str() + line.find("cache ") + 6);
      if (id != 0) found.push_back(id);
    }
    return found;
  }
  int poppedCount() {
    return static_cast<int>(qortest::linesWith(qortest::readFile(run.file("wd.trace")), "pop event ").size());
  }
  int receivedCount() {
    return static_cast<int>(
        qortest::linesWith(qortest::readFile(run.file("host.trace")), "log message being sent: ").size());
  }
  // The OS agent's events as the qorhosts printed them, time included: all
  // of them come from qorwd, which alone watches the OS agent.
  std::vector<std::string> printedOSAgentEvents() {
    std::vector<std::string> lines;
    for (const std::string& line :
         qortest::linesWith(qortest::readFile(run.file("host.out")), "] Embedding host Operational Event: "))
      lines.push_back(line);
    return lines;
  }
  // Everything qorwd cached so far has been printed by a qorhost.
  bool eventsSettled(int timeoutMs) {
    return qortest::waitFor(
        [&] {
          const size_t cached = cachedIds().size();
          return cached > 0 && printedOSAgentEvents().size() >= cached &&
                 static_cast<size_t>(receivedCount()) >= cached;
        },
        timeoutMs);
  }

  // ---- The moments ---------------------------------------------------------------------

  int lines(const std::string& path) {
    return static_cast<int>(qortest::linesWith(qortest::readFile(path), "").size());
  }
  void randomPause(std::mt19937& random, int maxMs) {
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::uniform_int_distribution<int>(0, maxMs)(random)));
  }
  // Brings qorhost to the moment, and kills it there. False when the moment
  // never came.
  bool killAt(Moment moment, int pid, std::mt19937& random, int round) {
    switch (moment) {
      case Check: {
        // The checked agent's status script is running.
        const int before = lines(run.file("checks.log"));
        if (!qortest::waitFor([&] { return lines(run.file("checks.log")) > before; }, 12000)) return false;
        randomPause(random, 250);
        break;
      }
      case Restart: {
        // The restarted agent was killed, and its start script runs.
        const size_t before = start.log("begin", "qorfkrestartd").size();
        proctest::killProcess(programs.pid("qorfkrestartd"));
        if (!qortest::waitFor([&] { return start.log("begin", "qorfkrestartd").size() > before; }, 12000))
          return false;
        randomPause(random, 900);
        break;
      }
      case CapChange:
        writePlain(round % 2 == 0 ? 10 : 5);
        randomPause(random, 5500);
        break;
      case Shutdown: {
        // Anywhere in the stop: up to a little beyond the time the stops so
        // far took to reach the writing of teo.dat.
        const long long spanUs = std::max(3000LL, longestStopToWriteUs * 3 / 2);
        ++stopsAsked;
        kill(pid, SIGTERM);
        std::this_thread::sleep_for(
            std::chrono::microseconds(std::uniform_int_distribution<long long>(0, spanUs)(random)));
        break;
      }
      case TeoWrite: {
        // The stop has begun to write the temporary beside teo.dat.
        const std::string temporary = caps.file("teo.dat.tmp");
        struct stat before = {};
        const bool existed = stat(temporary.c_str(), &before) == 0;
        ++stopsAsked;
        const auto asked = std::chrono::steady_clock::now();
        kill(pid, SIGTERM);
        const long long deadline = qortest::nowMs() + 10000;
        struct stat now = {};
        while (qortest::nowMs() < deadline && proctest::runsExecutable(pid, hostExe())) {
          if (stat(temporary.c_str(), &now) == 0 &&
              (!existed || now.st_mtim.tv_nsec != before.st_mtim.tv_nsec ||
               now.st_mtim.tv_sec != before.st_mtim.tv_sec || now.st_size != before.st_size)) {
            ++cutWrites;
            longestStopToWriteUs =
                std::max(longestStopToWriteUs,
                         static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                    std::chrono::steady_clock::now() - asked)
                                                    .count()));
            break;
          }
        }
        break;
      }
      case Random:
        randomPause(random, 3000);
        break;
      case kMoments:
        return false;
    }
    const bool alive = proctest::runsExecutable(pid, hostExe());
    proctest::killProcess(pid);
    if (!alive) ++stoppedFirst;
    return true;
  }

  Programs programs;
  StartScript start;
  std::vector<std::string> exes;
  std::set<std::string> ids;

  std::thread sampler;
  std::atomic<bool> sampling{false};
  std::atomic<int> stopsAsked{0};
  std::mutex mutex;
  // Stops that ended before the kill came; kills that came once the temporary
  // was being written, and the longest time from SIGTERM to that moment.
  int stoppedFirst = 0;
  int cutWrites = 0;
  long long longestStopToWriteUs = 0;
  int samples = 0;
  int stateReads = 0;
  int wholeStates = 0;
  int stopsAtLastVersion = 0;
  std::vector<std::string> versions;
  std::vector<std::string> badStates;
  std::vector<std::string> duplicates;
};

TEST_F(SupervisorKilled,
       QorwdRestartsAKilledHostFiftyTimesWithNoAgentTwiceAWholeTeoDatAndEachCachedEventOnce) {
  const char* given = std::getenv("QOR_FAULT_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                         : static_cast<unsigned>(time(nullptr));
  std::printf("supervisor_killed: seed %u (QOR_FAULT_SEED=%u replays it)\n", seed, seed);
  std::fflush(stdout);
  std::mt19937 random(seed);
  // Eight of each named moment, the rest random, in a shuffled order.
  std::vector<Moment> moments;
  for (int kind = 0; kind < Random; ++kind)
    for (int i = 0; i < 8; ++i) moments.push_back(static_cast<Moment>(kind));
  while (moments.size() < static_cast<size_t>(kKills)) moments.push_back(Random);
  std::shuffle(moments.begin(), moments.end(), random);

  const long long began = qortest::nowMs();
  startWatchdog();
  ASSERT_TRUE(hostUp());
  ASSERT_TRUE(hostListed(1)) << qortest::readFile(run.file("host.out"));
  ASSERT_TRUE(eventsSettled(20000));
  startSampling();

  int kills[kMoments] = {};
  int restarts = 0;
  long long longestRestartMs = 0;
  for (int round = 0; round < kKills; ++round) {
    const Moment moment = moments[round];
    const int pid = hostPid();
    ASSERT_TRUE(killAt(moment, pid, random, round)) << "round " << round << ": no " << kMomentNames[moment];
    const long long killed = qortest::nowMs();
    ++kills[moment];
    ASSERT_TRUE(qortest::waitFor([&] { return !proctest::runsExecutable(pid, hostExe()); }, 5000));
    // qorwd starts a new one: its next check of 5 s, the start, the service.
    ASSERT_TRUE(hostUp(pid)) << "round " << round << " (" << kMomentNames[moment] << "): no new qorhost";
    const long long restartMs = qortest::nowMs() - killed;
    ++restarts;
    longestRestartMs = std::max(longestRestartMs, restartMs);
    std::printf("supervisor_killed: round %d %s: qorhost %d killed, %d up %lld ms later\n", round,
                kMomentNames[moment], pid, hostPid(), restartMs);
    std::fflush(stdout);
    EXPECT_NE(pid, hostPid());
    EXPECT_LT(restartMs, 25000) << "round " << round;
    ASSERT_TRUE(hostListed(round + 2)) << "round " << round;
    readStateFile();
    // Its start, and the failure and restart before it, reach the new qorhost.
    ASSERT_TRUE(eventsSettled(30000)) << "round " << round << " (" << kMomentNames[moment] << "): cached "
                                      << cachedIds().size() << ", printed " << printedOSAgentEvents().size();
    // Each agent runs again, once.
    for (const std::string& exe : exes)
      ASSERT_TRUE(qortest::waitFor([&] { return copiesOf(exe).size() == 1; }, 20000))
          << "round " << round << ": " << exe << " runs " << copiesOf(exe).size() << " times";
  }
  stopSampling();

  // The cached events: each printed once, none left behind.
  const std::vector<int> cached = cachedIds();
  const std::vector<std::string> printed = printedOSAgentEvents();
  const std::set<std::string> distinct(printed.begin(), printed.end());
  std::string answer;
  EXPECT_EQ(0, sendWDQuery("622 QUERY EVENT_DATA", answer));
  EXPECT_EQ("$$NODATA", answer);
  EXPECT_EQ(cached.size(), printed.size());
  EXPECT_EQ(printed.size(), distinct.size()) << "an event printed twice";
  EXPECT_EQ(static_cast<int>(cached.size()), poppedCount());
  EXPECT_EQ(static_cast<int>(cached.size()), receivedCount());
  std::vector<int> printedIds;
  for (const std::string& line : printed)
    printedIds.push_back(std::atoi(line.c_str() + line.find("  [") + 3));
  std::vector<int> sortedCached = cached;
  std::sort(sortedCached.begin(), sortedCached.end());
  std::sort(printedIds.begin(), printedIds.end());
  EXPECT_EQ(sortedCached, printedIds);
  // Each kill cost the OS agent one failure, told by qorwd.
  EXPECT_EQ(kKills, static_cast<int>(std::count(cached.begin(), cached.end(), 8)));

  // The state file, whole at every look, and no leftover temporary in its place.
  std::lock_guard<std::mutex> lock(mutex);
  for (const std::string& fault : badStates) ADD_FAILURE() << fault;
  for (const std::string& line : duplicates) ADD_FAILURE() << line;
  EXPECT_EQ(stateReads, wholeStates);
  EXPECT_GT(stateReads, 0);
  for (const std::string& exe : exes) EXPECT_EQ(1u, copiesOf(exe).size()) << exe;
  EXPECT_EQ(1u, copiesOf(hostExe()).size());
  // A second qorhost would have found the first on its control socket.
  EXPECT_EQ(0, qortest::countOccurrences(qortest::readFile(run.file("host.err")),
                                         "another qorhost already answers"))
      << qortest::readFile(run.file("host.err"));

  std::printf(
      "supervisor_killed: seed %u kills %d (check %d restart %d capchange %d shutdown %d teowrite %d "
      "random %d) qorhost restarts %d max restart %.1f s duplicates %zu teo.dat reads %d whole %d "
      "versions %zu stopped before the kill %d kills in the write %d (SIGTERM to write at most %lld us) "
      "leftover tmp %s cached events %zu sent %d received %d printed %zu twice %zu samples %d time %.0f s\n",
      seed, kKills, kills[Check], kills[Restart], kills[CapChange], kills[Shutdown], kills[TeoWrite],
      kills[Random], restarts, longestRestartMs / 1000.0, duplicates.size(), stateReads, wholeStates,
      versions.size(), stoppedFirst, cutWrites, longestStopToWriteUs,
      qortest::fileExists(caps.file("teo.dat.tmp")) ? "yes" : "no", cached.size(), poppedCount(),
      receivedCount(), printed.size(), printed.size() - distinct.size(), samples,
      (qortest::nowMs() - began) / 1000.0);
  std::fflush(stdout);
}

}  // namespace
