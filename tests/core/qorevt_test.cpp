#include "core/qorevt.h"

#include <gtest/gtest.h>

#include <cwchar>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qormsghand.h"
#include "core/qorutil.h"
#include "support/qortest.h"
#include "watchdog/qorwd.h"

namespace {

// The Controller is made, but its threads never start in these tests: what
// an event puts on the message queue stays there for the test to take.
Controller* controller() { return Controller::getController(); }

std::vector<Event*> takeMessages() {
  MessageHandler* queue = controller()->getMessageHandler();
  std::vector<Event*> events;
  queue->lockEventQueue();
  while (Event* event = queue->popEvent()) events.push_back(event);
  queue->unlockEventQueue();
  return events;
}

void deleteAll(std::vector<Event*>& events) {
  for (Event* event : events) delete event;
  events.clear();
}

Agent* makeAgent(const std::wstring& name, const std::wstring& instance = L"") {
  Agent* agent = new Agent();
  agent->setID(L"qa");
  agent->setName(name);
  agent->setInstanceName(instance);
  agent->setInstanceProcName(L"/opt/qa/bin/qa");
  agent->setType(Console);
  agent->setProcID(321);
  agent->setOperatingState(OpRunning);
  agent->setManagedState(Managed);
  Policy* policy = new Policy();
  policy->setSubagentID(L"qa");
  policy->setOsTypeAsEnum(PlatformLinux);
  policy->setOsVersion(L"12");
  agent->setPolicy(policy);
  Watchdog* watchdog = new Watchdog();
  watchdog->setAgent(agent);
  agent->setWatchdog(watchdog);
  return agent;
}

// Puts an agent in the Controller's list for the length of a test.
class ListedAgent {
 public:
  explicit ListedAgent(Agent* agent) : agent_(agent) {
    list()->lockList();
    list()->push_back(agent_);
    list()->unlockList();
  }
  ~ListedAgent() {
    list()->lockList();
    list()->remove(agent_);
    list()->unlockList();
    delete agent_;
  }
  Agent* get() const { return agent_; }

 private:
  static ManagedProcessList* list() { return controller()->getManagedEndpointProcesses(); }
  Agent* agent_;
};

}  // namespace

TEST(EventMessages, TheTablesHoldEveryRowWordForWord) {
  EXPECT_EQ(L"Agent added to system - CAP file found.", TEOMessages[0]);
  EXPECT_EQ(L"Agent removed from system - CAP file removed.", TEOMessages[1]);
  EXPECT_EQ(L"Agent restart failed - ", TEOMessages[6]);
  EXPECT_EQ(L"Agent maintanance??", TEOMessages[9]);
  EXPECT_EQ(L"Agent manual start failed - ", TEOMessages[13]);
  EXPECT_EQ(L"Agent CAP file initialization completed", TEOMessages[15]);
  EXPECT_EQ(L"Agent health check", TEOMessages[20]);
  EXPECT_EQ(L"Teo Services watchdog not reliable", TEOMessages[27]);
  EXPECT_EQ(L"Start successfully.", StartMessages[0]);
  EXPECT_EQ(L"Agent start script failed.", StartMessages[7]);
  EXPECT_EQ(L"", teoMessage(28));
  EXPECT_EQ(L"", teoMessage(-1));
  EXPECT_EQ(L"", startMessage(8));
}

TEST(CapFileStates, KeepTheirNumbers) {
  EXPECT_EQ(0, CAP_FILE_ADDED);
  EXPECT_EQ(1, CAP_FILE_REMOVED);
  EXPECT_EQ(CAP_FILE_ADDED, CAPFileEvent().getCAPState());
}

TEST(EventMessages, OperationalTextWithStartStatusAndDetails) {
  Agent* agent = makeAgent(L"Database agent", L"db1");
  AgentOpEvent event;
  event.setAgent(agent, true);
  event.setEventTypeID(agent_restart_failed);
  event.setStartStatus(7);
  EXPECT_EQ(L"Database agent - db1 - Operational Event: Agent restart failed - Agent start script failed.",
            event.getLogMessage());
  event.setUserMessage(L"exit code 3");
  EXPECT_EQ(
      L"Database agent - db1 - Operational Event: Agent restart failed - Agent start script failed. Details: "
      L"exit code 3.",
      event.getLogMessage());
}

