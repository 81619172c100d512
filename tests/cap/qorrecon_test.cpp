// The agents that an accepted CAP file yields: its running processes matched
// against the state file's records, new records for what is new, and each
// agent's management event. Real CAP files, a real teo.dat in the CAP
// directory, real processes under names of their own, and the suite's status
// tool as a script on a fake install root. The events are applied on the
// test's thread, as the command handler would; the service's threads are not
// started, so what the state machine raises stays on the queues for the test.
#include <gtest/gtest.h>

#include <algorithm>

#include "agents/qoragt.h"
#include "cap/agentlab.h"
#include "cap/capfiles.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "include/qorapi.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorwd.h"

namespace {

using captest::kNoSuchProcess;
using captest::Persisted;

class Recon : public ::testing::Test {
 protected:
  void SetUp() override {
    MIN_CMD_TIMEOUT = 5;
    unsetenv("QOR_CMD_TIMEOUT");
    qortest::traceTo(work.file("trace"), 1 | 128);
    // The state file lies in the first CAP directory, as the service's start sets it.
    controller()->setCAPDirPaths({captest::wide(caps.path() + "/")});
    controller()->setTEODirPath(captest::wide(caps.path() + "/"));
  }
  void TearDown() override {
    deleteAll(takeMessages());
    deleteAll(takeCommands());
  }

