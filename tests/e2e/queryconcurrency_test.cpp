// Many embedder threads commanding one agent at once, through
// QOR_QueryService, while the availability cycle checks the same agent: no
// call blocks, no answer is a code the agent's states cannot give, every
// accepted command is heard once as its own event, the agent settles in a
// state that fits its management and its process, and the service is
// released within seconds. Run under ThreadSanitizer too. A real program,
// real CAP files and scripts, the service embedded in the test process.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "e2e/embedded.h"
#include "e2e/querycalls.h"
#include "faults/churnproc.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

using e2e::Call;
using e2e::Command;

constexpr int kThreads = 4;
// How long the threads send commands at least: past the first wake of the
// availability cycle, five seconds after the service started. They go on
// until the cycle has queued a check of the agent, which it does only when
// it wakes to find the agent managed.
constexpr int kCommandingMs = 6000;
constexpr int kCommandingAtMostMs = 25000;
// The pause of each thread between two commands.
constexpr int kPauseMs = 20;

const char kName[] = "Busy program";

// The commands, each with the event id that it is heard as when accepted and
// the codes that it may answer for an agent that is always there.
struct Kind {
  Call call;
  int eventId;
  bool management;
  std::vector<int> codes;
  bool pauseAfter = true;
};

std::vector<Kind> kinds() {
  const std::wstring name = L"Busy program";
  const std::wstring process = L"qorqbusyd";
  // The first thread begins with the reset, before any unmanage clears the count.
  return {
      {e2e::resetOf(name, process), 26, false, {0, 600, 602, 603}},
      {e2e::stopOf(name, process), 4, false, {0, 200, 201}},
      {e2e::startOf(name, process), 5, false, {0, 100, 101}},
      {e2e::recycleOf(name, process), 25, false, {0, 300, 301}},
      // Taken out of management, it is taken back at once by the same
      // thread: the cycle checks it only when it wakes to find it managed.
      {e2e::unmanageOf(name), 3, true, {0, 500}, false},
      {e2e::manageOf(name), 2, true, {0}},
  };
}

// What one thread sent: how many of each kind were accepted, the answers no
// kind may give, and its longest call.
struct Tally {
  std::array<int, 6> accepted{};
  std::array<int, 6> sent{};
  std::vector<std::string> unexpected;
  long long longestMs = 0;
};

// The busy agent as the iterator shows it.
struct BusyRecord {
  int found = 0;
  int managed = -1;
  int state = -1;
  long pid = -1;
};

// How long the agent may take to settle once every worker has ended: two
// periods of the cycle and a start.
constexpr int kSettleMs = 20000;

// A state that fits: a managed agent is down or up, never half way with
// nobody at work on it; an unmanaged one is unknown, with no process.
// (A start whose result comes after an operator's stop leaves its process id
// on the record stopped by hand, which the next check sets right: a managed
// agent that is down may have one.)
//
// Up, it has a process: the one it shows, or, with pid 0, exactly one of
// its program. A start result that arrives after the agent has moved on,
// having crossed a stop or another start, is still delivered to a running
// record, and brings the process id of its worker's copy. When another
// worker has stopped that process meanwhile, the record is left up with pid
// 0. With no process of the program left, the next check finds it down and
// starts it again, which is waited for. With the process of a later start
// running, the record does not learn its id before its next restart, since a
// check keeps the id it finds to itself: that is accepted, and printed.
bool fits(const BusyRecord& record, const std::vector<int>& running) {
  if (record.found != 1) return false;
  if (record.managed == 0) return record.state == 0 && record.pid == 0;
  if (record.managed != 1) return false;
  if (record.state == 2 || record.state == 5) return true;
  if (record.state != 4) return false;
  if (record.pid > 0) return std::find(running.begin(), running.end(), record.pid) != running.end();
  return running.size() == 1;
}

class QueryConcurrency : public e2e::QueryService {
 protected:
  // How many events of the agent with `id` have been heard, of either kind.
  int heardOf(int id, bool management) {
    char prefix[8];
    std::snprintf(prefix, sizeof prefix, "[%2d] ", id);
    const std::string line =
        prefix + std::string(kName) + (management ? " Management Event: " : " Operational Event: ");
    int found = 0;
    for (const std::string& each : heard.all()) found += each.rfind(line, 0) == 0 ? 1 : 0;
    return found;
  }
  BusyRecord busyRecord() {
    BusyRecord record;
    QOR_AgentIterator* agents = service->getAgentIterator(false);
    if (agents == nullptr) return record;
    while (agents->getNextAgentEntry()) {
      if (e2e::narrow(agents->getSubagentID()) != "e2e.busy") continue;
      ++record.found;
      record.managed = agents->getManagedState();
      record.state = agents->getOperationalStatus();
      record.pid = agents->getProcessID();
    }
    service->releaseAgentIterator(agents);
    return record;
  }
};

// Sends the kinds in turn, from `first` on, until `stop` is set.
Tally command(QOR_QueryService* service, const std::vector<Kind>& all, size_t first,
              const std::atomic<bool>& stop) {
  Tally tally;
  for (size_t i = first; !stop.load(); ++i) {
    const size_t kind = i % all.size();
    const long long begun = qortest::nowMs();
    const int code = e2e::send(service, all[kind].call);
    tally.longestMs = std::max(tally.longestMs, qortest::nowMs() - begun);
    ++tally.sent[kind];
    if (code == 0) ++tally.accepted[kind];
    const std::vector<int>& codes = all[kind].codes;
    if (std::find(codes.begin(), codes.end(), code) == codes.end()) {
      tally.unexpected.push_back(e2e::describe(all[kind].call) + " answered " + std::to_string(code));
    }
    if (all[kind].pauseAfter) std::this_thread::sleep_for(std::chrono::milliseconds(kPauseMs));
  }
  return tally;
}

