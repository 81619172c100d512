// The command workers: a start, stop or recycle run on a thread of its own
// with a deep copy of its event, and the result event that it raises for the
// live agent, or drops when that agent has gone or moved on. Agents come from
// real CAP files whose scripts are shell scripts of a lab directory that log
// their runs. No service runs, so what a worker raises stays on the command
// queue, where each test takes it off.
#include "core/qorworkers.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "cap/agentlab.h"
#include "cap/capfiles.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/controlleraccess.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorcmdunx.h"
#include "watchdog/qorwd.h"

namespace {

// The events raised onto the command queue, in order; they own nothing.
using Raised = std::vector<std::unique_ptr<AgentOpEvent>>;

// How many threads this process has, as /proc shows them.
int threadCount() {
  int count = 0;
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return -1;
  while (struct dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(tasks);
  return count;
}

// One agent made from a real CAP file as the service makes it, with its
// Watchdog and in the managed list; its start, stop and config scripts are
// scripts of the lab. The program that it supervises is a copy of sleep under
// the name "qorwkd", which runs only when a test starts it.
class CommandWorker : public ::testing::Test {
 protected:
  void SetUp() override {
    // Read by the first command manager of the process and by each Watchdog
    // as it is made: short commands and a single start attempt.
    MIN_CMD_TIMEOUT = 3;
    unsetenv("QOR_CMD_TIMEOUT");
    WD_START_RETRY_COUNT = 0;
    WD_START_RETRY_INTERVAL = 1;
    qortest::traceTo(traces.file("trace"), QOR_TL_DETAIL | QOR_TL_QUEUE | QOR_TL_ERROR);
    controller()->setCAPDirPaths({captest::wide(caps.path() + "/")});
    proctest::copyProgram("/bin/sleep", exe);
    subagent.id = "work.agent";
    subagent.procName = "<procName>qorwkd</procName>";
    subagent.agentPath = "<agentPath>" + exe + "</agentPath>";
  }

  void TearDown() override {
    // No worker may outlive the agents that it looks for.
    EXPECT_TRUE(qortest::waitFor([&] { return workers()->isVectorEmpty(); }, 20000));
    ControllerTestAccess::setShuttingDown(false);
    ManagedProcessList* list = controller()->getManagedEndpointProcesses();
    list->lockList();
    list->clear();
    list->unlockList();
    take();
    drain(controller()->getMessageHandler());
    agents.clear();
    for (int pid : leftovers) proctest::killProcess(pid);
    // Start scripts left running once their program was found.
    auto* manager = static_cast<QorCmdUNIX*>(GetCmdManager());
    for (int pid : manager->getDefunctProcesses()) proctest::killProcess(pid);
    qortest::waitFor(
        [&] {
          manager->cleanUpDefunctProcesses();
          return manager->getDefunctProcesses().empty();
        },
        5000);
  }

  static Controller* controller() { return Controller::getController(); }
  static WorkerThreadVector* workers() { return controller()->getWorkerThreads(); }

  // A script of the lab that notes each run in <name>.log, then runs `body`.
  std::string labScript(const std::string& name, const std::string& body) {
    const std::string path = lab.file(name + ".sh");
    qortest::writeFile(path, "#!/bin/sh\necho ran >> " + lab.file(name + ".log") + "\n" + body + "\n");
    qortest::makeExecutable(path);
    return path;
  }
  int runs(const std::string& name) {
    return qortest::countOccurrences(qortest::readFile(lab.file(name + ".log")), "ran\n");
  }

  // The scripts of the CAP file. An exit code of 3 means the start was
  // refused, 4 the stop, 5 the configuration, each with a message of its own.
  void startScript(const std::string& body) {
    subagent.startScript = captest::script(
        "startScript", labScript("start", body),
        "<returnCode type=\"Error\" msg_id=\"" + std::string(kStartRefused) + "\">3</returnCode>");
  }
  void stopScript(const std::string& body) {
    subagent.stopScript = captest::script(
        "stopScript", labScript("stop", body),
        "<returnCode type=\"Error\" msg_id=\"" + std::string(kStopRefused) + "\">4</returnCode>");
  }
  void configScript(const std::string& body) {
    subagent.configScript = captest::script(
        "configScript", labScript("config", body),
        "<returnCode type=\"Error\" msg_id=\"" + std::string(kConfigRefused) + "\">5</returnCode>");
  }

  Agent* liveAgent(OperatingStates state) {
    Policy* policy = new Policy();
    XMLprocessor processor;
    EXPECT_EQ(XML_OK, captest::parseText(processor, caps, captest::document(subagent), *policy,
                                         "agent" + std::to_string(agents.size()) + ".xml"));
    Agent* agent = new Agent();
    agents.emplace_back(agent);
    agent->setIdentityFrom(policy);
    agent->setInstanceProcName(policy->getProcName());
    agent->setManagedState(Managed);
    agent->setOperatingState(state);
    Watchdog* watchdog = new Watchdog();
    watchdog->setAgent(agent);
    agent->setWatchdog(watchdog);
    ManagedProcessList* list = controller()->getManagedEndpointProcesses();
    list->lockList();
    list->push_back(agent);
    list->unlockList();
    return agent;
  }

  // The event that the state machine hands to the Watchdog's initiate_ operations.
  static void ask(AgentOpEvent& event, Agent* agent, int id, int opState, bool incrementFlag = false) {
    event.setAgent(agent);
    event.setEventTypeID(id);
    event.setOpState(opState);
    event.setIncrementFlag(incrementFlag);
  }

  // Hands the command to a worker and waits until the worker has left the vector.
  void runWorker(TEOEvents command, AgentOpEvent& event) {
    ASSERT_TRUE(controller()->cmdExecutionThread(command, &event));
    ASSERT_TRUE(qortest::waitFor([&] { return workers()->isVectorEmpty(); }, 20000));
  }

  // What the workers raised so far, taken off the command queue.
  static Raised take() {
    Raised raised;
    CommandHandler* queue = controller()->getCommandHandler();
    queue->lockEventQueue();
    while (Event* event = queue->popEvent()) {
      AgentOpEvent* result = dynamic_cast<AgentOpEvent*>(event);
      EXPECT_NE(nullptr, result) << "a worker raised an event of another class, id "
                                 << event->getEventTypeID();
      if (result == nullptr) {
        delete event;
        continue;
      }
      raised.emplace_back(result);
    }
    queue->unlockEventQueue();
    return raised;
  }
  static void drain(EventHandler* queue) {
    queue->lockEventQueue();
    while (Event* event = queue->popEvent()) delete event;
    queue->unlockEventQueue();
  }

  // The single result of one worker.
  std::unique_ptr<AgentOpEvent> onlyResult() {
    Raised raised = take();
    EXPECT_EQ(1u, raised.size());
    if (raised.size() != 1) return nullptr;
    return std::move(raised.front());
  }

  std::string trace() { return qortest::readFile(traces.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }

  static constexpr const char* kStartRefused = "start refused";
  static constexpr const char* kStopRefused = "stop refused";
  static constexpr const char* kConfigRefused = "config refused";

  qortest::TempDir caps;
  qortest::TempDir lab;
  qortest::TempDir traces;
  std::string exe = lab.file("qorwkd");
  captest::Subagent subagent;
  std::vector<std::unique_ptr<Agent>> agents;
  std::vector<int> leftovers;  // programs that a start script left running
};

std::wstring wide(const char* text) { return captest::wide(text); }

}  // namespace

// ---- Handing a command to a worker ----------------------------------------------

TEST_F(CommandWorker, NoWorkerStartsOnceShutdownHasBegun) {
  stopScript("exit 0");
  Agent* live = liveAgent(OpStopping);
  AgentOpEvent event;
  ask(event, live, agent_stop_cmd, OpStopping);
  ControllerTestAccess::setShuttingDown(true);
  const int threads = threadCount();

  EXPECT_FALSE(controller()->cmdExecutionThread(agent_stop_cmd, &event));
  EXPECT_EQ(threads, threadCount());
  EXPECT_TRUE(workers()->isVectorEmpty());
  EXPECT_EQ(1, traced("Start incomplete -- exiting shutdown in progress."));
  EXPECT_EQ(0, runs("stop"));
  EXPECT_TRUE(take().empty());
}

TEST_F(CommandWorker, AnUnsupportedCommandIsRefusedAndStartsNothing) {
  startScript("exit 0");
  stopScript("exit 0");
  Agent* live = liveAgent(OpStarting);
  AgentOpEvent event;
  ask(event, live, agent_start_cmd, OpStarting);
  const int threads = threadCount();

  EXPECT_FALSE(controller()->cmdExecutionThread(agent_started, &event));
  EXPECT_EQ(threads, threadCount());
  EXPECT_TRUE(workers()->isVectorEmpty());
  EXPECT_EQ(1, traced("Unsupported command attempted."));
  // The caller keeps its event as it was.
  EXPECT_EQ(live, event.getAgent());
  EXPECT_FALSE(event.isAgentOwned());
  EXPECT_EQ(agent_start_cmd, event.getEventTypeID());
  EXPECT_EQ(0, runs("start"));
  EXPECT_EQ(0, runs("stop"));
  EXPECT_TRUE(take().empty());
}

TEST_F(CommandWorker, TheCallerKeepsItsEventWhileTheWorkerActsOnACopy) {
  stopScript("exit 0");
  Agent* live = liveAgent(OpStopping);
  AgentOpEvent event;
  ask(event, live, agent_stop_cmd, OpStopping);
  runWorker(agent_stop_cmd, event);

  EXPECT_EQ(1, runs("stop"));
  EXPECT_EQ(agent_stop_cmd, event.getEventTypeID());
  EXPECT_EQ(live, event.getAgent());
  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_NE(&event, result.get());
  EXPECT_EQ(agent_stopped, result->getEventTypeID());
}

// ---- What a stop becomes ------------------------------------------------------------

TEST_F(CommandWorker, AStopAskedByAnOperatorThatSucceedsBecomesAgentStopped) {
  stopScript("exit 0");
  Agent* live = liveAgent(OpStopping);
  AgentOpEvent event;
  ask(event, live, agent_stop_cmd, OpStopping);
  runWorker(agent_stop_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_stopped, result->getEventTypeID());
  EXPECT_EQ(OpStopping, result->getOpState());
  EXPECT_EQ(live, result->getAgent());
  EXPECT_FALSE(result->isAgentOwned());
  EXPECT_EQ(1, runs("stop"));
  EXPECT_EQ(1, traced("currstate: 6, agstate=6 \n"));
}

TEST_F(CommandWorker, AStopForAFailureOrALimitThatSucceedsBecomesAStartAfterFailure) {
  stopScript("exit 0");
  Agent* live = liveAgent(OpStopping);
  for (TEOEvents id : {agent_stopped_abnormally, agent_memory_exceeded, agent_cpu_exceeded}) {
    SCOPED_TRACE(id);
    AgentOpEvent event;
    ask(event, live, id, OpStopping);
    runWorker(agent_stop_cmd, event);
    auto result = onlyResult();
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(agent_start_after_failure, result->getEventTypeID());
    EXPECT_EQ(OpStopping, result->getOpState());
    EXPECT_EQ(live, result->getAgent());
  }
  EXPECT_EQ(3, runs("stop"));
}

TEST_F(CommandWorker, AStopWithAnyOtherIdThatSucceedsBecomesStoppedAbnormally) {
  stopScript("exit 0");
  Agent* live = liveAgent(OpStopping);
  for (TEOEvents id : {agent_start_cmd, agent_stopped, agent_initial_start, agent_start_after_failure}) {
    SCOPED_TRACE(id);
    AgentOpEvent event;
    ask(event, live, id, OpStopping);
    runWorker(agent_stop_cmd, event);
    auto result = onlyResult();
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(agent_stopped_abnormally, result->getEventTypeID());
  }
  EXPECT_EQ(4, runs("stop"));
}

TEST_F(CommandWorker, AFailedStopBecomesStopFailedWithTheScriptsMessage) {
  stopScript("exit 4");
  Agent* live = liveAgent(OpStopping);
  AgentOpEvent event;
  ask(event, live, agent_stop_cmd, OpStopping);
  runWorker(agent_stop_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_stop_failed, result->getEventTypeID());
  EXPECT_EQ(wide(kStopRefused), result->getUserMessage());
  EXPECT_EQ(OpStopping, result->getOpState());
  // Outside a recycle the worker leaves the states alone.
  EXPECT_EQ(OpStopping, live->getOperatingState());
}

// ---- Recycles -----------------------------------------------------------------------

TEST_F(CommandWorker, ARecycleWhoseStopFailsBecomesStopFailedInStateStoppingAndNeverStarts) {
  stopScript("exit 4");
  startScript("exit 0");
  Agent* live = liveAgent(OpStopping);
  AgentOpEvent event;
  ask(event, live, agent_recycle_cmd, OpStarting);
  runWorker(agent_recycle_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_stop_failed, result->getEventTypeID());
  EXPECT_EQ(OpStopping, result->getOpState());
  EXPECT_EQ(wide(kStopRefused), result->getUserMessage());
  EXPECT_EQ(live, result->getAgent());
  EXPECT_EQ(1, runs("stop"));
  EXPECT_EQ(0, runs("start"));
  // A recycle whose stop failed still expects its agent stopping.
  EXPECT_EQ(1, traced("currstate: 6, agstate=6 \n"));
}

TEST_F(CommandWorker, ARecycleWhoseStopFailsPutsTheWorkersCopyOfTheAgentInStateStopping) {
  stopScript("exit 4");
  startScript("exit 0");
  Agent* live = liveAgent(OpStopped);
  // The worker's copy, kept by the test: the event does not own it, and with
  // the live agent in state 2 the result is not delivered, so the copy
  // outlives the worker and can be looked at.
  std::unique_ptr<Agent> copy(new Agent(*live, false));
  ASSERT_NE(nullptr, copy->getWatchdog());
  AgentOpEvent* event = new AgentOpEvent();
  event->setAgent(copy.get(), false);
  event->setEventTypeID(agent_recycle_cmd);
  event->setOpState(OpStarting);
  controller()->commandExecution(agent_recycle_cmd, event);

  EXPECT_EQ(OpStopping, copy->getOperatingState());
  EXPECT_EQ(OpStopped, live->getOperatingState());
  EXPECT_EQ(0, runs("start"));
  EXPECT_TRUE(take().empty());
  EXPECT_EQ(1, traced("currstate: 2, agstate=6 \n"));
  EXPECT_EQ(1, traced("increment flag: 0, eventID: 11\n"));
  EXPECT_EQ(1, traced("No update agent required. Agent already in correct state qorwkd()\n"));
  // The test's thread is no worker of the vector.
  EXPECT_EQ(1, traced("Thread not removed from list -- error.\n"));
}

TEST_F(CommandWorker, ARecycleWhoseStopSucceedsAndWhoseStartFailsBecomesStartFailedNotRestartFailed) {
  stopScript("exit 0");
  startScript("exit 3");
  Agent* live = liveAgent(OpStarting);
  AgentOpEvent event;
  ask(event, live, agent_recycle_cmd, OpStarting);
  event.suppressMessages();
  runWorker(agent_recycle_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_start_failed, result->getEventTypeID());
  EXPECT_EQ(7, result->getStartStatus());
  EXPECT_EQ(wide(kStartRefused), result->getUserMessage());
  EXPECT_FALSE(result->messagesSuppressed());
  EXPECT_EQ(OpStarting, result->getOpState());
  EXPECT_EQ(live, result->getAgent());
  EXPECT_EQ(1, runs("stop"));
  EXPECT_EQ(1, runs("start"));
  // After its stop a recycle expects its agent starting.
  EXPECT_EQ(1, traced("currstate: 3, agstate=3 \n"));
}

TEST_F(CommandWorker, ARecycleThatSucceedsCarriesTheCopysCleanProcessIdToTheLiveAgent) {
  stopScript("exit 0");
  startScript("exit 0");
  Agent* live = liveAgent(OpStarting);
  live->setProcID(captest::kNoSuchProcess);
  AgentOpEvent event;
  ask(event, live, agent_recycle_cmd, OpStarting);
  runWorker(agent_recycle_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_started, result->getEventTypeID());
  EXPECT_EQ(OpStarting, result->getOpState());
  // The stop cleared the copy's process id; the start script, having return
  // codes of its own, does not look for the program.
  EXPECT_EQ(0, live->getProcID());
  EXPECT_EQ(1, runs("stop"));
  EXPECT_EQ(1, runs("start"));
}

TEST_F(CommandWorker, ARecycleThatFindsItsAgentRunningIsDeliveredAsStartingEvenWithoutIncrementFlag) {
  stopScript("exit 0");
  startScript("exit 0");
  Agent* live = liveAgent(OpRunning);
  AgentOpEvent event;
  ask(event, live, agent_recycle_cmd, OpRunning);
  runWorker(agent_recycle_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_started, result->getEventTypeID());
  EXPECT_EQ(OpStarting, result->getOpState());
  EXPECT_EQ(1, traced("increment flag: 0, eventID: 7\n"));
}

TEST_F(CommandWorker, ARecycleWhoseDependentIsMissingBecomesRestartFailedWithoutStarting) {
  subagent.dependentAgent = "<dependentAgent>missing.agent</dependentAgent>";
  stopScript("exit 0");
  startScript("exit 0");
  Agent* live = liveAgent(OpStarting);
  AgentOpEvent event;
  ask(event, live, agent_recycle_cmd, OpStarting);
  event.suppressMessages();
  runWorker(agent_recycle_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_restart_failed, result->getEventTypeID());
  EXPECT_EQ(1, result->getStartStatus());
  EXPECT_FALSE(result->messagesSuppressed());
  EXPECT_EQ(live, result->getAgent());
  EXPECT_EQ(1, runs("stop"));
  EXPECT_EQ(0, runs("start"));
  EXPECT_EQ(1, traced("Dependent agent id missing.agent not found\n"));
  // Without the start the worker still expects the state of a stop.
  EXPECT_EQ(1, traced("currstate: 3, agstate=6 \n"));
  EXPECT_EQ(1, traced("increment flag: 0, eventID: 6\n"));
}

// ---- What a start becomes -----------------------------------------------------------

TEST_F(CommandWorker, AFailedStartAfterAFirstStartOrAFailureBecomesRestartFailedWithStatusAndMessage) {
  startScript("exit 3");
  Agent* live = liveAgent(OpStarting);
  for (TEOEvents id : {agent_initial_start, agent_start_after_failure}) {
    SCOPED_TRACE(id);
    AgentOpEvent event;
    ask(event, live, id, OpStarting);
    event.suppressMessages();
    runWorker(agent_start_cmd, event);
    auto result = onlyResult();
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(agent_restart_failed, result->getEventTypeID());
    EXPECT_EQ(7, result->getStartStatus());
    EXPECT_EQ(wide(kStartRefused), result->getUserMessage());
    EXPECT_FALSE(result->messagesSuppressed());
    EXPECT_EQ(OpStarting, result->getOpState());
    EXPECT_EQ(live, result->getAgent());
  }
  EXPECT_EQ(2, runs("start"));
}

TEST_F(CommandWorker, AFailedStartAskedByAnOperatorBecomesStartFailedWithStatusAndMessage) {
  startScript("exit 3");
  Agent* live = liveAgent(OpStarting);
  AgentOpEvent event;
  ask(event, live, agent_start_cmd, OpStarting);
  event.suppressMessages();
  runWorker(agent_start_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_start_failed, result->getEventTypeID());
  EXPECT_EQ(7, result->getStartStatus());
  EXPECT_EQ(wide(kStartRefused), result->getUserMessage());
  EXPECT_FALSE(result->messagesSuppressed());
  EXPECT_EQ(1, runs("start"));
}

TEST_F(CommandWorker, AStartWhoseConfigScriptFailsCarriesTheConfigStatusAndMessage) {
  configScript("exit 5");
  startScript("exit 0");
  Agent* live = liveAgent(OpStarting);
  AgentOpEvent event;
  ask(event, live, agent_start_cmd, OpStarting);
  runWorker(agent_start_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_start_failed, result->getEventTypeID());
  EXPECT_EQ(5, result->getStartStatus());
  EXPECT_EQ(wide(kConfigRefused), result->getUserMessage());
  EXPECT_EQ(1, runs("config"));
  EXPECT_EQ(0, runs("start"));
}

TEST_F(CommandWorker, AWorkerRaisesOneResultOnlyAfterTheLastStartAttempt) {
  WD_START_RETRY_COUNT = 1;  // before the Watchdog is made, which reads it
  startScript("exit 3");
  Agent* live = liveAgent(OpStarting);
  AgentOpEvent event;
  ask(event, live, agent_start_cmd, OpStarting);
  runWorker(agent_start_cmd, event);

  EXPECT_EQ(2, runs("start"));
  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_start_failed, result->getEventTypeID());
  EXPECT_EQ(7, result->getStartStatus());
}

TEST_F(CommandWorker, AStartThatFindsItsProgramCarriesOnlyTheProcessIdToTheLiveAgent) {
  // Without return codes the start script is done once the program runs.
  subagent.startScript =
      captest::script("startScript", labScript("start", "exec " + exe + " 30 2>/dev/null"));
  Agent* live = liveAgent(OpStarting);
  ASSERT_EQ(0, live->getProcID());
  AgentOpEvent event;
  ask(event, live, agent_start_cmd, OpStarting);
  runWorker(agent_start_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  const int pid = live->getProcID();
  leftovers.push_back(pid);
  EXPECT_TRUE(proctest::runsExecutable(pid, exe)) << "pid " << pid;
  EXPECT_EQ(agent_started, result->getEventTypeID());
  EXPECT_EQ(live, result->getAgent());
  EXPECT_FALSE(result->isAgentOwned());
  // What the copy learnt about the process beside its id stays with the copy.
  EXPECT_EQ(L"", live->getCmdLine());
  EXPECT_EQ(L"", live->getUserName());
  EXPECT_EQ(OpStarting, live->getOperatingState());
}

// ---- Whether a result is delivered --------------------------------------------------

TEST_F(CommandWorker, AResultForAnAgentDeletedMeanwhileIsDroppedAndTheWorkerStillLeavesTheVector) {
  const std::string go = lab.file("go");
  stopScript("while [ ! -f " + go + " ]; do sleep 0.1; done; exit 0");
  Agent* live = liveAgent(OpStopping);
  live->setInstanceName(L"blue");
  AgentOpEvent event;
  ask(event, live, agent_stop_cmd, OpStopping);
  ASSERT_TRUE(controller()->cmdExecutionThread(agent_stop_cmd, &event));
  ASSERT_TRUE(qortest::waitFor([&] { return runs("stop") == 1; }, 5000));
  EXPECT_FALSE(workers()->isVectorEmpty());

  // The agent leaves the list while the script runs, as the command handler
  // takes it out.
  ManagedProcessList* list = controller()->getManagedEndpointProcesses();
  ASSERT_TRUE(list->lockList());
  list->clear();
  list->unlockList();
  event.setAgent(nullptr);
  agents.clear();
  qortest::writeFile(go, "");

  ASSERT_TRUE(qortest::waitFor([&] { return workers()->isVectorEmpty(); }, 10000));
  EXPECT_TRUE(take().empty());
  EXPECT_EQ(1, traced("No update agent required. Agent not found / Process not found qorwkd(blue)\n"));
  EXPECT_EQ(0, traced("Thread not removed from list -- error.\n"));
}

TEST_F(CommandWorker, AResultForAnAgentInTheExpectedStateIsDeliveredWithItsOpStateUnchanged) {
  startScript("exit 0");
  stopScript("exit 0");
  Agent* starting = liveAgent(OpStarting);
  Agent* stopping = liveAgent(OpStopping);
  // opStates that no row of the decision would set, so that a change shows.
  AgentOpEvent start;
  ask(start, starting, agent_start_cmd, OpStopped);
  runWorker(agent_start_cmd, start);
  AgentOpEvent stop;
  ask(stop, stopping, agent_stop_cmd, OpManuallyStopped);
  runWorker(agent_stop_cmd, stop);

  Raised raised = take();
  ASSERT_EQ(2u, raised.size());
  EXPECT_EQ(agent_started, raised[0]->getEventTypeID());
  EXPECT_EQ(OpStopped, raised[0]->getOpState());
  EXPECT_EQ(starting, raised[0]->getAgent());
  EXPECT_EQ(agent_stopped, raised[1]->getEventTypeID());
  EXPECT_EQ(OpManuallyStopped, raised[1]->getOpState());
  EXPECT_EQ(stopping, raised[1]->getAgent());
  EXPECT_EQ(1, traced("currstate: 3, agstate=3 \n"));
  EXPECT_EQ(1, traced("currstate: 6, agstate=6 \n"));
  EXPECT_EQ(0, traced("increment flag:"));
}

TEST_F(CommandWorker, AStartedResultForAnAgentAlreadyRunningIsNotDeliveredWithoutIncrementFlag) {
  startScript("exit 0");
  Agent* live = liveAgent(OpRunning);
  live->setInstanceName(L"blue");
  AgentOpEvent event;
  ask(event, live, agent_start_cmd, OpStarting);
  runWorker(agent_start_cmd, event);

  EXPECT_TRUE(take().empty());
  EXPECT_EQ(1, runs("start"));
  EXPECT_EQ(1, traced("currstate: 4, agstate=3 \n"));
  EXPECT_EQ(1, traced("increment flag: 0, eventID: 7\n"));
  EXPECT_EQ(1, traced("No update agent required. Agent already in correct state qorwkd(blue)\n"));
  EXPECT_EQ(OpRunning, live->getOperatingState());
}

TEST_F(CommandWorker, AStartedResultForAnAgentAlreadyRunningIsDeliveredAsStartingWithIncrementFlag) {
  startScript("exit 0");
  Agent* live = liveAgent(OpRunning);
  AgentOpEvent event;
  ask(event, live, agent_start_after_failure, OpStopping, true);
  runWorker(agent_start_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_started, result->getEventTypeID());
  EXPECT_EQ(OpStarting, result->getOpState());
  EXPECT_TRUE(result->getIncrementFlag());
  EXPECT_EQ(live, result->getAgent());
  EXPECT_EQ(1, traced("increment flag: 1, eventID: 7\n"));
}

TEST_F(CommandWorker, AFailedResultForAnAgentAlreadyRunningIsDeliveredAsStarting) {
  startScript("exit 3");
  Agent* live = liveAgent(OpRunning);
  AgentOpEvent event;
  ask(event, live, agent_start_cmd, OpStopping);
  runWorker(agent_start_cmd, event);

  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_start_failed, result->getEventTypeID());
  EXPECT_EQ(OpStarting, result->getOpState());
}

TEST_F(CommandWorker, AResultForAnAgentAnOperatorStoppedMeanwhileIsDeliveredAsStoppingUnlessItSaysStopped) {
  startScript("exit 0");
  stopScript("exit 0");
  Agent* live = liveAgent(OpManuallyStopped);
  AgentOpEvent start;
  ask(start, live, agent_start_cmd, OpStarting);
  runWorker(agent_start_cmd, start);
  auto started = onlyResult();
  ASSERT_NE(nullptr, started);
  EXPECT_EQ(agent_started, started->getEventTypeID());
  EXPECT_EQ(OpStopping, started->getOpState());
  EXPECT_EQ(1, traced("increment flag: 0, eventID: 7\n"));

  // A stop that already says the agent stopped is not raised a second time.
  AgentOpEvent stop;
  ask(stop, live, agent_stop_cmd, OpRunning);
  runWorker(agent_stop_cmd, stop);
  EXPECT_TRUE(take().empty());
  EXPECT_EQ(1, traced("increment flag: 0, eventID: 10\n"));
  EXPECT_EQ(1, traced("No update agent required. Agent already in correct state qorwkd()\n"));
}

TEST_F(CommandWorker, AStartedResultForAnAgentStoppingMeanwhileIsDeliveredAsStartingOnlyWithIncrementFlag) {
  startScript("exit 0");
  Agent* live = liveAgent(OpStopping);
  AgentOpEvent counted;
  ask(counted, live, agent_start_after_failure, OpStopped, true);
  runWorker(agent_start_cmd, counted);
  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_started, result->getEventTypeID());
  EXPECT_EQ(OpStarting, result->getOpState());

