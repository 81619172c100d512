// Instance discovery without a running service: real processes of our own
// programs, real policies and records in the live list, one cycle at a time
// on the test's thread, and what the cycle queued for the command handler,
// which the tests apply or throw away themselves.
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/controlleraccess.h"
#include "support/qortest.h"
#include "support/queues.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmd.h"

namespace {

Controller* controller() { return Controller::getController(); }

// Process ids that no process has: records whose process has gone.
constexpr int kGone = 4194000;

std::wstring wide(const std::string& text) { return qor_mbstowcs(text.c_str()); }

// What a cycle queued: the management events with their agent, and how many
// other events (the release of what discovery took out).
struct Queued {
  int id;
  int mgmtState;
  Agent* agent;
  bool operator==(const Queued& other) const {
    return id == other.id && mgmtState == other.mgmtState && agent == other.agent;
  }
};

std::ostream& operator<<(std::ostream& out, const Queued& queued) {
  return out << "{" << queued.id << ", " << queued.mgmtState << ", " << queued.agent << "}";
}

// Policies, records and processes of one test; the live list and the list of
// policies get them, and lose them again at the end.
class Discovery : public ::testing::Test {
 protected:
  Discovery() {
    MIN_CMD_TIMEOUT = 5;
    unsetenv("QOR_CMD_TIMEOUT");
    qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL | QOR_TL_STORY | 64);
  }
  ~Discovery() override {
    drop(qortest::takeEvents(controller()->getCommandHandler()));
    drop(qortest::takeEvents(controller()->getMessageHandler()));
    ManagedProcessList* list = controller()->getManagedEndpointProcesses();
    list->lockList();
    for (Agent* agent : *list) {
      if (owned(agent->getPolicy())) agent->setPolicy(nullptr);
      delete agent;
    }
    list->clear();
    std::vector<Policy*>& live = controller()->getPolicies();
    for (const auto& policy : policies) live.erase(std::find(live.begin(), live.end(), policy.get()));
    list->unlockList();
  }

