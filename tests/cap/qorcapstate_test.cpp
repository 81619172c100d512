// What a CAP file's arrival or removal does to the Controller's policies and
// agents. The events are applied on the test's thread, as the command handler
// would apply them; the service's threads are not started, so the messages
// stay on the message queue for the test to read.
#include <gtest/gtest.h>

#include <algorithm>

#include "agents/qoragt.h"
#include "cap/agentlab.h"
#include "cap/capfiles.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "include/qorapi.h"
#include "support/qortest.h"
#include "watchdog/qorwd.h"

namespace {

class CapState : public ::testing::Test {
 protected:
  // The state file is read for every accepted file: it must be this test's.
  void SetUp() override {
    qortest::traceTo(dir.file("trace"), 1 | 128);
    controller()->setTEODirPath(captest::wide(dir.path() + "/"));
  }

  Controller* controller() { return Controller::getController(); }
  std::vector<Policy*>& policies() { return controller()->getPolicies(); }
  ManagedProcessList* managed() { return controller()->getManagedEndpointProcesses(); }
  ManagedProcessList* watched() { return controller()->getWatchdogList(); }
  std::string trace() { return qortest::readFile(dir.file("trace")); }

  std::wstring path(const std::string& name) { return captest::wide(dir.file(name)); }

  void write(const std::string& name, const captest::Subagent& subagent) {
    qortest::writeFile(dir.file(name), captest::document(subagent));
  }

  // Applies the event of a file's arrival or removal; returns the messages it sent.
  std::vector<Event*> apply(const std::string& name, bool added) {
    CAPFileEvent event;
    event.setCAPState(added ? CAP_FILE_ADDED : CAP_FILE_REMOVED);
    event.setEventTypeID(added ? cap_added : cap_removed);
    event.setCAPFileName(path(name));
    event.doCommandProcessing();
    return takeMessages();
  }
  void add(const std::string& name) { deleteAll(apply(name, true)); }

  std::vector<Event*> takeMessages() {
    MessageHandler* queue = controller()->getMessageHandler();
    std::vector<Event*> events;
    queue->lockEventQueue();
    while (Event* event = queue->popEvent()) events.push_back(event);
    queue->unlockEventQueue();
    return events;
  }
  static void deleteAll(std::vector<Event*> events) {
    for (Event* event : events) delete event;
  }

  // An agent of a policy, put in a list as reconciliation would put it.
  Agent* addAgent(ManagedProcessList* list, Policy* policy, const std::wstring& id,
                  const std::wstring& instance, const std::wstring& name) {
    Agent* agent = new Agent();
    agent->setID(id);
    agent->setPolicy(policy);
    agent->setName(name);
    agent->setInstanceName(instance);
    agent->setManagedState(Managed);
    list->lockList();
    list->push_back(agent);
    list->unlockList();
    return agent;
  }

  std::vector<std::wstring> listIds(ManagedProcessList* list) {
    std::vector<std::wstring> ids;
    list->lockList();
    for (Agent* agent : *list) ids.push_back(agent->getID() + L"/" + agent->getInstanceName());
    list->unlockList();
    return ids;
  }

  Policy* policyOfFile(const std::string& name) {
    for (Policy* policy : policies()) {
      if (policy->getCAPFileName() == path(name)) return policy;
    }
    return nullptr;
  }

  static captest::Subagent subagent(const std::string& id, const std::string& agentName = "Test agent") {
    captest::Subagent agent;
    agent.id = id;
    agent.agentName = "<agentName>" + agentName + "</agentName>";
    return agent;
  }
  static captest::Subagent specific(const std::string& id, const std::string& agentName,
                                    const std::vector<std::string>& instances) {
    captest::Subagent agent = subagent(id, agentName);
    agent.instance = "<instance>";
    for (const std::string& instance : instances) agent.instance += "<name>" + instance + "</name>";
    agent.instance += "</instance>";
    return agent;
  }