  Controller* controller() { return Controller::getController(); }
  ManagedProcessList* managed() { return controller()->getManagedEndpointProcesses(); }
  std::string trace() { return qortest::readFile(work.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }
  std::wstring capPath(const std::string& name) { return captest::wide(caps.file(name)); }

  void writeCap(const std::string& name, const captest::Subagent& subagent) {
    qortest::writeFile(caps.file(name), captest::document(subagent));
  }
  void writeTeoDat(const std::vector<Persisted>& records) {
    qortest::writeFile(caps.file("teo.dat"), captest::teoDat(records));
  }

  // Applies the arrival of a CAP file, of the initial scan or later; returns
  // the messages that it sent.
  std::vector<Event*> add(const std::string& name, bool initialScan) {
    CAPFileEvent event;
    event.setCAPState(CAP_FILE_ADDED);
    event.setEventTypeID(cap_added);
    event.setCAPFileName(capPath(name));
    if (initialScan) event.setInitialDiscovery();
    event.doCommandProcessing();
    return takeMessages();
  }
  void accept(const std::string& name, bool initialScan) { deleteAll(add(name, initialScan)); }

  static std::vector<Event*> drain(EventHandler* queue) {
    std::vector<Event*> events;
    queue->lockEventQueue();
    while (Event* event = queue->popEvent()) events.push_back(event);
    queue->unlockEventQueue();
    return events;
  }
  std::vector<Event*> takeMessages() { return drain(controller()->getMessageHandler()); }
  // What the state machine raised for later: the command queue.
  std::vector<Event*> takeCommands() { return drain(controller()->getCommandHandler()); }
  static void deleteAll(const std::vector<Event*>& events) {
    for (Event* event : events) delete event;
  }

  std::vector<Agent*> agents() {
    managed()->lockList();
    std::vector<Agent*> list(managed()->begin(), managed()->end());
    managed()->unlockList();
    return list;
  }
  Policy* policyOf(const std::string& name) {
    for (Policy* policy : controller()->getPolicies()) {
      if (policy->getCAPFileName() == capPath(name)) return policy;
    }
    return nullptr;
  }

  std::string program(const std::string& name) { return lab.program(name); }
  int run(const std::string& name) { return lab.run(name); }
  int runShell(const std::string& name, const std::vector<std::string>& args) {
    return lab.runShell(name, args);
  }

  // A plain agent whose executable is `name` in the lab.
  captest::Subagent plain(const std::string& id, const std::string& name,
                          const std::string& managerType = "TeoServices") {
    captest::Subagent agent;
    agent.id = id;
    agent.agentName = "<agentName>" + name + " agent</agentName>";
    agent.procName = "<procName>" + name + "</procName>";
    agent.agentPath = "<agentPath>" + program(name) + "</agentPath>";
    agent.managerType = "<managerType>" + managerType + "</managerType>";
    return agent;
  }
  static std::string instances(const std::vector<std::string>& names) {
    std::string text = "<instance>";
    for (const std::string& name : names) text += "<name>" + name + "</name>";
    return text + "</instance>";
  }
  // An agent of the suite, product code qz, whose executable is `name`.
  captest::Subagent suite(const std::string& id, const std::string& name) {
    captest::Subagent agent = plain(id, name);
    agent.agentType = "<agentType>ZEL_UNIX</agentType>";
    agent.productCode = "<productCode>qz</productCode>";
    return agent;
  }
  // The OS agent's own file: supervised by the watchdog process, or not.
  void addOSAgent(bool watchdogManaged) {
    captest::Subagent os = plain("os.agent", "osagent", watchdogManaged ? "WatchDog" : "TeoServices");
    if (!watchdogManaged) os.productCode = "<productCode>qb</productCode>";
    writeCap("os.xml", os);
    accept("os.xml", true);
  }

  qortest::TempDir caps;
  qortest::TempDir work;
  captest::AgentLab lab;
};

std::vector<int> sortedPids(const std::vector<Agent*>& list) {
  std::vector<int> pids;
  for (Agent* agent : list) pids.push_back(agent->getProcID());
  std::sort(pids.begin(), pids.end());
  return pids;
}

}  // namespace

TEST_F(Recon, AConsoleAgentWithNoProcessUnderTeoServicesGetsOneManagedAgentWithProcessIdZero) {
  writeCap("down.xml", plain("agent.down", "downd"));
  std::vector<Event*> messages = add("down.xml", true);
  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  Agent* agent = list[0];
  EXPECT_EQ(L"agent.down", agent->getID());
  EXPECT_EQ(L"downd agent", agent->getName());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(L"downd", agent->getInstanceProcName());
  EXPECT_EQ(L"", agent->getInstanceName());
  EXPECT_EQ(L"", agent->getServiceInstanceName());  // a console agent has no service
  EXPECT_EQ(Managed, agent->getManagedState());
  EXPECT_EQ(OpStopped, agent->getOperatingState());
  ASSERT_NE(nullptr, agent->getWatchdog());
  EXPECT_EQ(agent, agent->getWatchdog()->getAgent());
  EXPECT_EQ(policyOf("down.xml"), agent->getPolicy());
  EXPECT_EQ(1, traced("Running instance count: 0 \n"));
  EXPECT_EQ(1, traced("No instances so adding main proc to instance list: 0 \n"));
  EXPECT_EQ(1, traced("Copied new instance to new Collection\n"));
  EXPECT_EQ(1, traced("adding agent to process list from new.\n"));
  EXPECT_EQ(1, traced("agent event mgmt state = 0.\n"));
  EXPECT_EQ(1, traced("agent event id = 2.\n"));
  EXPECT_EQ(0, traced("agent event id = 3.\n"));
  // The file's own message is all that goes out; nothing more is raised.
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ(cap_added, messages[0]->getEventTypeID());
  EXPECT_TRUE(takeCommands().empty());
  deleteAll(messages);
}

TEST_F(Recon, AConsoleAgentWithNoProcessNotManagedGetsOneUnmanagedAgentWithProcessIdZero) {
  writeCap("down.xml", plain("agent.down", "downd", "NotManaged"));
  accept("down.xml", true);
  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(0, list[0]->getProcID());
  EXPECT_EQ(Unmanaged, list[0]->getManagedState());
  EXPECT_EQ(OpUnknown, list[0]->getOperatingState());
  EXPECT_EQ(nullptr, list[0]->getWatchdog());
  EXPECT_EQ(1, traced("agent event id = 3.\n"));
  EXPECT_EQ(0, traced("agent event id = 2.\n"));
  EXPECT_TRUE(takeCommands().empty());
}

TEST_F(Recon, TwoRunningProcessesOfANonSuiteAgentWithOneProcNameYieldTwoAgents) {
  int first = run("twind");
  int second = run("twind");
  writeCap("twin.xml", plain("agent.twin", "twind"));
  accept("twin.xml", true);
  std::vector<Agent*> list = agents();
  ASSERT_EQ(2u, list.size());
  std::vector<int> expected{first, second};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, sortedPids(list));
  for (Agent* agent : list) {
    EXPECT_EQ(L"agent.twin", agent->getID());
    EXPECT_EQ(L"twind", agent->getInstanceProcName());
    EXPECT_EQ(L"", agent->getInstanceName());
    EXPECT_EQ(Managed, agent->getManagedState());
    EXPECT_EQ(OpRunning, agent->getOperatingState());
  }
  EXPECT_NE(list[0]->getGUID(), list[1]->getGUID());
  EXPECT_EQ(1, traced("Running instance count: 2 \n"));
  EXPECT_EQ(1, traced("procName is running\n"));
  EXPECT_EQ(0, traced("No instances so adding main proc"));
  EXPECT_EQ(2, traced("Copied new instance to new Collection\n"));
  EXPECT_EQ(2, traced("adding agent to process list from new.\n"));
  EXPECT_EQ(2, traced("agent event id = 2.\n"));
}

