// The OS agent's counts kept in step across the two processes: the watchdog
// process takes the restart count from the embedded service at start, and the
// embedded service's snapshot of the OS agent asks the watchdog process for
// its count and last check. Real UNIX sockets answered by the test, and a real
// process under a name of the test's own.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agents/qoragt.h"
#include "cap/capfiles.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "interfaces/qorsockclient.h"
#include "support/controlleraccess.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorwd.h"

namespace {

// Listens at `path` and answers every query with `answer` and every command
// with "0", keeping the requests it read, until destroyed.
class AnsweringServer {
 public:
  AnsweringServer(const std::string& path, const std::string& answer) : answer_(answer) {
    listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    unlink(path.c_str());
    bound_ = bind(listener_, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0 &&
             listen(listener_, 10) == 0;
    thread_ = std::thread([this] { serve(); });
  }
  ~AnsweringServer() {
    shutdown(listener_, SHUT_RDWR);  // wakes the accept
    thread_.join();
    close(listener_);
  }
  bool bound() const { return bound_; }
  std::vector<std::string> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    for (;;) {
      int connection = accept(listener_, nullptr, nullptr);
      if (connection < 0) return;
      char buffer[4096];
      ssize_t got = recv(connection, buffer, sizeof buffer, 0);
      {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.emplace_back(buffer, got > 0 ? static_cast<size_t>(got) : 0);
      }
      const bool query =
          got > 0 && std::string(buffer, static_cast<size_t>(got)).find(" QUERY ") != std::string::npos;
      const std::string answer = query ? answer_ : "0";
      send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
      close(connection);
    }
  }

