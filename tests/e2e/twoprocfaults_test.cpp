// The two processes under faults: qorhost killed with SIGKILL while a command
// it forwarded waits for qorwd, while it collects qorwd's cached events, and
// while it writes teo.dat; qorwd killed and started again under a running
// qorhost; both socket files removed behind their servers' backs. Nothing
// crashes, no event arrives twice, and none that was still cached is lost.
#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "e2e/forkedwatchdog.h"
#include "e2e/twoproc.h"
#include "include/qorapi.h"
#include "interfaces/qormsgcache.h"
#include "interfaces/qorsockclient.h"
#include "interfaces/socktest.h"

namespace {

// The descriptors a process holds open, as /proc lists them.
int descriptorsOf(int pid) {
  DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  if (dir == nullptr) return -1;
  int count = 0;
  while (struct dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(dir);
  return count;
}

// The descriptors a process holds when no command or /proc walk of its own
// has one open for a moment: the least of a few looks over a fifth of a second.
int settledDescriptorsOf(int pid) {
  int least = descriptorsOf(pid);
  for (int look = 0; look < 10; ++look) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    least = std::min(least, descriptorsOf(pid));
  }
  return least;
}

// Gone for good: no such process, or one that only waits to be reaped.
bool gone(int pid) {
  if (kill(pid, 0) != 0) return true;
  const std::string stat = qortest::readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
}

// The last line of a file that may be long.
std::string lastLineOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size <= 0) return std::string();
  const std::streamoff from = size > 400 ? size - 400 : 0;
  in.seekg(from);
  std::string tail(static_cast<size_t>(size - from), '\0');
  in.read(&tail[0], static_cast<std::streamsize>(tail.size()));
  if (!tail.empty() && tail.back() == '\n') tail.pop_back();
  const size_t newline = tail.rfind('\n');
  return newline == std::string::npos ? tail : tail.substr(newline + 1);
}

// Waits until a collector, traced at the error level into `trace`, has sent
// its request and gets no answer: its last line, the same for 20 ms, is the
// send, or the end of its wait for the answer.
bool requestOutstanding(const std::string& trace) {
  std::string seen;
  int same = 0;
  return qortest::waitFor(
      [&] {
        const std::string line = lastLineOf(trace);
        same = line == seen ? same + 1 : 0;
        seen = line;
        return same >= 2 && (line.find("Sent request to socket.") != std::string::npos ||
                             line.find("Error receiving result") != std::string::npos);
      },
      5000);
}

class TwoProcessFaults : public e2e::TwoProcesses {
 protected:
  void SetUp() override {
    e2e::TwoProcesses::SetUp();
    // Both programs inherit it: an exchange waits for its answer in steps of
    // 100 ms rather than of a second.
    setenv("QOR_SOCKET_ANSWER_WAIT", "100", 1);
  }
  void TearDown() override {
    // A qorhost that qorwd started after the test's last look is stopped too.
    const int last = hostPid();
    if (last > 0 && proctest::runsExecutable(last, hostExe())) remember(last);
    e2e::TwoProcesses::TearDown();
  }
  std::string hostTrace() { return qortest::readFile(run.file("host.trace")); }
  std::string wdTrace() { return qortest::readFile(run.file("wd.trace")); }
  // Waits until qorwd has checked the OS agent once: its health answer then
  // carries the date of the check.
  bool watchdogChecked() {
    return qortest::waitFor(
        [&] {
          std::string answer;
          return sendWDQuery("622 QUERY HEALTH_INFO", answer) == 0 && answer.size() > 2;
        },
        15000);
  }
  // Waits until qorwd checks the OS agent once more: the date of the last
  // check in its health answer changes.
  bool freshCheck() {
    std::string before;
    if (sendWDQuery("622 QUERY HEALTH_INFO", before) != 0) return false;
    return qortest::waitFor(
        [&] {
          std::string now;
          return sendWDQuery("622 QUERY HEALTH_INFO", now) == 0 && now.size() > 2 && now != before;
        },
        10000);
  }
  // The first qorhost, up and seen by qorwd.
  int firstHost() {
    startWatchdog();
    if (!hostUp() || !watchdogChecked()) return 0;
    return hostPid();
  }
};

