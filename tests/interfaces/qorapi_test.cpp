#include "include/qorapi.h"

#include <gtest/gtest.h>

#include <mutex>

#include "agents/qoragt.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorutil.h"
#include "support/qortest.h"

namespace {

std::mutex callsMutex;
std::vector<std::string> calls;  // "log 8", "alert 8", in the order of the calls

void record(const std::string& call) {
  std::lock_guard<std::mutex> lock(callsMutex);
  calls.push_back(call);
}

std::vector<std::string> recorded() {
  std::lock_guard<std::mutex> lock(callsMutex);
  return calls;
}

class RecordingLog : public QOR_LogListener {
 public:
  void AlertMe() override {
    record("log " + std::to_string(logData.eventID));
    last = logData;
  }
  QOR_LogData last;
};

class RecordingAlert : public QOR_AlertListener {
 public:
  void AlertMe() override {
    record("alert " + std::to_string(alertData.eventID));
    last = alertData;
  }
  QOR_AlertData last;
};

class BothLog : public QOR_LogListener {
 public:
  void AlertMe() override { record("both as log " + std::to_string(logData.eventID)); }
};

class BothAlert : public QOR_AlertListener {
 public:
  void AlertMe() override { record("both as alert " + std::to_string(alertData.eventID)); }
};

// An object derived from both listener classes, as a host may write it.
class DualListener : public BothLog, public BothAlert {};

QOR_QueryService* initService(const qortest::TempDir& dir) {
  setenv("QOR_CAP_DIR", dir.path().c_str(), 1);
  return QOR_QueryService::initQueryService();
}

Agent* makeAgent() {
  Agent* agent = new Agent();
  agent->setID(L"qa");
  agent->setName(L"Agent qa");
  agent->setInstanceProcName(L"/opt/qa/bin/qa");
  agent->setType(Console);
  agent->setProcID(42);
  agent->setOperatingState(OpStopped);
  agent->setManagedState(Managed);
  Policy* policy = new Policy();
  policy->setOsTypeAsEnum(PlatformLinux);
  policy->setOsVersion(L"12.5");
  agent->setPolicy(policy);
  return agent;
}

AgentOpEvent* opEvent(int id) {
  auto* event = new AgentOpEvent();
  event->setEventTypeID(id);
  event->setEventTime(1700000000);
  event->setAgent(makeAgent(), true);
  event->setUserMessage(L"script said no");
  return event;
}

}  // namespace

TEST(QueryListeners, EveryEventReachesTheLogListenersWithItsText) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingLog log;
  ASSERT_TRUE(service->registerLogListener(&log));
  QOR_QueryService::ProcessEvent(opEvent(agent_started));
  EXPECT_EQ(std::vector<std::string>({"log 7"}), recorded());
  EXPECT_EQ(1700000000, log.last.eventTime);
  EXPECT_EQ(7, log.last.eventID);
  EXPECT_EQ(L"Agent qa Operational Event: Agent started successfully. Details: script said no.",
            log.last.logMessage);
}

TEST(QueryListeners, AListenerOfBothKindsHearsAnAlertFirstAsLogThenAsAlert) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  DualListener listener;
  ASSERT_TRUE(service->registerLogListener(&listener));
  ASSERT_TRUE(service->registerAlertListener(&listener));
  QOR_QueryService::ProcessEvent(opEvent(agent_stopped_abnormally));
  EXPECT_EQ(std::vector<std::string>({"both as log 8", "both as alert 8"}), recorded());
}

TEST(QueryListeners, AlertDataIsTheFlatRecordOfTheEvent) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingAlert alert;
  ASSERT_TRUE(service->registerAlertListener(&alert));
  QOR_QueryService::ProcessEvent(opEvent(agent_restart_exceeded));
  EXPECT_EQ(1700000000, alert.last.eventTime);
  EXPECT_EQ(L"Agent qa", alert.last.agentName);
  EXPECT_EQ(OpStopped, alert.last.operatingState);
  EXPECT_EQ(Managed, alert.last.managedState);
  EXPECT_EQ(L"/opt/qa/bin/qa", alert.last.instanceProcName);
  EXPECT_EQ(Console, alert.last.agentType);
  EXPECT_EQ(PlatformLinux, alert.last.osType);
  EXPECT_EQ(L"12.5", alert.last.osVersion);
  EXPECT_EQ(0, alert.last.procID);  // stopped: the process id was cleared
  EXPECT_EQ(-1, alert.last.spareValue);
  EXPECT_EQ(agent_restart_exceeded, alert.last.eventID);
  EXPECT_EQ(L"script said no", alert.last.userMessage);
}

