// The availability cycle: the four rules that keep a check back, and the
// thread that wakes at the cycles in which agents are due. The cycle runs in
// real seconds; its tests read the story the thread traces, and each waits for
// no more than the few passes it needs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <thread>

#include "agents/qoragt.h"
#include "cap/capfiles.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "e2e/e2ehelp.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorwd.h"

namespace {

std::wstring wide(const std::string& text) { return captest::wide(text); }

// Agents made from real CAP files, kept apart from the CAP directory of the
// service so that its watcher does not take them in.
class AgentMaker {
 public:
  // A managed agent of `frequency` seconds, in the managed list; with a
  // Watchdog when `watched`.
  Agent* make(const std::string& id, int frequency, bool watched, const std::string& extra = std::string()) {
    captest::Subagent subagent;
    subagent.id = id;
    subagent.productCode = "<productCode>zq</productCode>";
    subagent.procName = "<procName>qorcycle</procName>";
    subagent.agentPath = "<agentPath>" + files.file("qorcycle") + "</agentPath>";
    subagent.checkFrequency = "<checkFrequency>" + std::to_string(frequency) + "</checkFrequency>";
    subagent.availabilityStatusScript = extra;
    Policy* policy = new Policy();
    XMLprocessor processor;
    EXPECT_EQ(XML_OK,
              captest::parseText(processor, files, captest::document(subagent), *policy, id + ".xml"));
    Agent* agent = new Agent();
    agents.emplace_back(agent);
    agent->setIdentityFrom(policy);
    agent->setInstanceProcName(policy->getProcName());
    agent->setManagedState(Managed);
    agent->setOperatingState(OpRunning);
    if (watched) {
      Watchdog* watchdog = new Watchdog();
      watchdog->setAgent(agent);
      agent->setWatchdog(watchdog);
    }
    list()->lockList();
    list()->push_back(agent);
    list()->unlockList();
    return agent;
  }

  // Takes the agents out one by one, as the service does, which marks the
  // schedule for a rebuild; they stay alive until clear.
  void removeAll() {
    list()->lockList();
    for (auto at = list()->begin(); at != list()->end();) at = list()->erase(at);
    list()->unlockList();
  }

  // Takes every agent out of the list and deletes it; the list owns none of them.
  void clear() {
    list()->lockList();
    list()->clear();
    list()->unlockList();
    agents.clear();
  }

  static ManagedProcessList* list() { return Controller::getController()->getManagedEndpointProcesses(); }

  qortest::TempDir files;
  std::vector<std::unique_ptr<Agent>> agents;
};

// ---- ProcessAvCheck ---------------------------------------------------------------

// The rules of ProcessAvCheck, run through the check event as the command
// handler runs it: the list locked and the agent found in it.
class AvailabilityRules : public ::testing::Test {
 protected:
  void SetUp() override {
    MIN_CMD_TIMEOUT = 3;
    unsetenv("QOR_CMD_TIMEOUT");
    qortest::traceTo(traces.file("trace"), QOR_TL_DETAIL | QOR_TL_STATUS);
    Controller::getController()->setCAPDirPaths({wide(caps.path() + "/")});
  }
  void TearDown() override { maker.clear(); }

  void runCheckEvent(Agent* agent) {
    AgentAVCheckEvent event;
    event.setAgent(agent);
    event.doCommandProcessing();
  }
  std::string marker() { return caps.file("zq.dy"); }
  int traced(const std::string& text) {
    return qortest::countOccurrences(qortest::readFile(traces.file("trace")), text);
  }
  int skips() { return traced("-- skip check.\n"); }
  int checks() { return traced("Agent rules.agent checked at "); }

  qortest::TempDir caps;
  qortest::TempDir traces;
  AgentMaker maker;
};

const char kNoWatchdog[] = "The watchdog has been deleted.. probably now an unmanaged agent -- skip check.\n";
const char kStartingOrStopping[] = "The agent is a starting or stopping state -- skip check.\n";
const char kRetrying[] = "Retry availability check is enabled -- skip check.\n";
const char kDeploying[] = "Agent remote deployed is running-- skip check.\n";

}  // namespace