// ---- A command forwarded to qorwd ------------------------------------------------------

// qorwd is held with SIGSTOP, so that qorhost waits for its answer to the
// forwarded recycle while it is killed. qorwd then finds the request of a
// dead peer: it acts on it, cannot answer, and keeps no socket of it.
TEST_F(TwoProcessFaults, AnOSAgentKilledWhileItsForwardedCommandWaitsIsStartedOnceAndCountedAlike) {
  const int first = firstHost();
  ASSERT_GT(first, 0) << qortest::readFile(run.file("host.err"));
  ASSERT_TRUE(watchdogCounts(0));
  // Right behind a check of qorwd's, so that the next one, 5 s later, comes
  // only after the recycle has brought qorhost back.
  ASSERT_TRUE(freshCheck());
  const int wd = watchdog->pid();
  const int descriptors = settledDescriptorsOf(wd);
  const size_t traceBefore = wdTrace().size();
  ASSERT_GT(descriptors, 0);
  ASSERT_EQ(0, kill(wd, SIGSTOP));
  SOCKET_ANSWER_CYCLES = 200;  // 20 s: the answer can only end with qorhost
  std::atomic<int> result{-100};
  std::thread client([&] { result.store(sendTEOCommand("622 started qb")); });
  // qorhost has sent "622 RECYCLE" and waits for the answer.
  const bool waiting = qortest::waitFor(
      [&] {
        const std::string trace = hostTrace();
        const size_t recycle = trace.find("Recycle OS Agent.\n");
        return recycle != std::string::npos &&
               trace.find("Sent request to socket.", recycle) != std::string::npos;
      },
      10000);
  kill(first, SIGKILL);
  client.join();
  ASSERT_TRUE(waiting) << hostTrace();
  // The connection closed with no answer.
  EXPECT_EQ(SOCKET_CLIENT_CLOSED, result.load());
  ASSERT_TRUE(qortest::waitFor([&] { return gone(first); }, 5000));
  ASSERT_EQ(0, kill(wd, SIGCONT));

  ASSERT_TRUE(hostUp(first)) << wdTrace();
  // qorwd's next check finds the new qorhost running: no second start.
  ASSERT_TRUE(freshCheck());
  EXPECT_FALSE(qortest::waitFor([&] { return starts() > 2; }, 1000));
  EXPECT_EQ(2, starts());
  EXPECT_EQ(0, kill(wd, 0));
  const std::string trace = wdTrace();
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Socket received command: 622 RECYCLE"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Error executing send response - errno = 32, Broken pipe"));
  // A recycle is not a restart after a failure: neither side counts it.
  EXPECT_TRUE(watchdogCounts(0)) << trace;
  EXPECT_NE(std::string::npos, hostListing().find(" restarts 0/3"))
      << qortest::readFile(run.file("host.out"));
  std::string count;
  EXPECT_EQ(0, sendTEOQuery("622 QUERY OS_RESTART_COUNT", count));
  EXPECT_EQ("0|", count);
  // Every socket of those exchanges is closed again, the dead peer's too.
  // Kept: a client whose connect or send fails keeps its socket, one
  // descriptor each; qorwd's signal to collect, sent when the new qorhost
  // has come up but does not listen yet, is such a client.
  int leftByClients = 0;
  EXPECT_TRUE(qortest::waitFor(
      [&] {
        const std::string since = wdTrace().substr(traceBefore);
        leftByClients = qortest::countOccurrences(since, "Error executing connect - errno") +
                        qortest::countOccurrences(since, "Error executing send - errno");
        return descriptorsOf(wd) == descriptors + leftByClients;
      },
      5000))
      << descriptors << " before, " << descriptorsOf(wd) << " now, " << leftByClients << " left by clients";
}