TEST_F(Recon, DuringTheInitialScanTheProcessTableReadAtItsStartServesTheFile) {
  int before = run("twind");
  GetCmdManager()->getRunningProcesses(controller()->getRunningProcesses());
  run("twind");  // started after the scan's table was read
  writeCap("twin.xml", plain("agent.twin", "twind"));
  accept("twin.xml", true);
  controller()->signalInitialDiscoveryComplete();  // frees the table
  EXPECT_TRUE(controller()->getRunningProcesses().empty());

  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(before, list[0]->getProcID());
  EXPECT_EQ(1, traced("Running instance count: 1 \n"));
}

TEST_F(Recon, AfterARestartAPersistedAgentThatNoLongerRunsComesBackWithItsManagedState) {
  int running = run("twind");
  Persisted up;
  up.id = "agent.twin";
  up.instanceProcName = "twind";
  up.procName = "twind";
  up.procID = kNoSuchProcess;
  up.path = lab.file("twind");
  up.dailyRestartCount = 1;
  Persisted gone = up;  // the second instance of the last run, no longer running
  gone.managedState = Unmanaged;
  gone.procID = kNoSuchProcess - 1;
  gone.dailyRestartCount = 2;
  writeTeoDat({up, gone});
  writeCap("twin.xml", plain("agent.twin", "twind"));  // the file says TeoServices
  accept("twin.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(2u, list.size());
  // The matched record first, then the one that matched nothing.
  EXPECT_EQ(running, list[0]->getProcID());
  EXPECT_EQ(Managed, list[0]->getManagedState());
  EXPECT_EQ(OpRunning, list[0]->getOperatingState());
  EXPECT_EQ(1, list[0]->getDailyRestartCount());
  EXPECT_EQ(0, list[1]->getProcID());
  EXPECT_EQ(Unmanaged, list[1]->getManagedState());
  EXPECT_EQ(OpUnknown, list[1]->getOperatingState());
  EXPECT_EQ(2, list[1]->getDailyRestartCount());
  EXPECT_EQ(nullptr, list[1]->getWatchdog());
  EXPECT_EQ(policyOf("twin.xml"), list[1]->getPolicy());
  EXPECT_EQ(1, traced("adding agent to process list from persisted.\n"));
  EXPECT_EQ(1, traced("adding agent to process list from list.\n"));
  EXPECT_EQ(0, traced("adding agent to process list from new.\n"));
}

TEST_F(Recon, AfterARestartANewInstanceOfAManagedAgentIsManagedWhateverTheFileSays) {
  int first = run("twind");
  int second = run("twind");
  Persisted record;
  record.id = "agent.twin";
  record.instanceProcName = "twind";
  record.procName = "twind";
  record.procID = kNoSuchProcess;
  record.path = lab.file("twind");
  writeTeoDat({record});
  writeCap("twin.xml", plain("agent.twin", "twind", "NotManaged"));
  accept("twin.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(2u, list.size());
  std::vector<int> expected{first, second};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, sortedPids(list));
  for (Agent* agent : list) {
    EXPECT_EQ(Managed, agent->getManagedState());
    EXPECT_EQ(OpRunning, agent->getOperatingState());
  }
  EXPECT_EQ(1, traced("adding agent to process list from persisted.\n"));
  EXPECT_EQ(1, traced("adding agent to process list from new.\n"));
  EXPECT_EQ(2, traced("agent event id = 2.\n"));
}

TEST_F(Recon, AfterARestartAPersistedAgentRunningUnderANewProcessIdGetsTheNewId) {
  int running = run("movd");
  Persisted record;
  record.id = "agent.mov";
  record.instanceProcName = "movd";
  record.procName = "movd";
  record.procID = kNoSuchProcess;
  record.dailyRestartCount = 2;
  record.path = lab.file("movd");
  writeTeoDat({record});
  writeCap("mov.xml", plain("agent.mov", "movd"));
  accept("mov.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(running, list[0]->getProcID());
  EXPECT_EQ(Managed, list[0]->getManagedState());
  EXPECT_EQ(OpRunning, list[0]->getOperatingState());
  EXPECT_EQ(2, list[0]->getDailyRestartCount());
  EXPECT_EQ(L"Persisted agent", list[0]->getName());  // the record's own, not made anew
  EXPECT_EQ(1, traced("Testing for matching procID, instance=" + std::to_string(running) +
                      ", agent=" + std::to_string(kNoSuchProcess) + "\n"));
  EXPECT_EQ(1, traced("Found a matching inst name but different procID, adding to persistedCollection\n"));
  EXPECT_EQ(1, traced("adding agent to process list from persisted.\n"));
  EXPECT_EQ(0, traced("Copied new instance"));
}

TEST_F(Recon, APersistedRecordWithAnotherPathGetsThePolicysPathAndOperatingStateUnknown) {
  Persisted record;
  record.id = "agent.moved";
  record.instanceProcName = "moved";
  record.procName = "moved";
  record.managedState = Unmanaged;
  record.procID = kNoSuchProcess;
  record.path = "/opt/old/place/moved";
  writeTeoDat({record});
  writeCap("moved.xml", plain("agent.moved", "moved", "NotManaged"));
  accept("moved.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(captest::wide(lab.file("moved")), list[0]->getPath());
  EXPECT_EQ(OpUnknown, list[0]->getOperatingState());
  EXPECT_EQ(0, list[0]->getProcID());
  EXPECT_EQ(Unmanaged, list[0]->getManagedState());
  EXPECT_EQ(1, traced("Found a matching inst name but different path, update agent path\n"));
  // Once for the moved installation, once on the way into the list.
  EXPECT_EQ(2, traced("agent event id = 3.\n"));
}

TEST_F(Recon, AManagedRecordWhoseInstallationMovedIsManagedAgainAtTheNewPath) {
  int running = run("moved");
  Persisted record;
  record.id = "agent.moved";
  record.instanceProcName = "moved";
  record.procName = "moved";
  record.procID = kNoSuchProcess;
  record.path = "/opt/old/place/moved";
  writeTeoDat({record});
  writeCap("moved.xml", plain("agent.moved", "moved"));
  accept("moved.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(captest::wide(lab.file("moved")), list[0]->getPath());
  EXPECT_EQ(running, list[0]->getProcID());
  EXPECT_EQ(Managed, list[0]->getManagedState());
  EXPECT_EQ(OpRunning, list[0]->getOperatingState());
  // Managed twice, with one checker left: the first is freed when the second comes.
  ASSERT_NE(nullptr, list[0]->getWatchdog());
  EXPECT_EQ(list[0], list[0]->getWatchdog()->getAgent());
  EXPECT_EQ(2, traced("agent event id = 2.\n"));
  EXPECT_EQ(1, traced("Found a matching inst name but different path, update agent path\n"));
}

TEST_F(Recon, ANewInstanceBesideUnmatchedRecordsInheritsTheCountersOfTheLastOne) {
  int running = run("twind");
  Persisted older;
  older.id = "agent.twin";
  older.instanceProcName = "twind-old";
  older.procName = "twind";
  older.dailyRestartCount = 1;
  older.path = lab.file("twind");
  Persisted last = older;
  last.instanceProcName = "twind-older";
  last.dailyRestartCount = 3;
  writeTeoDat({older, last});
  writeCap("twin.xml", plain("agent.twin", "twind"));
  accept("twin.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(3u, list.size());
  // The copy, made for the running process, comes first; then both records.
  EXPECT_EQ(running, list[0]->getProcID());
  EXPECT_EQ(L"twind", list[0]->getInstanceProcName());
  EXPECT_EQ(3, list[0]->getDailyRestartCount());
  EXPECT_EQ(list[2]->getGUID(), list[0]->getGUID());
  EXPECT_EQ(policyOf("twin.xml"), list[0]->getPolicy());
  EXPECT_EQ(OpRunning, list[0]->getOperatingState());
  EXPECT_EQ(L"twind-old", list[1]->getInstanceProcName());
  EXPECT_EQ(L"twind-older", list[2]->getInstanceProcName());
  EXPECT_EQ(policyOf("twin.xml"), list[2]->getPolicy());
  EXPECT_EQ(1, traced("Copied new instance to persisted Collection\n"));
  EXPECT_EQ(1, traced("adding agent to process list from persisted.\n"));
  EXPECT_EQ(2, traced("adding agent to process list from list.\n"));
}

TEST_F(Recon, ASuiteAgentWithNoConfiguredInstanceGetsAnInstanceHolderThatDiscoveryReuses) {
  proctest::FakeSuite suiteTool;
  addOSAgent(true);
  program("suited");
  writeCap("suite.xml", suite("agent.suite", "suited"));
  accept("suite.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  Agent* holder = list[0];
  EXPECT_TRUE(holder->isZELInstanceHolder());
  EXPECT_EQ(L"", holder->getInstanceName());
  EXPECT_EQ(L"suited", holder->getInstanceProcName());
  EXPECT_EQ(0, holder->getProcID());
  EXPECT_EQ(Unmanaged, holder->getManagedState());
  EXPECT_EQ(OpNotConfigured, holder->getOperatingState());
  EXPECT_EQ(1, traced("No instances so adding main proc to instance list: 0 \n"));
  // Being without an instance, it is taken out of the running: an id 3 event for it.
  std::vector<Event*> raised = takeCommands();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_unmanaged, raised[0]->getEventTypeID());
  EXPECT_EQ(holder, static_cast<AgentMgmtEvent*>(raised[0])->getAgent());
  deleteAll(raised);

  // Discovery finds an instance configured, and the holder takes it.
  suiteTool.answer("o", "qz inst1\n");
  Policy* policy = policyOf("suite.xml");
  controller()->lockDiscovery();
  managed()->lockList();
  policy->loadZELInstances();
  controller()->addMissingInstances(policy->getInstances(), policy, true);
  managed()->unlockList();
  controller()->unlockDiscovery();

  list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(holder, list[0]);
  EXPECT_EQ(L"inst1", holder->getInstanceName());
  EXPECT_FALSE(holder->isZELInstanceHolder());
  EXPECT_EQ(Managed, holder->getManagedState());
  EXPECT_EQ(OpStopped, holder->getOperatingState());
  EXPECT_NE(nullptr, holder->getWatchdog());
  EXPECT_EQ(1, traced("Found ZEL instance holder.\n"));
  EXPECT_EQ(1, traced("New instance inst1 to be managed.\n"));
  EXPECT_EQ(1, traced("updating ZEL agent instance holder.\n"));
  EXPECT_EQ(0, traced("adding ZEL agent to process list.\n"));
}

TEST_F(Recon, APolicyWithInstanceNamesTwoOfWhichHaveNoProcessYieldsAnAgentForEachInNamesOrder) {
  proctest::FakeSuite suiteTool;
  int beta = runShell("suited", {"beta"});
  suiteTool.answer("r", "qz testhost " + std::to_string(beta) + " agent qz.running beta\n");
  captest::Subagent agent = suite("agent.suite", "suited");
  agent.instance = instances({"alpha", "beta", "gamma"});
  writeCap("suite.xml", agent);
  accept("suite.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(3u, list.size());
  EXPECT_EQ(L"beta", list[0]->getInstanceName());
  EXPECT_EQ(beta, list[0]->getProcID());
  EXPECT_EQ(OpRunning, list[0]->getOperatingState());
  EXPECT_EQ(L"alpha", list[1]->getInstanceName());
  EXPECT_EQ(L"gamma", list[2]->getInstanceName());
  for (Agent* missing : {list[1], list[2]}) {
    EXPECT_EQ(0, missing->getProcID());
    EXPECT_EQ(L"suited", missing->getInstanceProcName());
    EXPECT_EQ(Managed, missing->getManagedState());  // as the agent already listed
    EXPECT_EQ(OpStopped, missing->getOperatingState());
  }
  EXPECT_EQ(0, traced("No instances so adding main proc"));
  EXPECT_EQ(1, traced("Instance beta already managed.\n"));
  EXPECT_EQ(1, traced("New instance alpha to be managed.\n"));
  EXPECT_EQ(1, traced("New instance gamma to be managed.\n"));
  EXPECT_EQ(2, traced("adding ZEL agent to process list.\n"));
}

TEST_F(Recon, AWinServicePolicyWithInstanceNamesGetsNoAgentsForThem) {
  captest::Subagent service = plain("agent.svc", "svcd");
  service.agentType = "<agentType>WinService</agentType>";
  service.instance = instances({"x", "y"});
  service.serviceName = "<serviceName>svcname</serviceName>";
  writeCap("svc.xml", service);
  accept("svc.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(L"", list[0]->getInstanceName());
  EXPECT_EQ(L"svcname", list[0]->getServiceInstanceName());
  EXPECT_EQ(0, list[0]->getProcID());
  EXPECT_EQ(0, traced("New instance "));
}

TEST_F(Recon, ACapFileAddedWhileTheOsAgentIsUnmanagedYieldsUnmanagedAgents) {
  addOSAgent(false);
  int running = run("plaind");
  ASSERT_GT(running, 0);
  writeCap("plain.xml", plain("agent.plain", "plaind"));
  captest::Subagent listed = plain("agent.listed", "listd");
  listed.instance = instances({"one", "two"});
  writeCap("listed.xml", listed);
  accept("plain.xml", false);
  accept("listed.xml", false);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(3u, list.size());
  EXPECT_EQ(L"agent.plain", list[0]->getID());
  EXPECT_EQ(L"one", list[1]->getInstanceName());
  EXPECT_EQ(L"two", list[2]->getInstanceName());
  for (Agent* agent : list) {
    EXPECT_EQ(Unmanaged, agent->getManagedState());
    EXPECT_EQ(OpUnknown, agent->getOperatingState());
    EXPECT_EQ(0, agent->getProcID());  // even the one that runs
    EXPECT_EQ(nullptr, agent->getWatchdog());
  }
  EXPECT_EQ(3, traced("agent event id = 3.\n"));
  EXPECT_EQ(0, traced("agent event id = 2.\n"));
}

TEST_F(Recon, ACapFileAddedWhileTheWatchdogManagesTheOsAgentYieldsManagedAgents) {
  addOSAgent(true);
  int running = run("plaind");
  writeCap("plain.xml", plain("agent.plain", "plaind"));
  captest::Subagent listed = plain("agent.listed", "listd");
  listed.instance = instances({"one", "two"});
  writeCap("listed.xml", listed);
  accept("plain.xml", false);
  accept("listed.xml", false);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(3u, list.size());
  EXPECT_EQ(running, list[0]->getProcID());
  EXPECT_EQ(OpRunning, list[0]->getOperatingState());
  EXPECT_EQ(OpStopped, list[1]->getOperatingState());
  EXPECT_EQ(OpStopped, list[2]->getOperatingState());
  for (Agent* agent : list) EXPECT_EQ(Managed, agent->getManagedState());
  EXPECT_EQ(3, traced("agent event id = 2.\n"));
}

TEST_F(Recon, ARunningProcessThatLacksTheMainNameAddsAPlaceholderForTheMainProcess) {
  ASSERT_GT(run("helperd"), 0);
  program("mainproc");
  captest::Subagent agent = plain("agent.main", "mainproc");
  agent.procName.clear();
  agent.process =
      "<process><procName>mainproc</procName><commandLine regex=\"1\">helperd</commandLine></process>";
  writeCap("main.xml", agent);
  accept("main.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(2u, list.size());
  EXPECT_EQ(1, traced("Running instance count: 1 \n"));
  EXPECT_EQ(1, traced("Running proc not found instance count: 1 \n"));
  EXPECT_EQ(2, traced("Copied new instance to new Collection\n"));
  // Neither executable's name holds the policy's, so both take the policy's.
  EXPECT_EQ(2, traced("agent instance proc name= mainproc,  policy proc name =mainproc\n"));
  // Each is then looked for under that name, which no process has.
  for (Agent* listed : list) {
    EXPECT_EQ(L"mainproc", listed->getInstanceProcName());
    EXPECT_EQ(OpStopped, listed->getOperatingState());
    EXPECT_EQ(0, listed->getProcID());
  }
}

TEST_F(Recon, ARunningNamedInstanceDropsThePersistedInstanceHolderAndGetsARecordAsAListedInstance) {
  proctest::FakeSuite suiteTool;
  suiteTool.answer("o", "qz beta\n");
  int beta = runShell("suited", {"beta"});
  suiteTool.answer("r", "qz testhost " + std::to_string(beta) + " agent qz.running beta\n");
  Persisted holder;
  holder.id = "agent.suite";
  holder.instanceProcName = "suited";
  holder.procName = "suited";
  holder.type = ZEL_UNIX;
  holder.operatingState = OpNotConfigured;
  holder.path = lab.file("suited");
  writeTeoDat({holder});
  writeCap("suite.xml", suite("agent.suite", "suited"));
  accept("suite.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(L"beta", list[0]->getInstanceName());
  EXPECT_EQ(beta, list[0]->getProcID());
  EXPECT_EQ(OpRunning, list[0]->getOperatingState());
  EXPECT_EQ(1, traced("Running instance match persisted agent instance holder. Delete instance holder\n"));
  EXPECT_EQ(0, traced("Copied new instance"));
  EXPECT_EQ(1, traced("adding ZEL agent to process list.\n"));
}

TEST_F(Recon, ADroppedInstanceHolderWhoseInstallationMovedIsManagedYetLeftOutOfTheList) {
  proctest::FakeSuite suiteTool;
  suiteTool.answer("o", "qz beta\n");
  int beta = runShell("suited", {"beta"});
  suiteTool.answer("r", "qz testhost " + std::to_string(beta) + " agent qz.running beta\n");
  Persisted holder;
  holder.id = "agent.suite";
  holder.instanceProcName = "suited";
  holder.procName = "suited";
  holder.type = ZEL_UNIX;
  holder.operatingState = OpNotConfigured;
  holder.path = "/opt/old/place/suited";
  writeTeoDat({holder});
  writeCap("suite.xml", suite("agent.suite", "suited"));
  accept("suite.xml", true);

  std::vector<Agent*> list = agents();
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ(L"beta", list[0]->getInstanceName());
  EXPECT_EQ(1, traced("Running instance match persisted agent instance holder. Delete instance holder\n"));
  EXPECT_EQ(1, traced("Found a matching inst name but different path, update agent path\n"));
  // The holder's own management event, then the new instance's.
  EXPECT_EQ(2, traced("agent event id = 2.\n"));
}

TEST(ReconWatchdogMode, TheOsAgentsFileNeverReadsTheStateFile) {
  qortest::TempDir caps;
  qortest::TempDir work;
  qortest::traceTo(work.file("trace"), 1 | 128);
  Controller::setWatchDogMode();
  Controller* controller = Controller::getController();
  controller->setTEODirPath(captest::wide(caps.path() + "/"));
  Persisted record;
  record.id = "os.agent";
  record.instanceProcName = "osagent";
  record.procName = "osagent";
  record.dailyRestartCount = 3;
  record.path = "/usr/bin";
  qortest::writeFile(caps.file("teo.dat"), "1\n" + record.lines());

  captest::Subagent os;
  os.id = "os.agent";
  os.procName = "<procName>osagent</procName>";
  os.managerType = "<managerType>WatchDog</managerType>";
  qortest::writeFile(caps.file("os.xml"), captest::document(os));
  CAPFileEvent event;
  event.setEventTypeID(cap_added);
  event.setCAPFileName(captest::wide(caps.file("os.xml")));
  event.setInitialDiscovery();
  event.doCommandProcessing();

  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  list->lockList();
  ASSERT_EQ(1u, list->size());
  Agent* agent = list->front();
  list->unlockList();
  EXPECT_EQ(0, agent->getDailyRestartCount());
  EXPECT_EQ(WatchdogManaged, agent->getManagedState());
  EXPECT_EQ(0, qortest::countOccurrences(qortest::readFile(work.file("trace")), "from persisted"));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(work.file("trace")),
                                         "adding agent to process list from new.\n"));
}