TEST_F(AvailabilityRules, AnAgentWithoutAWatchdogIsSkippedBeforeAnyOtherRule) {
  Agent* agent = maker.make("rules.agent", 5, false);
  agent->setOperatingState(OpStarting);
  agent->setAvailCheckRetry();
  qortest::writeFile(marker(), "");
  runCheckEvent(agent);
  EXPECT_EQ(1, traced(kNoWatchdog));
  EXPECT_EQ(1, skips());
  EXPECT_EQ(0, checks());
}

TEST_F(AvailabilityRules, AStartingOrAStoppingAgentIsSkippedBeforeTheRetryRule) {
  Agent* agent = maker.make("rules.agent", 5, true);
  agent->setAvailCheckRetry();
  qortest::writeFile(marker(), "");
  agent->setOperatingState(OpStarting);
  runCheckEvent(agent);
  agent->setOperatingState(OpStopping);
  runCheckEvent(agent);
  EXPECT_EQ(2, traced(kStartingOrStopping));
  EXPECT_EQ(2, skips());
  EXPECT_EQ(0, checks());
}

TEST_F(AvailabilityRules, AnAgentWhoseStatusScriptIsBeingRetriedIsSkippedBeforeTheDeployRule) {
  Agent* agent = maker.make("rules.agent", 5, true);
  agent->setAvailCheckRetry();
  qortest::writeFile(marker(), "");
  runCheckEvent(agent);
  EXPECT_EQ(1, traced(kRetrying));
  EXPECT_EQ(1, skips());
  EXPECT_EQ(0, checks());
  EXPECT_TRUE(agent->availCheckRetryEnabled());
}

TEST_F(AvailabilityRules, AnAgentBeingDeployedIsSkippedAndItsMarkerStays) {
  Agent* agent = maker.make("rules.agent", 5, true);
  qortest::writeFile(marker(), "");
  runCheckEvent(agent);
  EXPECT_EQ(1, traced(kDeploying));
  EXPECT_EQ(1, skips());
  EXPECT_EQ(0, checks());
  EXPECT_TRUE(qortest::fileExists(marker()));
  time_t checked = 0;
  EXPECT_FALSE(agent->getLastChecked(checked));
}

TEST_F(AvailabilityRules, AnAgentThatPassesEveryRuleIsChecked) {
  Agent* agent = maker.make("rules.agent", 5, true, captest::script("availabilityStatusScript", "exit 0"));
  const time_t before = time(nullptr);
  runCheckEvent(agent);
  EXPECT_EQ(0, skips());
  EXPECT_EQ(1, checks());
  time_t checked = 0;
  ASSERT_TRUE(agent->getLastChecked(checked));
  EXPECT_GE(checked, before);
}

TEST_F(AvailabilityRules, AnAgentMadeUnmanagedKeepsItsMaskUntilTheRebuildAndItsChecksAreSkipped) {
  Agent* agent = maker.make("rules.agent", 5, true);
  ManagedProcessList* list = AgentMaker::list();
  list->getMasterMask();
  ASSERT_EQ(1u, agent->getCheckMask());

  // Management ends on the command handler thread, with the list locked.
  AgentMgmtEvent ending;
  ending.setEventTypeID(agent_unmanaged);
  ending.setMgmtState(Managed);
  ending.setAgent(agent);
  ASSERT_TRUE(list->lockList());
  Controller::getController()->ProcessMgmtStateChange(&ending);
  list->unlockList();
  EXPECT_EQ(nullptr, agent->getWatchdog());
  EXPECT_EQ(1u, agent->getCheckMask());
  EXPECT_TRUE(list->isDirty());

  // A check the cycle pushed with the mask it still has.
  runCheckEvent(agent);
  EXPECT_EQ(1, traced(kNoWatchdog));
  EXPECT_EQ(0, checks());

  std::bitset<MAX_CHECK_CYCLES> mask = list->getMasterMask();
  EXPECT_EQ(0u, agent->getCheckMask());
  EXPECT_TRUE(mask.none());
  EXPECT_EQ(2, list->getCycleCount());
}

// ---- The cycle --------------------------------------------------------------------