// ---- qorwd killed and started again ----------------------------------------------------------

TEST_F(TwoProcessFaults, AWatchdogKilledAndStartedAgainAdoptsTheRunningOSAgentWithItsCount) {
  const int first = firstHost();
  ASSERT_GT(first, 0) << qortest::readFile(run.file("host.err"));
  kill(first, SIGKILL);
  ASSERT_TRUE(hostUp(first));
  const int second = hostPid();
  ASSERT_TRUE(watchdogCounts(1));
  ASSERT_EQ(2, starts());
  // The new qorhost learns the count from qorwd when it lists its agents
  // with the watched one; that is what it answers a new qorwd with.
  ASSERT_NE(std::string::npos, hostListing().find(" restarts 1/3"))
      << qortest::readFile(run.file("host.out"));
  std::string count;
  EXPECT_EQ(0, sendTEOQuery("622 QUERY OS_RESTART_COUNT", count));
  EXPECT_EQ("1|", count);

  watchdog->signal(SIGKILL);
  ASSERT_EQ(128 + SIGKILL, watchdog->wait(5000));
  // Its socket file stays behind, with nobody listening on it.
  ASSERT_TRUE(qortest::fileExists(ips.file(".teo_wd_sock")));
  std::string answer;
  EXPECT_EQ(SOCKET_CLIENT_NO_CONNECT, sendWDQuery("622 QUERY HEALTH_INFO", answer));
  const size_t before = wdTrace().size();

  startWatchdog();
  // The new qorwd asks qorhost for the count and answers with it.
  ASSERT_TRUE(watchdogCounts(1)) << wdTrace().substr(before);
  ASSERT_TRUE(watchdogChecked());
  const std::string trace = wdTrace().substr(before);
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Get OS Agent Restart Count.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Set OS agent restart count 1"));
  // Its first check found qorhost running: no start, and the same qorhost.
  EXPECT_FALSE(qortest::waitFor([&] { return starts() > 2; }, 1000));
  EXPECT_EQ(2, starts());
  EXPECT_EQ(second, hostPid());
  EXPECT_EQ(0, kill(second, 0));
  EXPECT_EQ(1, socktest::listening(ips.file(".teo_wd_sock")));

  // Its supervision goes on, and the count with it.
  kill(second, SIGKILL);
  ASSERT_TRUE(hostUp(second));
  EXPECT_EQ(3, starts());
  EXPECT_TRUE(watchdogCounts(2));
  EXPECT_NE(std::string::npos, hostListing().find(" restarts 2/3"))
      << qortest::readFile(run.file("host.out"));
}

// ---- Both socket files removed -----------------------------------------------------------