  AgentOpEvent uncounted;
  ask(uncounted, live, agent_start_cmd, OpStopped);
  runWorker(agent_start_cmd, uncounted);
  EXPECT_TRUE(take().empty());
  EXPECT_EQ(1, traced("No update agent required. Agent already in correct state qorwkd()\n"));
  EXPECT_EQ(2, runs("start"));
}

TEST_F(CommandWorker, ARestartFailedResultIsDeliveredWhateverTheAgentsStateWhileStartFailedIsNot) {
  startScript("exit 3");
  Agent* live = liveAgent(OpStopped);
  AgentOpEvent restart;
  ask(restart, live, agent_initial_start, OpStarting);
  restart.suppressMessages();
  runWorker(agent_start_cmd, restart);
  auto result = onlyResult();
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(agent_restart_failed, result->getEventTypeID());
  EXPECT_EQ(OpStarting, result->getOpState());
  EXPECT_FALSE(result->messagesSuppressed());
  EXPECT_EQ(1, traced("increment flag: 0, eventID: 6\n"));

  AgentOpEvent commanded;
  ask(commanded, live, agent_start_cmd, OpStarting);
  runWorker(agent_start_cmd, commanded);
  EXPECT_TRUE(take().empty());
  EXPECT_EQ(1, traced("increment flag: 0, eventID: 13\n"));
  EXPECT_EQ(1, traced("No update agent required. Agent already in correct state qorwkd()\n"));
}