namespace {

// The texts of the cycle's story, in the order the thread tells them.
const char* const kStoryTexts[] = {"Starting cycle loop: ", "Going to sleep for: ",
                                   "Dirty condition detected: ", "Testing agent masks on cycle ",
                                   "Pushing agent check based on mask "};

struct StoryLine {
  long long ms;  // when it was traced, from the line's time stamp
  std::string text;
};

long long stampOf(const std::string& line) {
  struct tm local = {};
  int millis = 0;
  if (line.size() < 23 ||
      sscanf(line.c_str(), "%d-%d-%d %d:%d:%d.%d", &local.tm_year, &local.tm_mon, &local.tm_mday,
             &local.tm_hour, &local.tm_min, &local.tm_sec, &millis) != 7) {
    return 0;
  }
  local.tm_year -= 1900;
  local.tm_mon -= 1;
  local.tm_isdst = -1;
  return static_cast<long long>(mktime(&local)) * 1000 + millis;
}

// What the host hears: each log text, and each alert's id and message.
class HeardLogs : public QOR_LogListener {
 public:
  void AlertMe() override {
    char* text = QOR_wcstombs(logData.logMessage);
    std::lock_guard<std::mutex> lock(mutex);
    texts.push_back(text);
    delete[] text;
  }
  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return texts;
  }

 private:
  std::mutex mutex;
  std::vector<std::string> texts;
};

class HeardAlerts : public QOR_AlertListener {
 public:
  void AlertMe() override {
    std::lock_guard<std::mutex> lock(mutex);
    alerts.emplace_back(alertData.eventID, alertData.userMessage);
  }
  std::vector<std::pair<int, std::wstring>> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return alerts;
  }

 private:
  std::mutex mutex;
  std::vector<std::pair<int, std::wstring>> alerts;
};

// The whole service with an empty CAP directory and agents put straight into
// its managed list; the availability thread's story read from the trace.
class AvailabilityCycle : public ::testing::Test {
 protected:
  void SetUp() override {
    MIN_CMD_TIMEOUT = 3;
    unsetenv("QOR_CMD_TIMEOUT");
    setenv("QOR_CAP_DIR", caps.path().c_str(), 1);
    // Without the OS agent's file the service would come up disarmed and
    // take the agents of these tests out of management.
    qortest::writeFile(caps.file("host.xml"), e2e::osAgentCapFile());
    qortest::traceTo(traces.file("trace"), QOR_TL_STORY | QOR_TL_DETAIL | QOR_TL_STATUS);
  }
  void TearDown() override {
    stop();
    maker.clear();
  }

  void start() {
    service = QOR_QueryService::initQueryService();
    service->startQueryService();
  }
  void stop() {
    if (service != nullptr) service->releaseQueryService(false);
    service = nullptr;
  }

  std::string trace() { return qortest::readFile(traces.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }

  // The story so far, each line cut to its text. Every text of the story
  // ends in its own line feed, which the split into lines took off.
  std::vector<StoryLine> story() {
    std::vector<StoryLine> lines;
    for (const std::string& line : qortest::linesWith(trace(), "qoravail.cpp")) {
      for (const char* text : kStoryTexts) {
        size_t at = line.find(text);
        if (at != std::string::npos) lines.push_back({stampOf(line), line.substr(at) + "\n"});
      }
    }
    return lines;
  }
  std::vector<std::string> storyTexts() {
    std::vector<std::string> texts;
    for (const StoryLine& line : story()) texts.push_back(line.text);
    return texts;
  }
  // Waits until the story holds `text` `count` times.
  bool waitForStory(const std::string& text, int count, int timeoutMs) {
    return qortest::waitFor([&] { return traced(text) >= count; }, timeoutMs);
  }
  // Milliseconds between the first lines of the story that start with `from` and `to`.
  long long between(const std::string& from, const std::string& to) {
    long long first = -1;
    for (const StoryLine& line : story()) {
      if (first < 0 && line.text.rfind(from, 0) == 0) {
        first = line.ms;
      } else if (first >= 0 && line.text.rfind(to, 0) == 0) {
        return line.ms - first;
      }
    }
    return -1;
  }

  qortest::TempDir caps;
  qortest::TempDir traces;
  AgentMaker maker;
  HeardLogs logs;
  HeardAlerts alerts;
  QOR_QueryService* service = nullptr;
};

using Story = std::vector<std::string>;

}  // namespace