  // A policy of `type` for the program `program` of the lab, listed as live.
  Policy* policy(const std::string& id, AgentType type, const std::string& program) {
    if (!qortest::fileExists(dir.file(program))) proctest::copyProgram("/bin/sleep", dir.file(program));
    policies.emplace_back(new Policy());
    Policy* made = policies.back().get();
    made->setSubagentID(wide(id));
    made->setAgentNameElement(wide(id + " agent"));
    made->setAgentTypeElement(type);
    made->setProcName(wide(program));
    made->setAgentPathElement(wide(dir.file(program)));
    made->setGeneric(true);
    ManagedProcessList* list = controller()->getManagedEndpointProcesses();
    list->lockList();
    controller()->getPolicies().push_back(made);
    list->unlockList();
    return made;
  }
  // A daemon whose processes are named by their service, so that several run at once.
  Policy* daemonPolicy(const std::string& id, const std::string& program) {
    Policy* made = policy(id, UnixDaemon, program);
    made->setServiceName(L"svc");
    return made;
  }
  // The suite's agent of product code "ab", whose instances `suite` lists first.
  Policy* suitePolicy(proctest::FakeSuite& suite, const std::string& configured) {
    suite.answer("o", configured);
    Policy* made = policy("qor.ab", ZEL_UNIX, "qorabd");
    made->setProductCode(L"ab");
    return made;
  }
  // A managed record of `of` with its process and state, listed.
  Agent* record(Policy* of, int pid, OperatingStates state, const std::wstring& instance = L"") {
    Agent* agent = new Agent();
    agent->setIdentityFrom(of);
    agent->setInstanceProcName(of->getProcName());
    if (of->isZELAgent() || !instance.empty()) {
      agent->setInstanceName(instance);
    } else if (!of->isConsole()) {
      agent->setServiceInstanceName(of->getServiceName());
    }
    agent->setManagedState(Managed);
    agent->setOperatingState(state);
    agent->setProcID(pid);
    ManagedProcessList* list = controller()->getManagedEndpointProcesses();
    list->lockList();
    list->push_back(agent);
    list->unlockList();
    return agent;
  }
  // A process of the lab's program, once /proc shows it.
  int run(const std::string& program) {
    processes.emplace_back(new proctest::Process({dir.file(program), "60"}));
    const int pid = processes.back()->pid();
    EXPECT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(pid, dir.file(program)); }, 5000));
    return pid;
  }
  void kill(int pid) {
    for (auto& process : processes) {
      if (process->pid() == pid) process->stop();
    }
  }
  // One cycle of the thread, after it has the mutex; the slow step runs when
  // `lastSlowStep` is older than its interval.
  void cycle(time_t lastSlowStep = time(nullptr)) {
    ASSERT_TRUE(controller()->tryLockDiscovery());
    controller()->discoveryCycle(lastSlowStep);
    controller()->unlockDiscovery();
  }
  // A process of the lab's program as the table gives it to the decision.
  QorProcess processOf(const std::string& program, const std::wstring& instance = L"") {
    QorProcess process;
    process.setProcID(run(program));
    process.setInstanceProcName(wide(program));
    process.setInstanceName(instance);
    return process;
  }
  // The decision for one process, with the mutex held as the thread holds it.
  Agent* decide(Policy* of, QorProcess* process, std::vector<int>& freed) {
    if (!controller()->tryLockDiscovery()) return nullptr;
    Agent* result = controller()->getManagedInstance(of, process, freed);
    controller()->unlockDiscovery();
    return result;
  }
  // The suite's instance lists, as the slow step takes them.
  void slowStep() {
    ASSERT_TRUE(controller()->tryLockDiscovery());
    controller()->discoveryZELInstances();
    controller()->unlockDiscovery();
  }
  Agent* slowStep(Policy* of) {
    if (!controller()->tryLockDiscovery()) return nullptr;
    Agent* result = controller()->discoveryZELInstances(of);
    controller()->unlockDiscovery();
    return result;
  }
  // The queued events, thrown away (which frees what discovery took out).
  std::vector<Queued> queued() {
    std::vector<Queued> result;
    std::vector<Event*> events = qortest::takeEvents(controller()->getCommandHandler());
    for (Event* event : events) {
      if (auto* mgmt = dynamic_cast<AgentMgmtEvent*>(event)) {
        result.push_back({mgmt->getEventTypeID(), mgmt->getMgmtState(), mgmt->getAgent()});
      } else {
        ++releases;
      }
    }
    drop(events);
    return result;
  }
  // The queued events applied as the command handler applies them.
  void applyQueued() {
    for (Event* event : qortest::takeEvents(controller()->getCommandHandler())) {
      if (dynamic_cast<AgentMgmtEvent*>(event) == nullptr) ++releases;
      event->doCommandProcessing();
      delete event;
    }
    drop(qortest::takeEvents(controller()->getMessageHandler()));
  }
  std::vector<Agent*> listed() {
    ManagedProcessList* list = controller()->getManagedEndpointProcesses();
    list->lockList();
    std::vector<Agent*> agents(list->begin(), list->end());
    list->unlockList();
    return agents;
  }
  std::string trace() { return qortest::readFile(dir.file("trace")); }
  int count(const std::string& text) { return qortest::countOccurrences(trace(), text); }
  // Calls of `function`, from its entry traces.
  int entries(const std::string& function) {
    int calls = 0;
    for (const std::string& line : qortest::linesWith(trace(), function)) {
      if (line.find("Entry") != std::string::npos || line.find("entry") != std::string::npos) ++calls;
    }
    return calls;
  }

  qortest::TempDir dir;
  std::vector<std::unique_ptr<Policy>> policies;
  std::vector<std::unique_ptr<proctest::Process>> processes;
  int releases = 0;

 private:
  static void drop(const std::vector<Event*>& events) {
    for (Event* event : events) delete event;
  }
  bool owned(Policy* policy) const {
    return std::any_of(policies.begin(), policies.end(),
                       [policy](const auto& own) { return own.get() == policy; });
  }
};

// The process ids of the records, 0 left out; each must be there once.
std::multiset<int> pidsOf(const std::vector<Agent*>& agents) {
  std::multiset<int> pids;
  for (Agent* agent : agents) {
    if (agent->getProcID() != 0) pids.insert(agent->getProcID());
  }
  return pids;
}

}  // namespace