TEST(QueryListeners, OnlyTheAlertIdsReachTheAlertListeners) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingAlert alert;
  ASSERT_TRUE(service->registerAlertListener(&alert));
  for (int id = 0; id < TEO_MESSAGE_COUNT; ++id) {
    if (id == cap_added || id == cap_removed || id == cap_init_complete) {
      auto* event = new CAPFileEvent();
      event->setEventTypeID(id);
      QOR_QueryService::ProcessEvent(event);
    } else if (id == watchdog_unreliable) {
      EventData data;
      data.eventID = id;
      QOR_QueryService::ProcessEvent(new RawEvent(data));
    } else {
      QOR_QueryService::ProcessEvent(opEvent(id));
    }
  }
  // The failed manual start, 13, is left out on purpose.
  EXPECT_EQ(std::vector<std::string>({"alert 1", "alert 6", "alert 8", "alert 11", "alert 12", "alert 14",
                                      "alert 16", "alert 17", "alert 27"}),
            recorded());
}

TEST(QueryListeners, AFailedManualStartReachesTheLogListenersOnly) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingLog log;
  RecordingAlert alert;
  service->registerLogListener(&log);
  service->registerAlertListener(&alert);
  QOR_QueryService::ProcessEvent(opEvent(agent_start_failed));
  EXPECT_EQ(std::vector<std::string>({"log 13"}), recorded());
}

TEST(QueryListeners, ListenersAreCalledInOrderOfRegistrationAndTwiceIfTwice) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  BothLog first;
  RecordingLog second;
  service->registerLogListener(&first);
  service->registerLogListener(&second);
  service->registerLogListener(&first);
  QOR_QueryService::ProcessEvent(opEvent(agent_started));
  EXPECT_EQ(std::vector<std::string>({"both as log 7", "log 7", "both as log 7"}), recorded());
}

TEST(QueryListeners, DeregisteringAnUnknownListenerReturnsFalse) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingAlert known;
  RecordingAlert unknown;
  RecordingLog log;
  ASSERT_TRUE(service->registerAlertListener(&known));
  EXPECT_FALSE(service->deregisterAlertListener(&unknown));
  EXPECT_FALSE(service->deregisterLogListener(&log));
  EXPECT_TRUE(service->deregisterAlertListener(&known));
  EXPECT_FALSE(service->deregisterAlertListener(&known));
  QOR_QueryService::ProcessEvent(opEvent(agent_stopped_abnormally));
  EXPECT_TRUE(recorded().empty());
}

TEST(QueryListeners, DeregisteringRemovesOnlyTheFirstEntry) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingLog log;
  service->registerLogListener(&log);
  service->registerLogListener(&log);
  EXPECT_TRUE(service->deregisterLogListener(&log));
  QOR_QueryService::ProcessEvent(opEvent(agent_started));
  EXPECT_EQ(std::vector<std::string>({"log 7"}), recorded());
}

// A host that keeps its pointer after the last release reaches a service that
// is not initialised: registration only fails.
TEST(QueryListeners, RegistrationWithoutAnInitialisedServiceFails) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  ASSERT_TRUE(service->releaseQueryService(true));
  RecordingLog log;
  RecordingAlert alert;
  EXPECT_FALSE(service->registerLogListener(&log));
  EXPECT_FALSE(service->registerAlertListener(&alert));
}

TEST(QueryListeners, ANullEventIsIgnored) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingLog log;
  service->registerLogListener(&log);
  QOR_QueryService::ProcessEvent(nullptr);
  EXPECT_TRUE(recorded().empty());
}

TEST(QueryListeners, EventsReachTheHostThroughTheRunningQueues) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingLog log;
  service->registerLogListener(&log);
  service->startQueryService();
  // A file the watcher would report; it is no CAP file, and its message goes
  // out all the same.
  qortest::TempDir files;
  qortest::writeFile(files.file("one.xml"), "not a CAP file");
  std::wstring path = qor_mbstowcs(files.file("one.xml").c_str());
  auto* event = new CAPFileEvent();
  event->setEventTypeID(cap_added);
  event->setCAPFileName(path);
  event->processEvent();
  // Started without the OS agent's CAP file, the service came up disarmed
  // and said so first, through the same queues.
  ASSERT_TRUE(qortest::waitFor([] { return recorded().size() >= 2; }, 5000));
  EXPECT_EQ(std::vector<std::string>({"log 18", "log 0"}), recorded());
  EXPECT_EQ(path + L" CAP File Event: Agent added to system - CAP file found.", log.last.logMessage);
  service->deregisterLogListener(&log);
  service->releaseQueryService(false);
}