TEST_F(AvailabilityCycle, WithNoManagedAgentTheThreadSleepsTenSecondsAPassAndPushesNothing) {
  start();
  ASSERT_TRUE(waitForStory("Starting cycle loop: cycle count: 2\n", 2, 15000));
  ASSERT_TRUE(waitForStory("Going to sleep for: 10 on iteration 2\n", 2, 2000));
  stop();
  EXPECT_EQ(Story({"Starting cycle loop: cycle count: 2\n", "Going to sleep for: 10 on iteration 2\n",
                   "Starting cycle loop: cycle count: 2\n", "Going to sleep for: 10 on iteration 2\n"}),
            storyTexts());
  // The sleep ends on the turn of a second: ten seconds less the part of the
  // second that had gone when it began.
  long long slept = between("Going to sleep for: 10", "Starting cycle loop");
  EXPECT_GT(slept, 8950);
  EXPECT_LE(slept, 10300);
}

TEST_F(AvailabilityCycle, OneAgentAtFiveSecondsIsPushedOnceInEachPassOfFiveSeconds) {
  maker.make("cycle.five", 5, true, captest::script("availabilityStatusScript", "exit 0"));
  start();
  ASSERT_TRUE(waitForStory("Going to sleep for: 5 on iteration 1\n", 3, 15000));
  // The pushed checks ran on the command handler: the first at once, the
  // second five seconds on, when its frequency had come round.
  EXPECT_TRUE(qortest::waitFor([&] { return traced("Command rc < 0 >.\n") == 2; }, 5000));
  EXPECT_EQ(2, traced("Agent cycle.five checked at "));
  stop();
  Story pass = {"Starting cycle loop: cycle count: 2\n", "Going to sleep for: 5 on iteration 1\n",
                "Testing agent masks on cycle 1\n",
                "Pushing agent check based on mask on iteration 1 -- cycle.five\n"};
  Story expected;
  for (int passes = 0; passes < 2; ++passes) expected.insert(expected.end(), pass.begin(), pass.end());
  expected.insert(expected.end(), pass.begin(), pass.begin() + 2);
  EXPECT_EQ(expected, storyTexts());
  // The whole story carries the cycle's name, whichever step tells it.
  for (const std::string& line : qortest::linesWith(trace(), "Pushing agent check")) {
    EXPECT_NE(std::string::npos, line.find(" qoravail.cpp AvailChecking:")) << line;
  }
  long long slept = between("Going to sleep for: 5", "Testing agent masks");
  EXPECT_GT(slept, 3950);
  EXPECT_LE(slept, 5300);
}

TEST_F(AvailabilityCycle, EachPassWakesOnTheTurnOfASecondSoThatItsChecksKeepTheirPlaceInTheSecond) {
  maker.make("cycle.turn", 5, true, captest::script("availabilityStatusScript", "exit 0"));
  start();
  ASSERT_TRUE(waitForStory("Testing agent masks on cycle 1\n", 3, 20000));
  // Stopped once the third check's script has ended: the agents of this
  // fixture are deleted after the stop, and a script still running would
  // read its own.
  EXPECT_TRUE(qortest::waitFor([&] { return traced("Command rc < 0 >.\n") >= 3; }, 5000));
  stop();
  std::vector<long long> wakes;
  for (const StoryLine& line : story()) {
    if (line.text == "Testing agent masks on cycle 1\n") wakes.push_back(line.ms);
  }
  ASSERT_GE(wakes.size(), 3u);
  for (size_t i = 0; i < wakes.size(); ++i) {
    // Just after the turn, however long the pass before it took.
    EXPECT_LT(wakes[i] % 1000, 300) << "wake " << i << " at " << wakes[i];
    // Five whole seconds apart: the cycle does not drift by the work of a pass.
    if (i > 0) {
      EXPECT_NEAR(5000, wakes[i] - wakes[i - 1], 300) << "wake " << i;
    }
  }
  // Each due check ran: none was skipped for a second counted short.
  EXPECT_EQ(0, traced("Agent being skipped.\n"));
  EXPECT_GE(traced("Agent cycle.turn checked at "), 3);
}