TEST_F(QueryConcurrency, FourThreadsCommandingOneCheckedAgentLoseNoEventAndLeaveItSettled) {
  programs.startAll({"qorqbusyd", "qorqquietd"});
  // Checked as often as a CAP file allows, restarted as often as it needs,
  // with three restarts behind it today. A second agent that nobody
  // commands keeps the cycle waking every five seconds.
  writeAgent("busy.xml", e2e::gatedAgent("e2e.busy", kName, programs, "qorqbusyd", gates, 5, 1000));
  writeAgent("quiet.xml", e2e::gatedAgent("e2e.quiet", "Quiet program", programs, "qorqquietd", gates, 5));
  qortest::writeFile(caps.file("teo.dat"), "1\n" + e2e::stateRecord("e2e.busy", "qorqbusyd", 1, kName, 4, 3,
                                                                    programs.path("qorqbusyd")));
  // The cycle's story and the checks, without the detail of every command.
  qortest::traceTo(work.file("trace"), 146 | 256);
  startService();
  hearFromNowOn();
  const std::vector<Kind> all = kinds();
  std::array<int, 6> before{};
  for (size_t kind = 0; kind < all.size(); ++kind)
    before[kind] = heardOf(all[kind].eventId, all[kind].management);
  ASSERT_EQ(3, seen("e2e.busy").restarts);
  // The end of the cycle's "Pushing agent check based on mask on iteration N -- ID".
  const std::string pushed = " -- e2e.busy\n";
  const int checksBefore = traced(pushed);

  std::atomic<bool> stop(false);
  std::vector<std::future<Tally>> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    // Each thread starts at another kind, so that all kinds cross each other.
    threads.push_back(
        std::async(std::launch::async, command, service, std::cref(all), thread, std::cref(stop)));
  }
  const long long begun = qortest::nowMs();
  qortest::waitFor([&] { return qortest::nowMs() - begun >= kCommandingMs && traced(pushed) > checksBefore; },
                   kCommandingAtMostMs);
  stop.store(true);
  Tally total;
  for (std::future<Tally>& thread : threads) {
    if (thread.wait_for(std::chrono::milliseconds(e2e::kCallDeadlineMs)) != std::future_status::ready) {
      ADD_FAILURE() << "a commanding thread has not ended: a call is blocked";
      std::fflush(nullptr);
      std::_Exit(1);
    }
    const Tally tally = thread.get();
    for (size_t kind = 0; kind < all.size(); ++kind) {
      total.accepted[kind] += tally.accepted[kind];
      total.sent[kind] += tally.sent[kind];
    }
    total.unexpected.insert(total.unexpected.end(), tally.unexpected.begin(), tally.unexpected.end());
    total.longestMs = std::max(total.longestMs, tally.longestMs);
  }
  EXPECT_TRUE(total.unexpected.empty()) << QueryService::joined(total.unexpected);
  EXPECT_LT(total.longestMs, e2e::kCallDeadlineMs);
  // The cycle queued checks of the agent while the commands came.
  EXPECT_LT(checksBefore, traced(pushed));

  // Settled: no start or stop is left, and every accepted command has been heard.
  ASSERT_TRUE(noWorkerLeft(15000));
  for (size_t kind = 0; kind < all.size(); ++kind) {
    SCOPED_TRACE(e2e::describe(all[kind].call));
    // A reset may find nothing to reset from the start: the count goes with
    // the first unmanage, and only a restart after a check raises it again.
    if (all[kind].call.command != Command::Reset) {
      EXPECT_LT(0, total.accepted[kind]) << "of " << total.sent[kind];
    }
    const int expected = before[kind] + total.accepted[kind];
    EXPECT_TRUE(qortest::waitFor([&] { return heardOf(all[kind].eventId, all[kind].management) >= expected; },
                                 10000));
    EXPECT_EQ(expected, heardOf(all[kind].eventId, all[kind].management));
  }
  std::string summary = "accepted of sent:";
  for (size_t kind = 0; kind < all.size(); ++kind) {
    summary += " " + std::string(e2e::commandName(all[kind].call.command)) + " " +
               std::to_string(total.accepted[kind]) + "/" + std::to_string(total.sent[kind]);
  }
  std::printf("%s; longest call %lld ms; %d checks queued meanwhile\n", summary.c_str(), total.longestMs,
              traced(pushed) - checksBefore);

  // Settled, with a deadline: see `fits`. A record left up without a
  // process is set right by the next check, which finds it down and starts
  // it again.
  BusyRecord last;
  std::vector<int> running;
  const bool settled = qortest::waitFor(
      [&] {
        last = busyRecord();
        running = churn::processesRunning(programs.path("qorqbusyd"));
        return fits(last, running);
      },
      kSettleMs);
  EXPECT_TRUE(settled) << "found " << last.found << ", managed " << last.managed << ", state " << last.state
                       << ", pid " << last.pid << ", processes running " << running.size();
  EXPECT_EQ(1, last.found);
  if (last.managed != 0 && last.state == 4 && last.pid == 0) {
    std::printf("shown up with no process id beside its one process %d\n", running.front());
  }

  // The release ends within seconds.
  e2e::within(e2e::kCallDeadlineMs, "the release", [this] {
    stopService();
    return 0;
  });
}

}  // namespace