  // An agent named "Shared" whose processes are copies of the shell in the
  // lab; the word after the script in the command line is the instance.
  captest::Subagent shared(const std::string& id) {
    captest::Subagent agent = subagent(id, "Shared");
    agent.process =
        "<process><procName>sharedd</procName>"
        "<commandLine regex=\"1\">\\.sh ([a-z]+)</commandLine></process>";
    agent.agentPath = "<agentPath>" + lab.file("sharedd") + "</agentPath>";
    return agent;
  }
  // The OS agent's own file, supervised by the watchdog process: later files
  // then give managed agents.
  void addManagedOSAgent() {
    captest::Subagent os = subagent("os.agent", "OS agent");
    os.managerType = "<managerType>WatchDog</managerType>";
    os.procName = "<procName>osagent</procName>";
    write("os.xml", os);
    add("os.xml");
  }
  // The ids and instance names of the agents, in list order, with their process ids.
  std::vector<std::wstring> listPids(ManagedProcessList* list) {
    std::vector<std::wstring> pids;
    list->lockList();
    for (Agent* agent : *list)
      pids.push_back(agent->getInstanceName() + L"=" + std::to_wstring(agent->getProcID()));
    list->unlockList();
    return pids;
  }

  qortest::TempDir dir;
  captest::AgentLab lab;
};

}  // namespace

TEST_F(CapState, AnAcceptedFileJoinsThePoliciesGetsItsAgentAndTellsTheListeners) {
  write("a.xml", subagent("agent.a"));
  std::vector<Event*> messages = apply("a.xml", true);
  ASSERT_EQ(1u, policies().size());
  EXPECT_EQ(L"agent.a", policies()[0]->getSubagentID());
  EXPECT_EQ(path("a.xml"), policies()[0]->getCAPFileName());
  EXPECT_EQ(std::vector<std::wstring>({L"agent.a/"}), listIds(managed()));
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ(path("a.xml") + L" CAP File Event: Agent added to system - CAP file found.",
            messages[0]->getLogMessage());
  deleteAll(messages);
}

TEST_F(CapState, ARefusedFileIsTracedAndItsMessageStillGoesOut) {
  qortest::writeFile(dir.file("broken.xml"), "<subagents>");
  std::vector<Event*> messages = apply("broken.xml", true);
  EXPECT_TRUE(policies().empty());
  EXPECT_EQ(1u, messages.size());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "ParseCAPFile failed.\n"));
  deleteAll(messages);
}

TEST_F(CapState, ASubagentIdInUseByAManagedAgentLeavesEveryListUnchanged) {
  write("first.xml", subagent("agent.dup"));
  add("first.xml");
  managed()->lockList();
  ASSERT_EQ(1u, managed()->size());
  Agent* first = managed()->front();
  managed()->unlockList();
  Policy* firstPolicy = policies()[0];

  write("dup.xml", subagent("agent.dup"));
  std::vector<Event*> messages = apply("dup.xml", true);
  ASSERT_EQ(1u, policies().size());
  EXPECT_EQ(firstPolicy, policies()[0]);
  managed()->lockList();
  ASSERT_EQ(1u, managed()->size());
  EXPECT_EQ(first, managed()->front());
  EXPECT_EQ(firstPolicy, first->getPolicy());
  managed()->unlockList();
  EXPECT_TRUE(listIds(watched()).empty());
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Duplicate subagent ID found, ignoring this subagent. CAP file: " +
                                             dir.file("dup.xml") + "\n"));
  // The refused file's own message still goes out.
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ(path("dup.xml") + L" CAP File Event: Agent added to system - CAP file found.",
            messages[0]->getLogMessage());
  deleteAll(messages);
}

TEST_F(CapState, ARefusedDuplicateStaysIgnoredAfterTheFirstFileHasGone) {
  write("first.xml", subagent("agent.dup"));
  write("dup.xml", subagent("agent.dup"));
  add("first.xml");
  add("dup.xml");
  deleteAll(apply("first.xml", false));
  EXPECT_TRUE(policies().empty());
  EXPECT_TRUE(listIds(managed()).empty());
  // Only its own removal and return bring the second file in.
  deleteAll(apply("dup.xml", false));
  add("dup.xml");
  ASSERT_EQ(1u, policies().size());
  EXPECT_EQ(path("dup.xml"), policies()[0]->getCAPFileName());
  EXPECT_EQ(std::vector<std::wstring>({L"agent.dup/"}), listIds(managed()));
}