TEST_F(AvailabilityCycle, AgentsAtTenAndFifteenSecondsWakeTheThreadAtCyclesTwoThreeFourAndSix) {
  // Put in out of order: the rebuild sorts the list by frequency.
  maker.make("cycle.fifteen", 15, false);
  maker.make("cycle.ten", 10, false);
  start();
  ASSERT_TRUE(waitForStory("Starting cycle loop: cycle count: 7\n", 2, 40000));
  ASSERT_TRUE(waitForStory("Going to sleep for: 10 on iteration 2\n", 2, 2000));
  // Each pushed check reached the command handler, which skips an agent
  // without a Watchdog.
  EXPECT_TRUE(qortest::waitFor(
      [&] { return traced("probably now an unmanaged agent -- skip check.\n") == 5; }, 5000));
  stop();
  const Story pass = {"Starting cycle loop: cycle count: 7\n",
                      "Going to sleep for: 10 on iteration 2\n",
                      "Testing agent masks on cycle 2\n",
                      "Pushing agent check based on mask on iteration 2 -- cycle.ten\n",
                      "Going to sleep for: 5 on iteration 3\n",
                      "Testing agent masks on cycle 3\n",
                      "Pushing agent check based on mask on iteration 3 -- cycle.fifteen\n",
                      "Going to sleep for: 5 on iteration 4\n",
                      "Testing agent masks on cycle 4\n",
                      "Pushing agent check based on mask on iteration 4 -- cycle.ten\n",
                      "Going to sleep for: 10 on iteration 6\n",
                      "Testing agent masks on cycle 6\n",
                      "Pushing agent check based on mask on iteration 6 -- cycle.ten\n",
                      "Pushing agent check based on mask on iteration 6 -- cycle.fifteen\n"};
  Story expected = pass;
  expected.insert(expected.end(), pass.begin(), pass.begin() + 2);
  EXPECT_EQ(expected, storyTexts());
  // The first sleep ends on the first turn of a second ten seconds on; the
  // others, begun just after a turn, last their whole seconds.
  const long long first = between("Going to sleep for: 10 on iteration 2", "Testing agent masks on cycle 2");
  EXPECT_GT(first, 8950);
  EXPECT_LE(first, 10300);
  EXPECT_NEAR(5000, between("Going to sleep for: 5 on iteration 3", "Testing agent masks on cycle 3"), 600);
  EXPECT_NEAR(5000, between("Going to sleep for: 5 on iteration 4", "Testing agent masks on cycle 4"), 600);
  EXPECT_NEAR(10000, between("Going to sleep for: 10 on iteration 6", "Testing agent masks on cycle 6"), 600);
}

TEST_F(AvailabilityCycle, AgentsManagedDuringASleepAreScheduledWhenItEnds) {
  start();
  ASSERT_TRUE(waitForStory("Going to sleep for: 10 on iteration 2\n", 1, 5000));
  maker.make("cycle.fifteen", 15, false);
  maker.make("cycle.ten", 10, false);
  ASSERT_TRUE(waitForStory("Going to sleep for: 5 on iteration 3\n", 1, 15000));
  stop();
  EXPECT_EQ(Story({"Starting cycle loop: cycle count: 2\n", "Going to sleep for: 10 on iteration 2\n",
                   "Dirty condition detected: new cycles 7 on cycle 2\n", "Testing agent masks on cycle 2\n",
                   "Pushing agent check based on mask on iteration 2 -- cycle.ten\n",
                   "Going to sleep for: 5 on iteration 3\n"}),
            storyTexts());
}