TEST(EventMessages, ManualStartFailureAlsoCarriesTheStartStatus) {
  AgentOpEvent event;
  event.setAgent(makeAgent(L"X"), true);
  event.setEventTypeID(agent_start_failed);
  event.setStartStatus(1);
  EXPECT_EQ(L"X Operational Event: Agent manual start failed - Dependent agent id not found.",
            event.getLogMessage());
}

TEST(EventMessages, NotApplicableDetailsAreLeftOut) {
  AgentOpEvent event;
  event.setAgent(makeAgent(L"X"), true);
  event.setEventTypeID(agent_started);
  event.setStartStatus(7);  // not shown: only ids 6 and 13 show the start status
  EXPECT_EQ(L"N/A", event.getUserMessage());
  EXPECT_EQ(L"X Operational Event: Agent started successfully.", event.getLogMessage());
  event.setUserMessage(L"");
  EXPECT_EQ(L"N/A", event.getUserMessage());
}

TEST(EventMessages, ManagementText) {
  AgentMgmtEvent event;
  event.setAgent(makeAgent(L"Web agent", L"site"), true);
  event.setEventTypeID(agent_managed);
  event.setUserMessage(L"not shown");
  EXPECT_EQ(L"Web agent - site - Management Event: Agent now managed.", event.getLogMessage());
}

TEST(EventMessages, CapFileWatchdogAndRawTexts) {
  CAPFileEvent cap;
  cap.setCAPFileName(L"/etc/qor/cap/web.xml");
  cap.setEventTypeID(cap_removed);
  EXPECT_EQ(L"/etc/qor/cap/web.xml CAP File Event: Agent removed from system - CAP file removed.",
            cap.getLogMessage());

  WatchdogEvent watchdog;
  watchdog.setEventTypeID(disarm_complete);
  EXPECT_EQ(L" Watchdog Event: Disarm completed successfully", watchdog.getLogMessage());

  EventData data;
  data.eventID = 8;
  RawEvent raw(data);
  raw.setLogMessage(L"ready text");
  EXPECT_EQ(L"ready text", raw.getLogMessage());
}

TEST(EventMessages, AvailabilityCheckText) {
  setenv("TZ", "UTC", 1);
  tzset();
  AgentAVCheckEvent event;
  EXPECT_EQ(agent_health_check, event.getEventTypeID());
  event.setAgent(makeAgent(L"X"), true);
  event.setCheckTime(0);
  wchar_t expected[40];
  struct tm local;
  time_t zero = 0;
  localtime_r(&zero, &local);
  wcsftime(expected, 40, L"%c", &local);
  EXPECT_EQ(std::wstring(L"X Availability checked at ") + expected, event.getLogMessage());
}

TEST(EventCopies, APlainAgentEventHasNoCopy) {
  AgentEvent event;
  EXPECT_EQ(nullptr, event.makeCopy(true));
  EXPECT_EQ(nullptr, event.makeCopy(false));
}

TEST(EventCopies, PlainCopiesShareTheAgentAndNeverOwnIt) {
  Agent* agent = makeAgent(L"X");
  AgentOpEvent event;
  event.setAgent(agent, true);
  event.setOpState(OpStopped);
  event.setIncrementFlag(true);
  event.setActionFlag(false);
  {
    AgentOpEvent copy(event);
    EXPECT_EQ(agent, copy.getAgent());
    EXPECT_FALSE(copy.isAgentOwned());
    EXPECT_EQ(OpStopped, copy.getOpState());
    EXPECT_TRUE(copy.getIncrementFlag());
    EXPECT_FALSE(copy.getActionFlag());
  }
  EXPECT_EQ(L"X", agent->getName());  // still alive after the copy went
}