TEST_F(CapState, ASubagentIdInUseByTheOsAgentRecordIsRefusedTheSameWay) {
  addManagedOSAgent();
  write("dup.xml", subagent("os.agent"));
  add("dup.xml");
  EXPECT_TRUE(policies().empty());
  EXPECT_TRUE(listIds(managed()).empty());
  EXPECT_EQ(std::vector<std::wstring>({L"os.agent/"}), listIds(watched()));
  EXPECT_EQ(1, qortest::countOccurrences(trace(),
                                         "Duplicate subagent ID found, ignoring this subagent. CAP file: " +
                                             dir.file("dup.xml") + "\n"));
}

TEST_F(CapState, AnAgentlessPolicyDoesNotBlockItsId) {
  lab.runShell("sharedd", {"a"});
  write("generic.xml", shared("agent.g"));
  add("generic.xml");
  ASSERT_EQ(std::vector<std::wstring>({L"agent.g/a"}), listIds(managed()));
  // A specific policy takes the generic one's only instance, and with it its only agent.
  captest::Subagent specific = shared("agent.s");
  specific.instance = "<instance><name>a</name></instance>";
  write("specific.xml", specific);
  add("specific.xml");
  ASSERT_EQ(std::vector<std::wstring>({L"agent.s/a"}), listIds(managed()));

  write("again.xml", subagent("agent.g", "Another"));
  add("again.xml");
  EXPECT_EQ(3u, policies().size());
  EXPECT_EQ(std::vector<std::wstring>({L"agent.s/a", L"agent.g/"}), listIds(managed()));
  EXPECT_EQ(0, qortest::countOccurrences(trace(), "Duplicate subagent ID found"));
}

TEST_F(CapState, RemovingAFileWithThreeAgentsRemovesThemAndItsPolicyAndTellsOfTheLast) {
  write("multi.xml", specific("agent.multi", "Multi", {"a", "b", "c"}));
  add("multi.xml");
  ASSERT_EQ(std::vector<std::wstring>({L"agent.multi/a", L"agent.multi/b", L"agent.multi/c"}),
            listIds(managed()));
  managed()->lockList();
  const int lastGuid = managed()->back()->getGUID();
  managed()->unlockList();

  std::vector<Event*> messages = apply("multi.xml", false);
  EXPECT_TRUE(listIds(managed()).empty());
  EXPECT_TRUE(policies().empty());
  ASSERT_EQ(1u, messages.size());
  EventData data;
  messages[0]->getEventData(data);
  EXPECT_EQ(L"Multi: a, b, c", data.agentName);
  EXPECT_EQ(cap_removed, data.eventID);
  Agent* told = static_cast<CAPFileEvent*>(messages[0])->getAgent();
  ASSERT_NE(nullptr, told);
  EXPECT_EQ(L"c", told->getInstanceName());
  EXPECT_EQ(lastGuid, told->getGUID());
  EXPECT_EQ(path("multi.xml") + L" CAP File Event: Agent removed from system - CAP file removed.",
            messages[0]->getLogMessage());
  EXPECT_EQ(3, qortest::countOccurrences(
                   trace(), "Found agent with matching policy cap file to remove. agent.multi\n"));
  EXPECT_EQ(1,
            qortest::countOccurrences(trace(), "Found policy and removed from available policies list.\n"));
  deleteAll(messages);
}

// The host's listeners of the removal of an accepted file.
class RemovalLog : public QOR_LogListener {
 public:
  void AlertMe() override { seen.push_back(logData); }
  std::vector<QOR_LogData> seen;
};
class RemovalAlert : public QOR_AlertListener {
 public:
  void AlertMe() override { seen.push_back(alertData); }
  std::vector<QOR_AlertData> seen;
};