TEST_F(TwoProcessFaults, BothSocketFilesRemovedAreBoundAgainAndAForwardedCommandStillWorks) {
  const int first = firstHost();
  ASSERT_GT(first, 0) << qortest::readFile(run.file("host.err"));
  const std::string teoSock = ips.file(".teo_sock");
  const std::string wdSock = ips.file(".teo_wd_sock");
  ASSERT_EQ(0, unlink(teoSock.c_str()));
  ASSERT_EQ(0, unlink(wdSock.c_str()));
  std::string answer;
  EXPECT_EQ(SOCKET_CLIENT_NO_CONNECT, sendTEOQuery("622 QUERY OS_RESTART_COUNT", answer));
  const long long removed = qortest::nowMs();
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        std::string count;
        std::string health;
        return sendTEOQuery("622 QUERY OS_RESTART_COUNT", count) == 0 && count == "0|" &&
               sendWDQuery("622 QUERY HEALTH_INFO", health) == 0 && health.rfind("0|", 0) == 0;
      },
      5000))
      << hostTrace() << wdTrace();
  EXPECT_LT(qortest::nowMs() - removed, 4000);
  EXPECT_EQ(1, qortest::countOccurrences(hostTrace(),
                                         "Socket file " + teoSock + " is missing: binding it again.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(hostTrace(), "Socket file " + teoSock + " bound again.\n"));
  EXPECT_EQ(
      1, qortest::countOccurrences(wdTrace(), "Socket file " + wdSock + " is missing: binding it again.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(wdTrace(), "Socket file " + wdSock + " bound again.\n"));

  // qorhost reaches qorwd again: the forwarded recycle restarts it.
  const int result = sendTEOCommand("622 started qb");
  EXPECT_TRUE(result == 0 || result == 6) << result;
  ASSERT_TRUE(hostUp(first));
  EXPECT_EQ(2, starts());
  EXPECT_EQ(1, qortest::countOccurrences(wdTrace(), "Initiating recycle of agent id (e2e.host)."));
  EXPECT_EQ(0, kill(watchdog->pid(), 0));
  // The recycled qorhost's socket keeps its address until that process has
  // ended, which a slow build takes a while to do.
  EXPECT_TRUE(qortest::waitFor([&] { return socktest::listening(teoSock) == 1; }, 10000))
      << socktest::listening(teoSock);
  EXPECT_EQ(1, socktest::listening(wdSock));
}

// ---- Cached events collected by a qorhost that is killed ---------------------------------

const char kChainMark[] = "fault-chain ";
constexpr int kChainEvents = 3000;

std::string chainText(int number) {
  char text[32];
  snprintf(text, sizeof text, "%s%05d", kChainMark, number);
  return text;
}

// The numbers of the chain's events in `text`, in the order of its lines.
std::vector<int> chainNumbers(const std::string& text) {
  std::vector<int> numbers;
  for (const std::string& line : qortest::linesWith(text, kChainMark))
    numbers.push_back(std::atoi(line.c_str() + line.find(kChainMark) + sizeof kChainMark - 1));
  return numbers;
}

std::vector<int> range(int from, int to) {
  std::vector<int> numbers;
  for (int n = from; n < to; ++n) numbers.push_back(n);
  return numbers;
}

// What the watchdog side's trace says of each record it answered with: sent
// to the collector, or not written because the collector was gone.
struct Handover {
  std::vector<int> sent;
  std::vector<int> notWritten;
};

Handover handoverIn(const std::string& trace) {
  Handover handover;
  int pending = -1;
  for (const std::string& line : qortest::linesWith(trace, "")) {
    const size_t mark = line.find(kChainMark);
    if (line.find("Answer returned: ") != std::string::npos && mark != std::string::npos) {
      pending = std::atoi(line.c_str() + mark + sizeof kChainMark - 1);
    } else if (line.find("Answer sent.") != std::string::npos) {
      if (pending >= 0) handover.sent.push_back(pending);
      pending = -1;
    } else if (line.find("Error executing send response") != std::string::npos) {
      if (pending >= 0) handover.notWritten.push_back(pending);
      pending = -1;
    }
  }
  return handover;
}

// The watchdog side in a forked child: caches the chain, says "ready", and
// ends on "done".
[[noreturn]] void cachingWatchdog(const std::string& caps, const std::string& trace,
                                  e2e::ForkedWatchdog& test) {
  setenv("QOR_CAP_DIR", caps.c_str(), 1);
  qortest::traceTo(trace, 1 | 2 | 16 | 128);
  QOR_QueryService* service = QOR_QueryService::initWatchdogService();
  service->startQueryService();
  const time_t now = time(nullptr);
  for (int n = 0; n < kChainEvents; ++n) {
    EventData data;
    data.eventTime = now - 600 + n / 10;
    data.eventID = 8;
    data.agentName = L"OS Monitoring Agent";
    data.userMessage = L"chained";
    RawEvent event(data);
    event.setLogMessage(qor_mbstowcs(chainText(n).c_str()));
    event.logMessage();
  }
  const bool cached = e2e::ForkedWatchdog::cached(kChainEvents, 20000);
  // Ready only once its socket answers: a collector that finds nobody
  // listening gives up at once, and a slow build may start the server late.
  std::string answer;
  const bool listening = qortest::waitFor(
      [&] { return sendWDQuery("622 QUERY HEALTH_INFO", answer) == SOCKET_CLIENT_CLOSED; }, 20000);
  if (!cached || !listening || !test.say("ready")) _exit(2);
  if (test.readLine() != "done") _exit(3);
  service->releaseQueryService(false);
  _exit(0);
}

// qorwd is held with SIGSTOP while the collector waits for its next record,
// and the collector is killed: the record being answered finds it gone.
TEST(CollectionKilled, TheNextCollectorGetsEveryEventStillCachedOnceAndInOrder) {
  qortest::TempDir wdCaps;
  qortest::TempDir hostCaps;
  qortest::TempDir ips;
  qortest::TempDir work;
  setenv("QOR_IP_DIR", ips.path().c_str(), 1);
  unsetenv("QOR_CACHE_LIMIT");
  SOCKET_ANSWER_CYCLES = 50;
  SOCKET_ANSWER_CYCLE_MS = 100;
  e2e::ForkedWatchdog watchdogSide(
      [&](e2e::ForkedWatchdog& test) { cachingWatchdog(wdCaps.path(), work.file("wd.trace"), test); });
  const pid_t child = watchdogSide.pid();
  ASSERT_GT(child, 0);
  ASSERT_EQ("ready", watchdogSide.readLine());

  // A record per millisecond or so.
  const std::vector<std::string> env = {"QOR_SOCKET_ANSWER_WAIT=1"};
  std::unique_ptr<e2e::Host> first(
      new e2e::Host(hostCaps.path(), ips.path(), work.file("first.trace"), 128, env));
  ASSERT_TRUE(qortest::waitFor([&] { return chainNumbers(first->child().out()).size() >= 500; }, 20000))
      << first->child().out() << first->child().err();
  ASSERT_EQ(0, kill(child, SIGSTOP));
  const bool waiting = requestOutstanding(work.file("first.trace"));
  first->child().signal(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, first->child().wait(5000));
  ASSERT_EQ(0, kill(child, SIGCONT));
  ASSERT_TRUE(waiting);
  // Served behind the dead collector's request: that one is settled now.
  std::string answer;
  EXPECT_EQ(SOCKET_CLIENT_CLOSED, sendWDQuery("622 QUERY HEALTH_INFO", answer));
  const Handover handover = handoverIn(qortest::readFile(work.file("wd.trace")));
  const std::vector<int> heardFirst = chainNumbers(first->child().out());
  first.reset();

  // What reached the first: the oldest events, in order. Of those it was
  // handed, only the ones it had not yet passed on are lost with it.
  const int handed = static_cast<int>(handover.sent.size());
  ASSERT_GT(handed, 0);
  ASSERT_LT(handed, kChainEvents);
  EXPECT_EQ(range(0, handed), handover.sent);
  EXPECT_EQ(std::vector<int>({handed}), handover.notWritten);
  const int heard = static_cast<int>(heardFirst.size());
  EXPECT_EQ(range(0, heard), heardFirst);
  EXPECT_LE(heard, handed);

  e2e::Host second(hostCaps.path(), ips.path(), work.file("second.trace"), 128, env);
  ASSERT_TRUE(qortest::waitFor(
      [&] { return static_cast<int>(chainNumbers(second.child().out()).size()) >= kChainEvents - handed; },
      20000));
  EXPECT_EQ(0, sendWDQuery("622 QUERY EVENT_DATA", answer));
  EXPECT_EQ("$$NODATA", answer);
  // The rest, from the one put back on, each once and in order.
  EXPECT_EQ(range(handed, kChainEvents), chainNumbers(second.child().out()));
  const std::string trace = qortest::readFile(work.file("wd.trace"));
  EXPECT_EQ(1,
            qortest::countOccurrences(trace, "Event 8 not delivered: put back at the head of the cache.\n"));
  EXPECT_EQ(range(0, kChainEvents), handoverIn(trace).sent);
  EXPECT_EQ(0, second.stop());

  ASSERT_TRUE(watchdogSide.say("done"));
  EXPECT_EQ(0, watchdogSide.wait());
}

// ---- teo.dat written by a qorhost that is killed ----------------------------------------

constexpr int kStateAgents = 40;

std::string stateAgentId(int i) { return "e2e.agent" + std::to_string(i); }

// qorhost writes teo.dat when it stops. It is killed at many moments of
// stopping: at varied delays behind SIGTERM, and as soon as the temporary
// file appears, in the middle of the writing.
TEST(StateFileKilled, AKillAtAnyMomentOfWritingLeavesAWholeTeoDatWithTheDaysCounts) {
  qortest::TempDir caps;
  qortest::TempDir ips;
  qortest::TempDir work;
  for (int i = 0; i < kStateAgents; ++i) {
    qortest::writeFile(
        caps.file("agent" + std::to_string(i) + ".xml"),
        e2e::capFile(stateAgentId(i), "Agent " + std::to_string(i), work.file("none" + std::to_string(i))));
  }
  const std::string teoDat = caps.file("teo.dat");
  auto run = [&](const std::string& name) {
    return std::unique_ptr<e2e::Host>(
        new e2e::Host(caps.path(), ips.path(), work.file(name + ".trace"), 128, {}));
  };
  {
    std::unique_ptr<e2e::Host> host = run("first");
    ASSERT_TRUE(host->child().waitForOutput("qorhost: service started", 15000));
    ASSERT_EQ(0, host->stop());
  }
  // Today's counts, as if the agents had been restarted.
  std::vector<std::string> file = e2e::lines(qortest::readFile(teoDat));
  ASSERT_EQ(std::to_string(kStateAgents), file.at(0));
  for (int i = 0; i < kStateAgents; ++i) e2e::setField(file, stateAgentId(i), 12, std::to_string(i % 3));
  const std::string counted = e2e::join(file);
  qortest::writeFile(teoDat, counted);

  int inTheMiddle = 0;
  for (int round = 0; round < 24; ++round) {
    std::unique_ptr<e2e::Host> host = run("round");
    ASSERT_TRUE(host->child().waitForOutput("qorhost: service started", 15000)) << round;
    host->child().signal(SIGTERM);
    if (round % 2 == 0) {
      // Varied delays, over the whole of the stop.
      usleep(static_cast<useconds_t>(round * 250));
    } else {
      const long long deadline = qortest::nowMs() + 5000;
      while (access((teoDat + ".tmp").c_str(), F_OK) != 0 && qortest::nowMs() < deadline) {
      }
    }
    host->child().signal(SIGKILL);
    host->child().wait(5000);
    if (access((teoDat + ".tmp").c_str(), F_OK) == 0) ++inTheMiddle;
    ASSERT_EQ(counted, qortest::readFile(teoDat)) << "round " << round;
  }
  // Some kills came while the temporary was being written, where a file
  // written in place would have been cut short.
  EXPECT_GT(inTheMiddle, 0);

  std::unique_ptr<e2e::Host> last = run("last");
  ASSERT_TRUE(last->child().waitForOutput("qorhost: service started", 15000));
  for (int i = 0; i < kStateAgents; ++i) {
    EXPECT_NE(std::string::npos,
              last->listingOf(stateAgentId(i)).find(" restarts " + std::to_string(i % 3) + "/3"))
        << i;
  }
  EXPECT_EQ(0, last->stop());
  EXPECT_EQ(counted, qortest::readFile(teoDat));
  EXPECT_FALSE(qortest::fileExists(teoDat + ".tmp"));
}

}  // namespace