TEST(EventCopies, ShallowAndDeepCopiesOwnTheirAgent) {
  AgentOpEvent event;
  event.setAgent(makeAgent(L"X"), true);
  event.setStartStatus(5);
  Event* shallow = event.makeCopy(true);
  Event* deep = event.makeCopy(false);
  auto* shallowOp = dynamic_cast<AgentOpEvent*>(shallow);
  auto* deepOp = dynamic_cast<AgentOpEvent*>(deep);
  ASSERT_NE(nullptr, shallowOp);
  ASSERT_NE(nullptr, deepOp);
  EXPECT_NE(event.getAgent(), shallowOp->getAgent());
  EXPECT_TRUE(shallowOp->isAgentOwned());
  EXPECT_EQ(nullptr, shallowOp->getAgent()->getWatchdog());
  ASSERT_NE(nullptr, deepOp->getAgent()->getWatchdog());
  EXPECT_EQ(deepOp->getAgent(), deepOp->getAgent()->getWatchdog()->getAgent());
  EXPECT_EQ(5, shallowOp->getStartStatus());
  delete shallow;
  delete deep;
}

TEST(EventCopies, ManagementCopyTakesOverTheStateOnly) {
  AgentMgmtEvent event;
  event.setMgmtState(Managed);
  event.setNewAgent(true);
  AgentMgmtEvent copy(event);
  EXPECT_EQ(Managed, copy.getMgmtState());
  EXPECT_FALSE(copy.isNewAgent());
}

TEST(EventCopies, ACopyOfAWatchdogEventReportsDefaults) {
  Agent* agent = makeAgent(L"OS agent");
  WatchdogEvent event;
  event.setEventTypeID(rearm_complete);
  event.setAgent(agent);
  EventData full;
  event.getEventData(full);
  EXPECT_EQ(L"OS agent", full.agentName);

  Event* copy = event.makeCopy(true);
  EventData data;
  copy->getEventData(data);
  EXPECT_EQ(L"", data.agentName);
  EXPECT_EQ(-1, data.operatingState);
  EXPECT_EQ(-1, data.managedState);
  EXPECT_EQ(L"", data.instanceProcName);
  EXPECT_EQ(-1, data.agentType);
  EXPECT_EQ(-1, data.osType);
  EXPECT_EQ(L"", data.osVersion);
  EXPECT_EQ(-1, data.procID);
  EXPECT_EQ(-1, data.spareValue);
  EXPECT_EQ(rearm_complete, data.eventID);
  delete copy;
  delete agent;
}

TEST(EventCopies, CapFileCopyCarriesAShallowAgentOfItsOwn) {
  Agent* live = makeAgent(L"Removed agent", L"i1");
  CAPFileEvent event;
  event.setCAPFileName(L"/cap/a.xml");
  event.setEventTypeID(cap_removed);
  event.setCAPState(CAP_FILE_REMOVED);
  event.setAgent(new Agent(*live, true));
  delete live;
  Event* copy = event.makeCopy(true);
  auto* capCopy = dynamic_cast<CAPFileEvent*>(copy);
  ASSERT_NE(nullptr, capCopy);
  ASSERT_NE(nullptr, capCopy->getAgent());
  EXPECT_NE(event.getAgent(), capCopy->getAgent());
  EXPECT_EQ(nullptr, capCopy->getAgent()->getWatchdog());
  EXPECT_EQ(CAP_FILE_REMOVED, capCopy->getCAPState());
  EventData data;
  copy->getEventData(data);
  EXPECT_EQ(L"Removed agent", data.agentName);
  EXPECT_EQ(OpRunning, data.operatingState);
  EXPECT_EQ(Managed, data.managedState);
  EXPECT_EQ(L"/opt/qa/bin/qa", data.instanceProcName);
  EXPECT_EQ(Console, data.agentType);
  EXPECT_EQ(PlatformLinux, data.osType);
  EXPECT_EQ(L"12", data.osVersion);
  EXPECT_EQ(321, data.procID);
  EXPECT_EQ(-1, data.spareValue);
  EXPECT_EQ(cap_removed, data.eventID);
  delete copy;
}

TEST(EventCopies, CapFileWithoutAgentKeepsTheDefaults) {
  CAPFileEvent event;
  event.setEventTypeID(cap_added);
  EventData data;
  event.getEventData(data);
  EXPECT_EQ(L"", data.agentName);
  EXPECT_EQ(-1, data.procID);
  EXPECT_EQ(cap_added, data.eventID);
}