TEST_F(CapState, TheRemovalOfAnAcceptedFileIsLoggedAndAlerted) {
  setenv("QOR_CAP_DIR", dir.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  RemovalLog log;
  RemovalAlert alert;
  service->registerLogListener(&log);
  service->registerAlertListener(&alert);
  write("a.xml", subagent("agent.a", "Agent A"));
  for (Event* message : apply("a.xml", true)) QOR_QueryService::ProcessEvent(message);
  ASSERT_EQ(1u, log.seen.size());
  EXPECT_TRUE(alert.seen.empty());  // an arrival is no alert

  for (Event* message : apply("a.xml", false)) QOR_QueryService::ProcessEvent(message);
  ASSERT_EQ(2u, log.seen.size());
  EXPECT_EQ(cap_removed, log.seen[1].eventID);
  EXPECT_EQ(path("a.xml") + L" CAP File Event: Agent removed from system - CAP file removed.",
            log.seen[1].logMessage);
  ASSERT_EQ(1u, alert.seen.size());
  EXPECT_EQ(cap_removed, alert.seen[0].eventID);
  EXPECT_EQ(L"Agent A", alert.seen[0].agentName);
  EXPECT_EQ(Console, alert.seen[0].agentType);
  service->deregisterLogListener(&log);
  service->deregisterAlertListener(&alert);
}

TEST_F(CapState, RemovingAnAgentlessPolicyNamesItThroughATemporaryAgent) {
  lab.runShell("sharedd", {"a"});
  write("generic.xml", shared("agent.g"));
  add("generic.xml");
  captest::Subagent specific = shared("agent.s");
  specific.instance = "<instance><name>a</name></instance>";
  write("specific.xml", specific);
  add("specific.xml");
  ASSERT_EQ(std::vector<std::wstring>({L"agent.s/a"}), listIds(managed()));

  std::vector<Event*> messages = apply("generic.xml", false);
  ASSERT_EQ(1u, policies().size());
  EXPECT_EQ(path("specific.xml"), policies()[0]->getCAPFileName());
  EXPECT_EQ(std::vector<std::wstring>({L"agent.s/a"}), listIds(managed()));
  ASSERT_EQ(1u, messages.size());
  EventData data;
  messages[0]->getEventData(data);
  EXPECT_EQ(L"Shared", data.agentName);
  EXPECT_EQ(Console, data.agentType);
  EXPECT_EQ(L"", data.instanceProcName);
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace(), "Found a agentless policy with matching policy cap file to remove. agent.g\n"));
  deleteAll(messages);
}

TEST_F(CapState, RemovingAFileThatWasNeverAcceptedSendsNoMessage) {
  qortest::writeFile(dir.file("broken.xml"), "not xml");
  add("broken.xml");
  std::vector<Event*> messages = apply("broken.xml", false);
  EXPECT_TRUE(messages.empty());
  deleteAll(messages);
}

TEST_F(CapState, AnEventWithAMismatchedStateAndIdChangesNothing) {
  write("a.xml", subagent("agent.a"));
  CAPFileEvent event;
  event.setCAPState(CAP_FILE_REMOVED);
  event.setEventTypeID(cap_added);
  event.setCAPFileName(path("a.xml"));
  event.doCommandProcessing();
  EXPECT_TRUE(policies().empty());
  deleteAll(takeMessages());
}

TEST_F(CapState, GenericThenSpecificTakesTheSpecificInstancesAwayFromTheGenericAndGivesThemBack) {
  addManagedOSAgent();
  int a = lab.runShell("sharedd", {"a"});
  int b = lab.runShell("sharedd", {"b"});
  write("generic.xml", shared("agent.g"));
  add("generic.xml");
  Policy* generic = policyOfFile("generic.xml");
  ASSERT_NE(nullptr, generic);
  std::vector<std::wstring> both{L"a=" + std::to_wstring(a), L"b=" + std::to_wstring(b)};
  std::vector<std::wstring> found = listPids(managed());
  std::sort(found.begin(), found.end());
  ASSERT_EQ(both, found);

  captest::Subagent specific = shared("agent.s");
  specific.instance = "<instance><name>a</name></instance>";
  write("specific.xml", specific);
  add("specific.xml");
  EXPECT_TRUE(generic->isExceptionInstance(L"a"));
  EXPECT_FALSE(generic->isExceptionInstance(L"b"));
  EXPECT_EQ(std::vector<std::wstring>({L"agent.g/b", L"agent.s/a"}), listIds(managed()));
  EXPECT_EQ(std::vector<std::wstring>({L"b=" + std::to_wstring(b), L"a=" + std::to_wstring(a)}),
            listPids(managed()));
  EXPECT_EQ(2u, policies().size());
  EXPECT_EQ(
      1, qortest::countOccurrences(trace(), "Found agent with matching instance to remove. agent.g : a\n"));

  // When the specific file goes, the generic policy gets an agent for the
  // instance again, and it finds the instance's process.
  deleteAll(apply("specific.xml", false));
  EXPECT_FALSE(generic->isExceptionInstance(L"a"));
  EXPECT_EQ(1u, policies().size());
  EXPECT_EQ(std::vector<std::wstring>({L"agent.g/b", L"agent.g/a"}), listIds(managed()));
  EXPECT_EQ(std::vector<std::wstring>({L"b=" + std::to_wstring(b), L"a=" + std::to_wstring(a)}),
            listPids(managed()));
  managed()->lockList();
  for (Agent* agent : *managed()) {
    EXPECT_EQ(generic, agent->getPolicy());
    EXPECT_EQ(Managed, agent->getManagedState());
  }
  managed()->unlockList();
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "New instance a to be managed.\n"));
}