TEST_F(AvailabilityCycle, AScheduleThatShrankBelowTheCycleReachedEndsThePass) {
  maker.make("cycle.ten", 10, false);
  maker.make("cycle.fifteen", 15, false);
  start();
  ASSERT_TRUE(waitForStory("Going to sleep for: 5 on iteration 3\n", 1, 15000));
  maker.removeAll();
  ASSERT_TRUE(waitForStory("Going to sleep for: 10 on iteration 2\n", 2, 10000));
  stop();
  Story texts = storyTexts();
  ASSERT_LE(5u, texts.size());
  EXPECT_EQ(
      Story({"Going to sleep for: 5 on iteration 3\n", "Dirty condition detected: new cycles 2 on cycle 3\n",
             "Starting cycle loop: cycle count: 2\n", "Going to sleep for: 10 on iteration 2\n"}),
      Story(texts.end() - 4, texts.end()));
  EXPECT_EQ(0, traced("Testing agent masks on cycle 3\n"));
}

TEST_F(AvailabilityCycle, ADownAgentFoundByTheCycleReachesTheHostAsAnAlertWithItsScriptsMessage) {
  proctest::copyProgram("/bin/sleep", maker.files.file("qorcycle"));  // installed, not running
  maker.make("cycle.down", 5, true,
             captest::script("availabilityStatusScript", "exit 3",
                             "<returnCode type=\"Error\" msg_id=\"status said down\">3</returnCode>"));
  service = QOR_QueryService::initQueryService();
  service->registerLogListener(&logs);
  service->registerAlertListener(&alerts);
  service->startQueryService();
  const std::string text =
      "Test agent Operational Event: Agent stopped abnormally. Details: status said down.";
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        for (const std::string& log : logs.snapshot()) {
          if (log == text) return true;
        }
        return false;
      },
      10000));
  ASSERT_TRUE(qortest::waitFor([&] { return !alerts.snapshot().empty(); }, 2000));
  stop();
  EXPECT_EQ(agent_stopped_abnormally, alerts.snapshot().front().first);
  EXPECT_EQ(L"status said down", alerts.snapshot().front().second);
  EXPECT_EQ(1, traced("Pushing agent check based on mask on iteration 1 -- cycle.down\n"));
}

TEST_F(AvailabilityCycle, AShutdownDuringTheSleepCancelsTheThread) {
  start();
  ASSERT_TRUE(qortest::waitFor([] { return Controller::getController()->isAVSleeping(); }, 5000));
  long long begun = qortest::nowMs();
  stop();
  EXPECT_LT(qortest::nowMs() - begun, 5000);
  EXPECT_EQ(1, traced("AV thread cancelled.\n"));
  EXPECT_EQ(0, traced("Shutdown AV complete message received.\n"));
  EXPECT_EQ(1, traced("Starting cycle loop: "));
}

TEST_F(AvailabilityCycle, AShutdownDuringTheWalkStopsAtTheNextAgentDueAndReleasesTheList) {
  maker.make("cycle.first", 5, false);
  maker.make("cycle.second", 5, false);
  start();
  ASSERT_TRUE(waitForStory("Going to sleep for: 5 on iteration 1\n", 1, 5000));
  // The walk waits for the list, which this thread holds, until the shutdown has begun.
  ManagedProcessList* list = AgentMaker::list();
  ASSERT_TRUE(list->lockList());
  ASSERT_TRUE(waitForStory("Testing agent masks on cycle 1\n", 1, 10000));
  std::thread stopper([&] { stop(); });
  bool shuttingDown = qortest::waitFor([] { return Controller::getController()->isShuttingDown(); }, 5000);
  list->unlockList();
  stopper.join();
  ASSERT_TRUE(shuttingDown);
  EXPECT_EQ(1, traced("Pushing agent check based on mask on iteration 1 -- cycle.first\n"));
  EXPECT_EQ(0, traced("Pushing agent check based on mask on iteration 1 -- cycle.second\n"));
  EXPECT_EQ(0, traced("Event Type. rc=20"));
  EXPECT_EQ(1, traced("Shutdown AV complete message received.\n"));
  EXPECT_EQ(0, traced("AV thread cancelled.\n"));
  // The walk gave the list back.
  std::atomic<bool> locked{false};
  std::thread taker([&] {
    locked = list->lockList();
    list->unlockList();
  });
  EXPECT_TRUE(qortest::waitFor([&] { return locked.load(); }, 2000));
  taker.join();
}