TEST(QueryService, CommandsBeforeStartAnswerMinusOne) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  EXPECT_EQ(-1, service->stopAgent(L"a", L"", 0));
  EXPECT_EQ(-1, service->startAgent(L"a", false, L"", L""));
  EXPECT_EQ(-1, service->recycleAgent(L"a", L"", L"", 0));
  EXPECT_EQ(-1, service->resetRestartCount(L"a", L"", L""));
  EXPECT_EQ(-1, service->startManagingAgent(L"a"));
  EXPECT_EQ(-1, service->stopManagingAgent(L"a"));
}

TEST(QueryService, AStartedServiceAnswersManagementCommandsAndTheEmbedderDisarmsAndRearmsIt) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  RecordingLog log;
  service->registerLogListener(&log);
  service->startQueryService();
  // No OS agent's file: the service came up disarmed.
  ASSERT_TRUE(qortest::waitFor([] { return recorded().size() >= 1; }, 5000));
  EXPECT_TRUE(Controller::getController()->isDisarmed());
  EXPECT_EQ(401, service->startManagingAgent(L"nobody"));
  EXPECT_EQ(501, service->stopManagingAgent(L"nobody"));

  RearmWatchdog(0);
  ASSERT_TRUE(qortest::waitFor([] { return recorded().size() >= 2; }, 5000));
  EXPECT_FALSE(Controller::getController()->isDisarmed());
  DisarmWatchdog(0);
  ASSERT_TRUE(qortest::waitFor([] { return recorded().size() >= 4; }, 5000));
  EXPECT_TRUE(Controller::getController()->isDisarmed());
  // The embedder's disarm warns the listeners first, straight away; its own
  // event comes through the command queue after.
  EXPECT_EQ(std::vector<std::string>({"log 18", "log 19", "log 27", "log 18"}), recorded());
  service->deregisterLogListener(&log);
  service->releaseQueryService(false);
}

TEST(QueryService, TheCommandHandlersBusyTimeIsMinusOneBeforeTheStartAndZeroWhileItWaits) {
  qortest::TempDir dir;
  QOR_QueryService* service = initService(dir);
  EXPECT_EQ(-1, service->getCommandHandlerBusyMs());
  service->startQueryService();
  // Nothing to check: the handler soon waits for its queue.
  EXPECT_TRUE(qortest::waitFor([&] { return service->getCommandHandlerBusyMs() == 0; }, 5000));
  service->releaseQueryService(false);
}

TEST(QueryService, CacheLimitIs24HoursUnlessSet) {
  unsetenv("QOR_CACHE_LIMIT");
  EXPECT_EQ(24, QOR_QueryService::getCacheLimit());
  setenv("QOR_CACHE_LIMIT", "48", 1);
  EXPECT_EQ(48, QOR_QueryService::getCacheLimit());
  setenv("QOR_CACHE_LIMIT", "2d", 1);
  EXPECT_EQ(24, QOR_QueryService::getCacheLimit());
}

TEST(QueryService, TraceLevelCanChangeWhileRunning) {
  QOR_SetTraceLevel(146);
  EXPECT_EQ(146u, QOR_GetTraceLevel());
  QOR_SetTraceLevel(128);
  EXPECT_EQ(128u, QOR_GetTraceLevel());
}

TEST(QueryService, WideToNarrowForHosts) {
  char* text = QOR_wcstombs(L"plain text");
  EXPECT_STREQ("plain text", text);
  delete[] text;
}

TEST(QueryService, Utf8ToWideForHosts) {
  wchar_t* text = QOR_u_strFromUTF8("caf\xc3\xa9");
  ASSERT_NE(nullptr, text);
  EXPECT_EQ(std::wstring(L"caf\u00e9"), std::wstring(text));
  delete[] text;
  std::string longText(2000, 'x');
  wchar_t* longWide = QOR_u_strFromUTF8(longText.c_str());
  ASSERT_NE(nullptr, longWide);
  EXPECT_EQ(std::wstring(2000, L'x'), std::wstring(longWide));
  delete[] longWide;
}