TEST_F(CapState, SpecificThenGenericLeavesTheGenericWithoutThoseInstances) {
  lab.runShell("sharedd", {"a"});
  lab.runShell("sharedd", {"b"});
  captest::Subagent specific = shared("agent.s");
  specific.instance = "<instance><name>a</name><name>c</name></instance>";
  write("specific.xml", specific);
  add("specific.xml");
  write("generic.xml", shared("agent.g"));
  add("generic.xml");
  Policy* generic = policyOfFile("generic.xml");
  ASSERT_NE(nullptr, generic);
  EXPECT_TRUE(generic->isExceptionInstance(L"a"));
  EXPECT_TRUE(generic->isExceptionInstance(L"c"));
  EXPECT_FALSE(generic->isInstance(L"a"));
  // The generic policy never gets an agent for a or c, though a runs.
  EXPECT_EQ(std::vector<std::wstring>({L"agent.s/a", L"agent.s/c", L"agent.g/b"}), listIds(managed()));
}

TEST_F(CapState, PoliciesOfOtherAgentNamesAreLeftAlone) {
  write("generic.xml", subagent("agent.g", "One name"));
  add("generic.xml");
  write("specific.xml", specific("agent.s", "Another name", {"a"}));
  add("specific.xml");
  EXPECT_FALSE(policyOfFile("generic.xml")->isExceptionInstance(L"a"));
}

TEST_F(CapState, TwoGenericPoliciesOfOneNameAreBothKeptWithAnError) {
  write("g1.xml", subagent("agent.g1", "Shared"));
  write("g2.xml", subagent("agent.g2", "Shared"));
  add("g1.xml");
  add("g2.xml");
  EXPECT_EQ(2u, policies().size());
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace(), "Generic policy for agent agent.g2 already defined by agent agent.g1.\n"));
}

TEST_F(CapState, TheOsAgentsFileInEmbeddedModeGivesAWatchdogRecordAndNoPolicy) {
  captest::Subagent os = subagent("os.agent", "OS agent");
  os.managerType = "<managerType>WatchDog</managerType>";
  os.procName = "<procName>osagent</procName>";
  write("os.xml", os);
  add("os.xml");
  EXPECT_TRUE(policies().empty());
  EXPECT_TRUE(listIds(managed()).empty());
  watched()->lockList();
  ASSERT_EQ(1u, watched()->size());
  Agent* record = watched()->front();
  watched()->unlockList();
  EXPECT_EQ(L"os.agent", record->getID());
  EXPECT_EQ(WatchdogManaged, record->getManagedState());
  EXPECT_EQ(L"OS agent", record->getName());
  EXPECT_EQ(L"osagent", record->getProcName());
  EXPECT_EQ(L"osagent", record->getInstanceProcName());
  EXPECT_EQ(L"", record->getInstanceName());
  ASSERT_NE(nullptr, record->getWatchdog());
  EXPECT_EQ(record, record->getWatchdog()->getAgent());
  EXPECT_EQ(path("os.xml"), record->getPolicy()->getCAPFileName());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Agent does not monitor itself. Watchdog CAP file: " +
                                                      dir.file("os.xml") + " \n"));

  // Its removal finds nothing to remove: the record stays, and nobody is told.
  std::vector<Event*> messages = apply("os.xml", false);
  EXPECT_TRUE(messages.empty());
  EXPECT_EQ(std::vector<std::wstring>({L"os.agent/"}), listIds(watched()));
  deleteAll(messages);
}