TEST(EventCopies, RawEventKeepsItsRecordAndText) {
  EventData data;
  data.eventTime = 99;
  data.agentName = L"OS agent";
  data.eventID = agent_stopped_abnormally;
  data.userMessage = L"";
  data.procID = 55;
  RawEvent raw(data);
  EXPECT_EQ(99, raw.getEventTime());
  EXPECT_EQ(agent_stopped_abnormally, raw.getEventTypeID());
  EXPECT_EQ(L"", raw.getUserMessage());
  EXPECT_FALSE(raw.messagesSuppressed());
  raw.setLogMessage(L"text");
  Event* copy = raw.makeCopy(true);
  EventData out;
  copy->getEventData(out);
  EXPECT_EQ(L"OS agent", out.agentName);
  EXPECT_EQ(55, out.procID);
  EXPECT_EQ(L"text", copy->getLogMessage());
  delete copy;
}

TEST(EventProcessing, AnOperationalEventForAnAgentThatLeftTheListIsDropped) {
  Agent* gone = makeAgent(L"gone");
  AgentOpEvent event;
  event.setEventTypeID(agent_stopped_abnormally);
  event.setAgent(gone);
  event.doCommandProcessing();
  EXPECT_EQ(nullptr, event.getAgent());
  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_TRUE(takeMessages().empty());
  delete gone;
}

TEST(EventProcessing, AManagementEventForAnAgentThatLeftTheListIsDropped) {
  Agent* gone = makeAgent(L"gone");
  AgentMgmtEvent event;
  event.setEventTypeID(agent_managed);
  event.setAgent(gone);
  event.doCommandProcessing();
  EXPECT_EQ(nullptr, event.getAgent());
  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_TRUE(takeMessages().empty());
  delete gone;
}

TEST(EventProcessing, ACheckForAnAgentThatLeftTheListIsDropped) {
  Agent* gone = makeAgent(L"gone");
  AgentAVCheckEvent event;
  event.setAgent(gone);
  event.doCommandProcessing();
  EXPECT_EQ(nullptr, event.getAgent());
  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_EQ(0, event.getCheckTime());
  delete gone;
}

TEST(EventProcessing, AnOperationalMessageOwnsAShallowCopyOfTheAgent) {
  ListedAgent listed(makeAgent(L"listed"));
  AgentOpEvent event;
  event.setEventTypeID(agent_started);
  event.setAgent(listed.get());
  event.doCommandProcessing();
  std::vector<Event*> messages = takeMessages();
  ASSERT_EQ(1u, messages.size());
  auto* message = dynamic_cast<AgentOpEvent*>(messages[0]);
  ASSERT_NE(nullptr, message);
  EXPECT_NE(listed.get(), message->getAgent());
  EXPECT_TRUE(message->isAgentOwned());
  EXPECT_EQ(nullptr, message->getAgent()->getWatchdog());
  EXPECT_EQ(L"listed Operational Event: Agent started successfully.", message->getLogMessage());
  deleteAll(messages);
}

TEST(EventProcessing, AManagementMessageIsAPlainCopyOfTheLiveAgent) {
  ListedAgent listed(makeAgent(L"listed"));
  AgentMgmtEvent event;
  event.setEventTypeID(agent_unmanaged);
  event.setMgmtState(Unmanaged);
  event.setAgent(listed.get());
  event.doCommandProcessing();
  std::vector<Event*> messages = takeMessages();
  ASSERT_EQ(1u, messages.size());
  auto* message = dynamic_cast<AgentMgmtEvent*>(messages[0]);
  ASSERT_NE(nullptr, message);
  EXPECT_EQ(listed.get(), message->getAgent());
  EXPECT_FALSE(message->isAgentOwned());
  EXPECT_EQ(Unmanaged, message->getMgmtState());
  deleteAll(messages);
}