TEST_F(Discovery, WithOnlyTheWatchdogsPolicyManagedNoProcessIsReadButTheDueSlowStepAndTheCleanUpRun) {
  proctest::FakeSuite suite;
  suite.answer("o", "ab db1 x\n");
  Policy* watchdog = policy("qor.qd", UnixDaemon, "qorqdd");
  watchdog->setProductCode(L"qd");
  record(watchdog, 0, OpStopped);
  Policy* suiteAgent = policy("qor.ab", ZEL_UNIX, "qorabd");
  suiteAgent->setProductCode(L"ab");
  const int before = suite.runs();

  cycle(time(nullptr) - 1000);
  EXPECT_EQ(1, count("No agents or only watchdog being managed skip discovery\n"));
  EXPECT_EQ(0, count("Executing discovery for policy"));
  // The slow step asked the suite for the instances of the one suite policy.
  EXPECT_EQ(before + 1, suite.runs());
  EXPECT_EQ(1, count("No new ZEL instance to add for agent qor.ab\n"));
  EXPECT_EQ(1, entries("cleanUpDefunctProcesses"));

  // Not due: the next cycle leaves the suite alone, and still cleans up.
  cycle();
  EXPECT_EQ(before + 1, suite.runs());
  EXPECT_EQ(2, entries("cleanUpDefunctProcesses"));
  EXPECT_EQ(0, entries("getRunningProcesses"));
}

TEST_F(Discovery, ANewProcessWhileAnAgentOfItsPolicyIsStartingOrStoppingWaitsForALaterCycle) {
  Policy* daemon = daemonPolicy("qor.da", "qordad");
  const int first = run("qordad");
  Agent* known = record(daemon, first, OpRunning);
  Agent* busy = record(daemon, 0, OpStarting);
  const int second = run("qordad");

  cycle();
  EXPECT_EQ(1, count("Start/stop action in progress for policy qor.da.\n"));
  EXPECT_EQ(1, count("Skipping discovery for policy qor.da\n"));
  EXPECT_EQ((std::vector<Agent*>{known, busy}), listed());
  EXPECT_TRUE(queued().empty());

  busy->setOperatingState(OpStopping);
  cycle();
  EXPECT_EQ(2, count("Start/stop action in progress for policy qor.da.\n"));
  EXPECT_EQ(2u, listed().size());

  // Once the action is over, the process is decided: the record without a
  // process takes it over.
  busy->setOperatingState(OpStopped);
  cycle();
  EXPECT_EQ((std::vector<Agent*>{known, busy}), listed());
  EXPECT_EQ(second, busy->getProcID());
  EXPECT_EQ(OpRunning, busy->getOperatingState());
  EXPECT_EQ((std::vector<Queued>{{agent_managed, Managed, busy}}), queued());
}

TEST_F(Discovery, TwoDeadRecordsAndTwoNewProcessesGiveOneTakeOverAndOneNewRecord) {
  Policy* daemon = daemonPolicy("qor.db", "qordbd");
  Agent* firstDead = record(daemon, kGone, OpRunning);
  Agent* secondDead = record(daemon, kGone + 1, OpRunning);
  const int one = run("qordbd");
  const int two = run("qordbd");

  cycle();
  std::vector<Agent*> agents = listed();
  ASSERT_EQ(3u, agents.size());
  EXPECT_EQ(firstDead, agents[0]);
  EXPECT_EQ(secondDead, agents[1]);
  // The first process consumed both freed pids: it took the first record...
  EXPECT_EQ(one, firstDead->getProcID());
  EXPECT_EQ(OpRunning, firstDead->getOperatingState());
  // ...the second dead record stays as it is...
  EXPECT_EQ(kGone + 1, secondDead->getProcID());
  // ...and the second process has a new record.
  Agent* made = agents[2];
  EXPECT_EQ(two, made->getProcID());
  EXPECT_EQ(L"qor.db", made->getID());
  EXPECT_EQ(Managed, made->getManagedState());
  EXPECT_EQ(L"qordbd", made->getInstanceProcName());
  EXPECT_EQ(L"svc", made->getServiceInstanceName());
  EXPECT_EQ(wide(dir.file("qordbd")), made->getPath());
  EXPECT_EQ(2, count("Instance PID " + std::to_string(kGone) + " no longer available\n") +
                   count("Instance PID " + std::to_string(kGone + 1) + " no longer available\n"));
  EXPECT_EQ(1, count("Replace process qor.db, pid " + std::to_string(kGone) + " to pid " +
                     std::to_string(one) + "\n"));
  EXPECT_EQ(1, count("Creating new instance for process qordbd, pid " + std::to_string(two) + " \n"));
  EXPECT_EQ(1, count("adding agent to process list from discovery.\n"));
  EXPECT_EQ(1, count("Total managed agents = 2. qor.db managed agents = 2.\n"));
  EXPECT_EQ((std::vector<Queued>{{agent_managed, Managed, firstDead}, {agent_managed, Managed, made}}),
            queued());
  // Each discovered record has a policy of its own, a copy of the live one.
  EXPECT_NE(daemon, firstDead->getPolicy());
  EXPECT_NE(daemon, made->getPolicy());
  EXPECT_EQ(L"qor.db", made->getPolicy()->getSubagentID());

  // The next cycle knows both processes and changes nothing.
  cycle();
  EXPECT_EQ(3u, listed().size());
  EXPECT_EQ(2, count("Instance PID " + std::to_string(one) + " already managed\n") +
                   count("Instance PID " + std::to_string(two) + " already managed\n"));
  EXPECT_TRUE(queued().empty());
}