// ---- Shutdown -----------------------------------------------------------------------

TEST_F(CommandWorker, AResultArrivingAfterShutdownBeganIsDropped) {
  const std::string go = lab.file("go");
  stopScript("while [ ! -f " + go + " ]; do sleep 0.1; done; exit 0");
  Agent* live = liveAgent(OpStopping);
  AgentOpEvent event;
  ask(event, live, agent_stop_cmd, OpStopping);
  ASSERT_TRUE(controller()->cmdExecutionThread(agent_stop_cmd, &event));
  ASSERT_TRUE(qortest::waitFor([&] { return runs("stop") == 1; }, 5000));

  ControllerTestAccess::setShuttingDown(true);
  qortest::writeFile(go, "");
  ASSERT_TRUE(qortest::waitFor([&] { return workers()->isVectorEmpty(); }, 10000));
  EXPECT_TRUE(take().empty());
  EXPECT_EQ(0, traced("currstate:"));
  EXPECT_EQ(0, traced("Thread not removed from list -- error.\n"));
}

TEST_F(CommandWorker, AShutdownCancelsAWorkerInItsStartScriptAndNothingIsDelivered) {
  const std::string pidFile = lab.file("start.pid");
  // Long enough to outlast the test; the shell becomes the sleep, so that its
  // id is the one that the script wrote.
  startScript("echo $$ > " + pidFile + "; exec sleep 30");
  subagent.startScript = captest::script("startScript", "exec " + lab.file("start.sh"));
  Agent* live = liveAgent(OpStarting);
  AgentOpEvent event;
  ask(event, live, agent_start_cmd, OpStarting);
  const int before = threadCount();
  // The worker's copy is freed as the cancel unwinds it: a sanitizer build's
  // leak check at the end of this test would find it otherwise.
  ASSERT_TRUE(controller()->cmdExecutionThread(agent_start_cmd, &event));
  // A sanitizer's runtime may start a thread of its own beside the first worker.
  const int withWorker = threadCount();
  EXPECT_LT(before, withWorker);
  ASSERT_TRUE(qortest::waitFor([&] { return !qortest::readFile(pidFile).empty(); }, 5000));
  const int script = std::stoi(qortest::readFile(pidFile));

  workers()->cancelThreads();
  EXPECT_TRUE(workers()->isVectorEmpty());
  // The worker is gone for good once its thread has ended; uncancelled, it
  // would have given up on the script after 3 seconds and raised a failure.
  EXPECT_TRUE(qortest::waitFor([&] { return threadCount() == withWorker - 1; }, 6000));
  EXPECT_TRUE(take().empty());
  EXPECT_EQ(0, traced("currstate:"));
  EXPECT_EQ(0, traced("Removing thread from vector:"));
  EXPECT_EQ(OpStarting, live->getOperatingState());

  proctest::killProcess(script);
  waitpid(script, nullptr, 0);
}