TEST_F(CapState, AnOsAgentNotManagedByTheWatchdogStartsUnmanagedAndSaysNothingGuardsIt) {
  captest::Subagent os = subagent("os.qb", "OS agent");
  os.productCode = "<productCode>qb</productCode>";
  os.agentType = "<agentType>ZEL_UNIX</agentType>";
  write("os.xml", os);
  std::vector<Event*> messages = apply("os.xml", true);
  EXPECT_TRUE(policies().empty());
  watched()->lockList();
  ASSERT_EQ(1u, watched()->size());
  Agent* record = watched()->front();
  watched()->unlockList();
  EXPECT_EQ(Unmanaged, record->getManagedState());
  EXPECT_EQ(L"None", record->getInstanceName());  // a suite agent
  // The warning goes out first, straight to the message queue, then the file's own message.
  ASSERT_EQ(2u, messages.size());
  EXPECT_EQ(watchdog_unreliable, messages[0]->getEventTypeID());
  EXPECT_EQ(L"Teo Services watchdog not reliable", messages[0]->getLogMessage());
  EventData data;
  messages[0]->getEventData(data);
  EXPECT_EQ(L"OS agent", data.agentName);
  EXPECT_EQ(cap_added, messages[1]->getEventTypeID());
  deleteAll(messages);
}

TEST_F(CapState, OsAgentProductCodesAndTheWatchdogManagerMakeTheOsAgent) {
  Policy policy;
  EXPECT_FALSE(controller()->isOSAgent(&policy));
  policy.setManagerTypeElement(WatchDog);
  EXPECT_TRUE(controller()->isOSAgent(&policy));
  for (const wchar_t* code : {L"qa", L"qb", L"qc"}) {
    Policy coded;
    coded.setProductCode(code);
    EXPECT_TRUE(controller()->isOSAgent(&coded)) << code;
  }
  Policy other;
  other.setProductCode(L"qd");
  EXPECT_FALSE(controller()->isOSAgent(&other));
}

TEST(CapStateWatchdogMode, AnOrdinaryAgentsFileIsIgnoredAndTheOsAgentsGoesTheNormalWay) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 1 | 128);
  Controller::setWatchDogMode();
  Controller* controller = Controller::getController();

  captest::Subagent ordinary;
  ordinary.id = "agent.plain";
  qortest::writeFile(dir.file("plain.xml"), captest::document(ordinary));
  CAPFileEvent first;
  first.setEventTypeID(cap_added);
  first.setCAPFileName(captest::wide(dir.file("plain.xml")));
  first.doCommandProcessing();
  EXPECT_TRUE(controller->getPolicies().empty());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "WatchDog monitors only the OS Agent. Ignoring CAP file: " +
                                             dir.file("plain.xml") + " \n"));

  captest::Subagent os;
  os.id = "os.agent";
  os.managerType = "<managerType>WatchDog</managerType>";
  qortest::writeFile(dir.file("os.xml"), captest::document(os));
  CAPFileEvent second;
  second.setEventTypeID(cap_added);
  second.setCAPFileName(captest::wide(dir.file("os.xml")));
  second.doCommandProcessing();
  ASSERT_EQ(1u, controller->getPolicies().size());
  EXPECT_EQ(L"os.agent", controller->getPolicies()[0]->getSubagentID());
  controller->getWatchdogList()->lockList();
  EXPECT_TRUE(controller->getWatchdogList()->empty());
  controller->getWatchdogList()->unlockList();
}