TEST_F(Discovery, AStoppedRecordWithoutProcessTakesOverANewProcessOfItsInstanceAndRunsAgain) {
  Policy* console = policy("qor.dc", Console, "qordcd");
  Agent* stopped = record(console, 0, OpStopped, L"db1");
  QorProcess process = processOf("qordcd", L"db1");
  std::vector<int> freed{0};

  Agent* result = decide(console, &process, freed);
  EXPECT_EQ(stopped, result);
  EXPECT_TRUE(freed.empty());
  EXPECT_EQ(process.getProcID(), stopped->getProcID());
  EXPECT_EQ(OpRunning, stopped->getOperatingState());
  EXPECT_EQ(L"db1", stopped->getInstanceName());
  EXPECT_EQ((std::vector<std::wstring>{L"db1"}), console->getInstances());
  EXPECT_EQ(1u, listed().size());
}

TEST_F(Discovery, TheFirstSearchIsNotTiedToThePolicySoARecordOfAnotherPolicyCanBeTaken) {
  Policy* mine = policy("qor.mine", Console, "qorsamed");
  Policy* other = policy("qor.other", Console, "qorsamed");
  Agent* foreign = record(other, kGone, OpRunning, L"db1");
  QorProcess process = processOf("qorsamed", L"db1");
  std::vector<int> freed{kGone};

  EXPECT_EQ(foreign, decide(mine, &process, freed));
  EXPECT_EQ(process.getProcID(), foreign->getProcID());
  EXPECT_EQ(L"qor.other", foreign->getID());
  EXPECT_EQ(0, count("No instances to reuse.\n"));
}

TEST_F(Discovery, TheSecondSearchDropsTheProcessNameAndNeedsThePolicysId) {
  Policy* mine = policy("qor.mine", Console, "qorsecond");
  Policy* other = policy("qor.other", Console, "qorsecond");
  // Another process name: the first search misses both records.
  Agent* foreign = record(other, kGone, OpRunning, L"db1");
  foreign->setInstanceProcName(L"elsewhere");
  Agent* own = record(mine, kGone, OpRunning, L"db1");
  own->setInstanceProcName(L"elsewhere");
  QorProcess process = processOf("qorsecond", L"db1");
  std::vector<int> freed{kGone};

  EXPECT_EQ(own, decide(mine, &process, freed));
  EXPECT_EQ(1, count("No instances to reuse.\n"));
  EXPECT_EQ(process.getProcID(), own->getProcID());
  EXPECT_EQ(kGone, foreign->getProcID());
  // The record keeps its instance process name.
  EXPECT_EQ(L"elsewhere", own->getInstanceProcName());
}

TEST_F(Discovery, AManuallyStoppedConsoleRecordWithoutInstanceIsNotReusedAndANewRecordIsMade) {
  Policy* console = policy("qor.cs", Console, "qorcsd");
  Agent* stopped = record(console, 0, OpManuallyStopped);
  QorProcess process = processOf("qorcsd");
  std::vector<int> freed{0};

  Agent* result = decide(console, &process, freed);
  ASSERT_NE(nullptr, result);
  EXPECT_NE(stopped, result);
  EXPECT_EQ(1, count("Cannot reuse - manually stopped / stopping process qor.cs\n"));
  EXPECT_EQ(0u, stopped->getProcID());
  EXPECT_EQ(OpManuallyStopped, stopped->getOperatingState());
  EXPECT_EQ(process.getProcID(), result->getProcID());
  // A console record names no service.
  EXPECT_EQ(L"", result->getServiceInstanceName());
  EXPECT_EQ((std::vector<Agent*>{stopped, result}), listed());
}