  std::string answer_;
  int listener_ = -1;
  bool bound_ = false;
  std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

class CountsInStep : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("QOR_IP_DIR", dir.path().c_str(), 1);
    unsetenv("QOR_SOCKET_ANSWER_WAIT");
    SOCKET_ANSWER_CYCLES = 50;
    SOCKET_ANSWER_CYCLE_MS = 10;
    qortest::traceTo(dir.file("trace"), 146 | 1);
  }
  void TearDown() override {
    for (ManagedProcessList* list :
         {controller()->getWatchdogList(), controller()->getManagedEndpointProcesses()}) {
      list->lockList();
      list->clear();
      list->unlockList();
    }
  }
  Controller* controller() { return Controller::getController(); }
  std::string trace() { return qortest::readFile(dir.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }

  Agent* record(ManagedProcessList* list, const std::wstring& id, const std::wstring& code, ManagerType type,
                int count) {
    Policy* policy = new Policy();
    policy->setProductCode(code);
    policy->setManagerTypeElement(type);
    owned.emplace_back(new Agent());
    Agent* agent = owned.back().get();
    agent->setPolicy(policy);
    agent->setID(id);
    agent->setName(L"Agent " + id);
    agent->setManagedState(Managed);
    agent->setDailyRestartCount(count);
    list->lockList();
    list->push_back(agent);
    list->unlockList();
    return agent;
  }

  qortest::TempDir dir;
  std::vector<std::unique_ptr<Agent>> owned;
};

TEST_F(CountsInStep, TheWatchdogProcessTakesTheOSAgentsCountFromTheEmbeddedService) {
  AnsweringServer teo(dir.file(".teo_sock"), "3|");
  ASSERT_TRUE(teo.bound());
  Agent* other = record(controller()->getManagedEndpointProcesses(), L"other", L"zz", TeoServices, 1);
  Agent* host = record(controller()->getManagedEndpointProcesses(), L"host", L"qg", WatchDog, 0);
  controller()->updateOSAgent();
  EXPECT_EQ(3, host->getDailyRestartCount());
  EXPECT_EQ(1, other->getDailyRestartCount());
  EXPECT_EQ(std::vector<std::string>({"622 QUERY OS_RESTART_COUNT"}), teo.requests());
  EXPECT_EQ(1, traced("Get OS Agent Restart Count.\n"));
  EXPECT_EQ(1, traced("Result of query: 0, 3| \n"));
  EXPECT_EQ(1, traced("attempting to set daily restart count to: 3\n"));
  EXPECT_EQ(1, traced("Set OS agent restart count 3"));
}

TEST_F(CountsInStep, WithTheOSAgentDownTheWatchdogProcessKeepsItsCount) {
  Agent* host = record(controller()->getManagedEndpointProcesses(), L"host", L"qb", External, 2);
  controller()->updateOSAgent();
  EXPECT_EQ(2, host->getDailyRestartCount());
  EXPECT_EQ(1, traced("Result of query: 3,  \n"));
  EXPECT_EQ(0, traced("attempting to set daily restart count"));
}

TEST_F(CountsInStep, AnAnswerWithoutABarLeavesTheWatchdogProcessesCountAlone) {
  AnsweringServer teo(dir.file(".teo_sock"), "7");
  ASSERT_TRUE(teo.bound());
  Agent* host = record(controller()->getManagedEndpointProcesses(), L"host", L"qb", WatchDog, 2);
  controller()->updateOSAgent();
  EXPECT_EQ(2, host->getDailyRestartCount());
  EXPECT_EQ(1, traced("Result of query: 0, 7 \n"));
  EXPECT_EQ(0, traced("attempting to set daily restart count"));
}

// The embedded side: the OS agent's record in watchdogList, supervised by the
// watchdog process, running as a real process named "qorosx".
class WatchedSnapshot : public CountsInStep {
 protected:
  void SetUp() override {
    CountsInStep::SetUp();
    controller()->setCAPDirPaths({captest::wide(caps.path() + "/")});
    captest::Subagent subagent;
    subagent.id = "host.agent";
    subagent.productCode = "<productCode>qb</productCode>";
    subagent.procName = "<procName>qorosx</procName>";
    subagent.agentPath = "<agentPath>" + exe + "</agentPath>";
    subagent.managerType = "<managerType>WatchDog</managerType>";
    Policy* policy = new Policy();
    XMLprocessor processor;
    ASSERT_EQ(XML_OK, captest::parseText(processor, caps, captest::document(subagent), *policy));
    owned.emplace_back(new Agent());
    host = owned.back().get();
    host->setIdentityFrom(policy);
    host->setInstanceProcName(policy->getProcName());
    host->setManagedState(WatchdogManaged);
    host->setDailyRestartCount(1);
    Watchdog* watchdog = new Watchdog();
    watchdog->setAgent(host);
    host->setWatchdog(watchdog);
    ManagedProcessList* list = controller()->getWatchdogList();
    list->lockList();
    list->push_back(host);
    list->unlockList();
  }
  int startHost() {
    proctest::copyProgram("/bin/sleep", exe);
    process.reset(new proctest::Process({exe, "30"}));
    const int pid = process->pid();
    EXPECT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(pid, exe); }, 5000));
    return pid;
  }
  // One snapshot's copy of the OS agent, the copies freed.
  struct Seen {
    int count = -1;
    ManagedStates managed = Unmanaged;
    OperatingStates state = OpUnknown;
    time_t checked = 0;
    bool hasCheck = false;
  };
  Seen snapshot(bool update) {
    std::vector<Agent*> copies;
    EXPECT_TRUE(controller()->getWatchDogListSnapshot(&copies, update));
    Seen seen;
    EXPECT_EQ(1u, copies.size());
    if (!copies.empty()) {
      seen.count = copies.front()->getDailyRestartCount();
      seen.managed = copies.front()->getManagedState();
      seen.state = copies.front()->getOperatingState();
      seen.hasCheck = copies.front()->getLastChecked(seen.checked);
    }
    for (Agent* copy : copies) delete copy;
    return seen;
  }

  qortest::TempDir caps;
  std::string exe = dir.file("qorosx");
  std::unique_ptr<proctest::Process> process;
  Agent* host = nullptr;
};

TEST_F(WatchedSnapshot, WithoutUpdateTheRecordIsCopiedAsItStandsAndShownManaged) {
  AnsweringServer wd(dir.file(".teo_wd_sock"), "5|");
  startHost();
  Seen seen = snapshot(false);
  EXPECT_EQ(1, seen.count);
  EXPECT_EQ(Managed, seen.managed);
  EXPECT_EQ(OpUnknown, seen.state);
  EXPECT_TRUE(wd.requests().empty());
  EXPECT_EQ(WatchdogManaged, host->getManagedState());
}