namespace {

// A state file record of the current layout with the given id, restart count
// and managed state.
std::string stateRecord(const std::string& id, int restarts, int managedState) {
  return "*\n6.2.2.2\n" + id + "\nosagent\n\nsvc\n" + std::to_string(managedState) +
         "\nOS agent\n4\nosagent\n321\n" + std::to_string(restarts) + "\n/usr/bin\n1\n9.9\nb9\n0\n*\n";
}

// The state file lies in the test's own directory, as for every CapState test.
class CapStatePersisted : public CapState {
 protected:
  void writeStateFile(const std::string& content) { qortest::writeFile(dir.file("teo.dat"), content); }

  Agent* osRecord() {
    watched()->lockList();
    Agent* record = watched()->size() == 1 ? watched()->front() : nullptr;
    watched()->unlockList();
    return record;
  }
  static captest::Subagent watchdogManaged(const std::string& id) {
    captest::Subagent os = subagent(id, "OS agent");
    os.managerType = "<managerType>WatchDog</managerType>";
    os.procName = "<procName>osagent</procName>";
    return os;
  }
};

}  // namespace

TEST_F(CapStatePersisted, TheOsAgentTakesTheFrontRecordsRestartCountAndManagedStateUnderTheWatchdog) {
  writeStateFile("3\n" + stateRecord("other", 7, 0) + stateRecord("qorwd", 4, 1) +
                 stateRecord("qorwd", 9, 0));
  write("os.xml", watchdogManaged("qorwd"));
  std::vector<Event*> messages = apply("os.xml", true);
  Agent* record = osRecord();
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(L"qorwd", record->getID());
  EXPECT_EQ(4, record->getDailyRestartCount());
  EXPECT_EQ(Managed, record->getManagedState());
  // Only the two fields come from the file; the rest is the CAP file's.
  EXPECT_EQ(L"", record->getServiceInstanceName());
  EXPECT_EQ(0, record->getProcID());
  EXPECT_EQ(L"", record->getAgentVersion());
  ASSERT_NE(nullptr, record->getWatchdog());
  EXPECT_EQ(path("os.xml"), record->getPolicy()->getCAPFileName());
  EXPECT_TRUE(policies().empty());
  // A managed OS agent raises no warning: only the file's own message goes out.
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ(cap_added, messages[0]->getEventTypeID());
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Number of agents in dat file = 3\n"));
  EXPECT_EQ(2, qortest::countOccurrences(trace(), "Matched Agent = qorwd\n"));
  deleteAll(messages);
}

TEST_F(CapStatePersisted, APersistedUnmanagedStateLeavesTheOsAgentUnguardedAndSaysSo) {
  writeStateFile("1\n" + stateRecord("qorwd", 2, 0));
  write("os.xml", watchdogManaged("qorwd"));
  std::vector<Event*> messages = apply("os.xml", true);
  Agent* record = osRecord();
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(2, record->getDailyRestartCount());
  EXPECT_EQ(Unmanaged, record->getManagedState());
  ASSERT_EQ(2u, messages.size());
  EXPECT_EQ(watchdog_unreliable, messages[0]->getEventTypeID());
  EXPECT_EQ(cap_added, messages[1]->getEventTypeID());
  deleteAll(messages);
}

TEST_F(CapStatePersisted, WithoutTheWatchdogAsManagerThePersistedStateIsNotTaken) {
  writeStateFile("1\n" + stateRecord("os.qb", 5, 2));
  captest::Subagent os = subagent("os.qb", "OS agent");
  os.productCode = "<productCode>qb</productCode>";
  write("os.xml", os);
  std::vector<Event*> messages = apply("os.xml", true);
  Agent* record = osRecord();
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(0, record->getDailyRestartCount());
  EXPECT_EQ(Unmanaged, record->getManagedState());
  // The file was read all the same.
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Matched Agent = os.qb\n"));
  deleteAll(messages);
}

TEST_F(CapStatePersisted, WithNoRecordOfItTheOsAgentKeepsItsFreshState) {
  writeStateFile("1\n" + stateRecord("someone.else", 5, 1));
  write("os.xml", watchdogManaged("qorwd"));
  deleteAll(apply("os.xml", true));
  Agent* record = osRecord();
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(0, record->getDailyRestartCount());
  EXPECT_EQ(WatchdogManaged, record->getManagedState());
}