TEST_F(Discovery, ASuiteInstanceNoLongerListedLosesItsRecordAndTheLastRecordStaysAsHolder) {
  proctest::FakeSuite suite;
  Policy* zel = suitePolicy(suite, "ab db1 x\nab db2 x\nab db3 x\n");
  Agent* db1 = record(zel, 0, OpStopped, L"db1");
  record(zel, 0, OpStopped, L"db2");
  Agent* db3 = record(zel, 0, OpStopped, L"db3");
  suite.answer("o", "ab db1 x\nab db3 x\n");

  slowStep();
  EXPECT_EQ((std::vector<Agent*>{db1, db3}), listed());
  EXPECT_EQ(1, count("Deleting ZEL instance db2 from agent qor.ab\n"));
  EXPECT_TRUE(queued().empty());  // the deleted record is freed with the release
  controller()->releaseDiscarded();
  queued();
  EXPECT_EQ(1, releases);

  // Nothing configured any more: db1 goes, and db3, the last, stays as holder.
  suite.answer("o", "ab <none>\n");
  slowStep();
  EXPECT_EQ(std::vector<Agent*>{db3}, listed());
  EXPECT_TRUE(db3->isZELInstanceHolder());
  EXPECT_EQ(OpUnknown, db3->getOperatingState());
  EXPECT_EQ((std::vector<Queued>{{agent_managed, Managed, db3}}), queued());
}

TEST_F(Discovery, AnInstanceHolderIsNeverDeleted) {
  proctest::FakeSuite suite;
  Policy* zel = suitePolicy(suite, "ab db1 x\n");
  Agent* holder = record(zel, 0, OpNotConfigured);
  Agent* db1 = record(zel, 0, OpStopped, L"db1");
  record(zel, 0, OpStopped, L"db2");

  EXPECT_EQ(nullptr, slowStep(zel));
  EXPECT_EQ((std::vector<Agent*>{holder, db1}), listed());

  suite.answer("o", "");
  EXPECT_EQ(nullptr, slowStep(zel));
  // db1 is deleted as the second of two records; the holder stays.
  EXPECT_EQ(std::vector<Agent*>{holder}, listed());
  EXPECT_TRUE(holder->isZELInstanceHolder());
}

TEST_F(Discovery, StartManageBringsTheSuiteInstancesUpToDateBeforeItsSecondLookup) {
  proctest::FakeSuite suite;
  Policy* zel = suitePolicy(suite, "ab db1 x\nab db2 x\n");
  Agent* db1 = record(zel, 0, OpStopped, L"db1");
  Agent* db2 = record(zel, 0, OpStopped, L"db2");
  db1->setManagedState(Unmanaged);
  db2->setManagedState(Unmanaged);
  suite.answer("o", "ab db1 x\n");
  const int before = suite.runs();

  // No OS agent is managed here, so the answer is 404: after the update.
  EXPECT_EQ(404, controller()->startManage(db1->getName()));
  EXPECT_EQ(before + 1, suite.runs());
  EXPECT_EQ(std::vector<Agent*>{db1}, listed());
  EXPECT_EQ(1, count("Deleting ZEL instance db2 from agent qor.ab\n"));
  queued();
  EXPECT_EQ(1, releases);
}