TEST(EventProcessing, ASuppressedEventIsProcessedButSendsNoMessage) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 1);
  ListedAgent listed(makeAgent(L"listed"));
  AgentOpEvent event;
  event.setEventTypeID(agent_started);
  event.setAgent(listed.get());
  event.suppressMessages();
  event.doCommandProcessing();
  EXPECT_EQ(listed.get(), event.getAgent());
  EXPECT_TRUE(takeMessages().empty());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "Message suppressed for event id 7."));
}

TEST(EventProcessing, AHealthCheckSendsNoMessage) {
  ListedAgent listed(makeAgent(L"listed"));
  AgentAVCheckEvent event;
  event.setAgent(listed.get());
  time_t before = time(nullptr);
  event.doCommandProcessing();
  EXPECT_GE(event.getCheckTime(), before);
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_TRUE(takeMessages().empty());
}

TEST(EventProcessing, TheEndOfTheInitialScanSendsNoMessage) {
  CAPFileEvent event;
  event.setEventTypeID(cap_init_complete);
  event.doCommandProcessing();
  EXPECT_TRUE(takeMessages().empty());
}

TEST(EventProcessing, ACapFileMessageIsAPlainCopy) {
  qortest::TempDir dir;
  qortest::writeFile(dir.file("new.xml"), "not a CAP file");  // refused, yet its message goes out
  std::wstring path = qor_mbstowcs(dir.file("new.xml").c_str());
  CAPFileEvent event;
  event.setEventTypeID(cap_added);
  event.setCAPFileName(path);
  event.doCommandProcessing();
  std::vector<Event*> messages = takeMessages();
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ(path + L" CAP File Event: Agent added to system - CAP file found.", messages[0]->getLogMessage());
  deleteAll(messages);
}

TEST(EventProcessing, AWatchdogMessageIsACopyWithoutAgent) {
  Agent* agent = makeAgent(L"OS agent");
  WatchdogEvent event;
  event.setEventTypeID(disarm_complete);
  event.setAgent(agent);
  event.doCommandProcessing();
  std::vector<Event*> messages = takeMessages();
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ(nullptr, dynamic_cast<WatchdogEvent*>(messages[0])->getAgent());
  deleteAll(messages);
  delete agent;
}

TEST(EventProcessing, LogMessageSendsACopyAndTheCallerKeepsTheEvent) {
  AgentOpEvent event;
  event.setEventTypeID(agent_count_reset);
  event.setAgent(makeAgent(L"X"), true);
  event.logMessage();
  std::vector<Event*> messages = takeMessages();
  ASSERT_EQ(1u, messages.size());
  EXPECT_NE(&event, messages[0]);
  EXPECT_EQ(L"X Operational Event: Agent daily restart count reset", messages[0]->getLogMessage());
  deleteAll(messages);
}

TEST(EventProcessing, UnreliableWatchdogMessageTellsOfTheAgentWithId27) {
  AgentMgmtEvent source;
  source.setEventTypeID(agent_unmanaged);
  source.setAgent(makeAgent(L"OS agent"), true);
  time_t before = time(nullptr);
  RawEvent::logUnreliableMessage(&source);
  std::vector<Event*> messages = takeMessages();
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ(watchdog_unreliable, messages[0]->getEventTypeID());
  EXPECT_EQ(L"Teo Services watchdog not reliable", messages[0]->getLogMessage());
  EventData data;
  messages[0]->getEventData(data);
  EXPECT_EQ(L"OS agent", data.agentName);
  EXPECT_EQ(watchdog_unreliable, data.eventID);
  EXPECT_GE(data.eventTime, before);
  EXPECT_EQ(L"N/A", data.userMessage);
  deleteAll(messages);
}

TEST(EventProcessing, UnreliableMessageAfterADisarmSaysSo) {
  WatchdogEvent disarm;
  disarm.setEventTypeID(disarm_complete);
  RawEvent::logUnreliableMessage(&disarm);
  std::vector<Event*> messages = takeMessages();
  ASSERT_EQ(1u, messages.size());
  EventData data;
  messages[0]->getEventData(data);
  EXPECT_EQ(L"Watchdog Disarm", data.userMessage);
  EXPECT_EQ(L"Watchdog Disarm", messages[0]->getUserMessage());
  deleteAll(messages);
}