TEST_F(WatchedSnapshot, AnUpdateTakesTheWatchdogProcessesCountAndLastCheck) {
  AnsweringServer wd(dir.file(".teo_wd_sock"), "4|14 10 126 13 5 9 0");
  const int pid = startHost();
  Seen seen = snapshot(true);
  EXPECT_EQ(std::vector<std::string>({"622 QUERY HEALTH_INFO"}), wd.requests());
  EXPECT_EQ(pid, host->getProcID());
  EXPECT_EQ(4, seen.count);
  EXPECT_EQ(Managed, seen.managed);
  EXPECT_EQ(OpRunning, seen.state);
  struct tm expected;
  memset(&expected, 0, sizeof expected);
  expected.tm_mday = 14;
  expected.tm_mon = 10;
  expected.tm_year = 126;
  expected.tm_hour = 13;
  expected.tm_min = 5;
  expected.tm_sec = 9;
  expected.tm_isdst = 0;
  EXPECT_TRUE(seen.hasCheck);
  EXPECT_EQ(mktime(&expected), seen.checked);
  EXPECT_EQ(1, traced("Result of query: 0, 4|14 10 126 13 5 9 0 \n"));
  EXPECT_EQ(1, traced("setting daily restart count to: 4\n"));
  EXPECT_EQ(1, traced("date 14 10 126 13 5 9 0\n"));
}

TEST_F(WatchedSnapshot, ACountWithoutDateLeavesTheCheckAsItWas) {
  AnsweringServer wd(dir.file(".teo_wd_sock"), "2|");
  startHost();
  Seen seen = snapshot(true);
  EXPECT_EQ(2, seen.count);
  EXPECT_FALSE(seen.hasCheck);  // the refresh clears the check mark and no date came back
  EXPECT_EQ(1, traced("setting daily restart count to: 2\n"));
  // "Update = " of the snapshot's own line holds "date " too.
  EXPECT_EQ(traced("Update = "), traced("date "));
}

TEST_F(WatchedSnapshot, AFailedQueryKeepsTheOldCountAndTheRecordIsStillCopied) {
  startHost();
  Seen seen = snapshot(true);
  EXPECT_EQ(1, seen.count);
  EXPECT_EQ(OpRunning, seen.state);
  EXPECT_EQ(0, traced("Result of query"));
}

TEST_F(WatchedSnapshot, WithTheProcessGoneNoQueryIsMadeAndTheStateIsUnknown) {
  AnsweringServer wd(dir.file(".teo_wd_sock"), "5|");
  Seen seen = snapshot(true);
  EXPECT_EQ(1, seen.count);
  EXPECT_EQ(OpUnknown, seen.state);
  EXPECT_TRUE(wd.requests().empty());
  // Not found is no valid data: the next update looks again.
  startHost();
  seen = snapshot(true);
  EXPECT_EQ(5, seen.count);
  EXPECT_EQ(1u, wd.requests().size());
}

TEST_F(WatchedSnapshot, WithinThirtySecondsOfAValidRefreshNoQueryIsMadeButAfterACountResetOneIs) {
  AnsweringServer wd(dir.file(".teo_wd_sock"), "5|");
  startHost();
  EXPECT_EQ(5, snapshot(true).count);
  EXPECT_EQ(5, snapshot(true).count);
  EXPECT_EQ(1u, wd.requests().size());
  // A reset of the OS agent's count goes to the watchdog process and makes
  // the data stale.
  EXPECT_EQ(0, controller()->resetAgentRestartCount(host->getName(), host->getInstanceProcName(),
                                                    host->getInstanceName()));
  snapshot(false);
  EXPECT_EQ(2u, wd.requests().size());
  snapshot(true);
  EXPECT_EQ(std::vector<std::string>({"622 QUERY HEALTH_INFO", "622 RESET_COUNT", "622 QUERY HEALTH_INFO"}),
            wd.requests());
}

// A clock set back an hour puts the last refresh an hour ahead: the record
// is refreshed at the next update all the same, not an hour later.
TEST_F(WatchedSnapshot, ARefreshThatLiesAheadAfterTheClockWasSetBackIsMadeAgainAtTheNextUpdate) {
  AnsweringServer wd(dir.file(".teo_wd_sock"), "5|");
  startHost();
  EXPECT_EQ(5, snapshot(true).count);
  EXPECT_EQ(1u, wd.requests().size());
  ControllerTestAccess::setWatchdogListChecked(time(nullptr) + 3600);
  EXPECT_EQ(5, snapshot(true).count);
  EXPECT_EQ(std::vector<std::string>({"622 QUERY HEALTH_INFO", "622 QUERY HEALTH_INFO"}), wd.requests());
  // Refreshed now, the record is kept for thirty seconds again.
  snapshot(true);
  EXPECT_EQ(2u, wd.requests().size());
}

}  // namespace