TEST_F(Discovery, AProcessGoneBetweenTheTableReadAndTheMatchLeavesARecordThatTheNextProcessTakesOver) {
  Policy* daemon = daemonPolicy("qor.gone", "qorgoned");
  Agent* first = record(daemon, run("qorgoned"), OpRunning);
  const int goneBeforeMatch = run("qorgoned");
  const int goneAfterMatch = run("qorgoned");
  std::vector<QorProcess*> all;
  GetCmdManager()->getRunningProcesses(all);

  // The steps of one cycle on the table read before the processes went: one
  // goes before the policy's processes are picked, which drops it...
  kill(goneBeforeMatch);
  std::vector<QorProcess*> running;
  GetCmdManager()->getPolicyProcesses(daemon, all, running);
  std::vector<int> freed =
      controller()->mergeManagedInstances(controller()->getPolicyManagedAgents(daemon, {first}), running);
  ASSERT_EQ(1u, running.size());
  EXPECT_EQ(goneAfterMatch, running[0]->getProcID());
  // ...the other after, and it gets a record all the same.
  kill(goneAfterMatch);
  Agent* made = decide(daemon, running[0], freed);
  for (QorProcess* process : all) delete process;
  ASSERT_NE(nullptr, made);
  EXPECT_EQ(goneAfterMatch, made->getProcID());
  EXPECT_EQ((std::vector<Agent*>{first, made}), listed());

  // The next cycle: the record of the gone process takes over the new one.
  const int next = run("qorgoned");
  cycle();
  EXPECT_EQ((std::vector<Agent*>{first, made}), listed());
  EXPECT_EQ(next, made->getProcID());
  EXPECT_EQ(0u, pidsOf(listed()).count(goneAfterMatch));
  queued();
}

TEST_F(Discovery, InstancesThatComeAndGoBetweenCyclesNeverShareARecordAndGoneOnesAreTakenOver) {
  Policy* daemon = daemonPolicy("qor.churn", "qorchurnd");
  Agent* seed = record(daemon, run("qorchurnd"), OpRunning);
  const int a = run("qorchurnd");
  const int b = run("qorchurnd");
  cycle();
  ASSERT_EQ(3u, listed().size());
  queued();

  // a and b go; c and d come; e comes and goes before any cycle sees it.
  kill(a);
  kill(b);
  const int c = run("qorchurnd");
  const int d = run("qorchurnd");
  kill(run("qorchurnd"));
  cycle();
  std::vector<Agent*> agents = listed();
  ASSERT_EQ(4u, agents.size());
  EXPECT_EQ(seed, agents[0]);
  // c took over a's record and used up both freed pids; d got a new record.
  EXPECT_EQ(c, agents[1]->getProcID());
  EXPECT_EQ(b, agents[2]->getProcID());
  EXPECT_EQ(d, agents[3]->getProcID());
  queued();

  // f takes over b's record: now every record stands for a running process, once.
  const int f = run("qorchurnd");
  cycle();
  agents = listed();
  ASSERT_EQ(4u, agents.size());
  EXPECT_EQ(f, agents[2]->getProcID());
  std::multiset<int> pids = pidsOf(agents);
  EXPECT_EQ((std::multiset<int>{seed->getProcID(), c, d, f}), pids);
  queued();
}

TEST_F(Discovery, FiveHundredInstancesOfOneProgramAreDiscoveredInLessThanOneSecondOfCPUPerPass) {
  Policy* daemon = daemonPolicy("qor.many", "qormanyd");
  record(daemon, run("qormanyd"), OpRunning);
  const std::string exe = dir.file("qormanyd");
  for (int i = 1; i < 500; ++i) processes.emplace_back(new proctest::Process({exe, "60"}));
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return std::all_of(processes.begin(), processes.end(), [&](const auto& process) {
          return proctest::runsExecutable(process->pid(), exe);
        });
      },
      20000));

  for (int pass = 0; pass < 2; ++pass) {
    timespec start{}, end{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &start);
    cycle();
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &end);
    const double seconds = (end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
    EXPECT_LT(seconds, 1.0) << "pass " << pass;
    std::vector<Agent*> agents = listed();
    ASSERT_EQ(500u, agents.size()) << "pass " << pass;
    std::multiset<int> pids = pidsOf(agents);
    EXPECT_EQ(500u, std::set<int>(pids.begin(), pids.end()).size());
    queued();
  }
}

TEST_F(Discovery, AHundredPassesOfTakeOversFreeEveryDroppedPolicyOnTheCommandHandlersTurn) {
  Policy* daemon = daemonPolicy("qor.hundred", "qorhundredd");
  int pid = run("qorhundredd");
  Agent* agent = record(daemon, pid, OpRunning);
  for (int pass = 0; pass < 100; ++pass) {
    kill(pid);
    processes.clear();
    pid = run("qorhundredd");
    cycle();
    ASSERT_EQ(std::vector<Agent*>{agent}, listed()) << "pass " << pass;
    ASSERT_EQ(pid, agent->getProcID()) << "pass " << pass;
    applyQueued();
  }
  // The live policy was never dropped; each copy after it was, once.
  EXPECT_EQ(99, releases);
  EXPECT_NE(daemon, agent->getPolicy());
  EXPECT_EQ(L"qor.hundred", agent->getPolicy()->getSubagentID());
}

namespace {

double secondsSince(const timespec& start) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - start.tv_sec) + (now.tv_nsec - start.tv_nsec) / 1e9;
}

// Whether every line with `step` comes inside a cycle: after a "lockDiscovery"
// and before the thread sleeps again.
bool onlyInsideCycles(const std::string& trace, const std::string& step) {
  bool inCycle = false;
  size_t start = 0;
  while (start < trace.size()) {
    size_t end = trace.find('\n', start);
    if (end == std::string::npos) end = trace.size();
    const std::string line = trace.substr(start, end - start);
    if (line.find("Going to sleep for") != std::string::npos) inCycle = false;
    if (line.size() >= 13 && line.compare(line.size() - 13, 13, "lockDiscovery") == 0) inCycle = true;
    if (line.find(step) != std::string::npos && !inCycle) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

// The thread itself, with intervals of one second; its own process, so that
// the Controller reads them.
TEST(DiscoveryThread, AMutexTakenWhenTheIntervalEndsCostsAWholeIntervalAndTheSlowStepComesAtACycleEnd) {
  setenv("QOR_DISCOVERY_INTERVAL", "1", 1);
  setenv("QOR_ZEL_DISCOVERY_INTERVAL", "1", 1);
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  auto trace = [&] { return qortest::readFile(dir.file("trace")); };
  proctest::FakeSuite suite;
  suite.answer("o", "ab db1 x\n");
  ASSERT_EQ(1, controller()->getDiscoveryInterval());
  ASSERT_EQ(1, controller()->getZelDiscoveryInterval());
  // A suite policy, so that the slow step asks the suite's tool. It stays
  // listed to the end of the process: the thread may still read it.
  Policy* zel = new Policy();
  zel->setSubagentID(L"qor.ab");
  zel->setAgentTypeElement(ZEL_UNIX);
  zel->setGeneric(true);
  zel->setProductCode(L"ab");
  controller()->getManagedEndpointProcesses()->lockList();
  controller()->getPolicies().push_back(zel);
  controller()->getManagedEndpointProcesses()->unlockList();
  const int before = suite.runs();

  ASSERT_TRUE(controller()->lockDiscovery());
  ASSERT_TRUE(controller()->startDiscoveryThread());
  const std::string skipped = "discovery lock not available skipping discovery\n";
  ASSERT_TRUE(qortest::waitFor([&] { return qortest::countOccurrences(trace(), skipped) == 1; }, 3000));
  timespec missed{};
  clock_gettime(CLOCK_MONOTONIC, &missed);
  controller()->unlockDiscovery();
  // Free again at once, yet the next try comes a whole interval after the miss.
  ASSERT_TRUE(
      qortest::waitFor([&] { return qortest::countOccurrences(trace(), "lockDiscovery\n") >= 1; }, 3000));
  EXPECT_GE(secondsSince(missed), 0.8);
  EXPECT_EQ(1, qortest::countOccurrences(trace(), skipped));

  // The slow step was due at the lost cycle, yet comes only with a cycle
  // that had the mutex, at its end.
  ASSERT_TRUE(qortest::waitFor([&] { return suite.runs() >= before + 1; }, 4000)) << trace();
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        return qortest::countOccurrences(trace(), "No new ZEL instance to add for agent qor.ab\n") >= 2;
      },
      8000));
  EXPECT_TRUE(onlyInsideCycles(trace(), "No new ZEL instance to add")) << trace();

  // Shutting down: once the mutex is ours again, no cycle follows.
  ControllerTestAccess::setShuttingDown(true);
  ASSERT_TRUE(controller()->lockDiscovery());
  const int cycles = qortest::countOccurrences(trace(), "lockDiscovery\n");
  controller()->unlockDiscovery();
  ASSERT_TRUE(qortest::waitFor([&] { return !controller()->isDISleeping(); }, 3000));
  EXPECT_EQ(cycles, qortest::countOccurrences(trace(), "lockDiscovery\n"));
}
