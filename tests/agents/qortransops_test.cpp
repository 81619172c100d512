// The operating rows of the agent state machine: what an event does to a
// managed agent that has its Watchdog, chosen by the state the event was
// raised in and its id. Real CAP files, real start and stop scripts run by
// real command workers, real programs in the process table. The test's thread
// plays the command handler: it takes the events off the command queue in
// order and lets each apply itself with the list locked and pass its message
// on, or not; the workers run on threads of their own, as in the service.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "agents/qoragt.h"
#include "cap/capfiles.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "support/queues.h"
#include "watchdog/proctest.h"
#include "watchdog/qorwd.h"

namespace {

// One event as the command handler met it: its id and opState when taken off
// the queue, and its id once applied.
struct Handled {
  int id;
  int opState;
  int idAfter;
  bool operator==(const Handled& other) const {
    return id == other.id && opState == other.opState && idAfter == other.idAfter;
  }
};

void PrintTo(const Handled& handled, std::ostream* out) {
  *out << "(" << handled.id << " in " << handled.opState << " -> " << handled.idAfter << ")";
}

using HandledList = std::vector<Handled>;

// What the listeners are told: one event of the message queue.
struct Heard {
  int id;
  std::wstring text;
};

std::vector<int> idsOf(const std::vector<Heard>& heard) {
  std::vector<int> ids;
  for (const Heard& message : heard) ids.push_back(message.id);
  return ids;
}

// The files of one agent: its program, its scripts and what they leave behind.
struct AgentFiles {
  std::string exe;       // a copy of sleep under the agent's process name
  std::string startLog;  // a line per run of the start script
  std::string stopLog;   // a line per run of the stop script, and "marked" when the
                         // watchdog's stop marker was there during the run
  std::string pids;      // the process ids of the programs started, one a line
  std::string failNext;  // while it exists, the next start fails (and removes it)
  std::string stopCode;  // the exit code of the stop script, 0 when missing
};

// How an agent of a test is made.
struct AgentShape {
  // Not explicit, so that makeAgent({"name"}) makes the plainest agent.
  AgentShape(std::string programName)
      : name(std::move(programName)) {}  // NOLINT(google-explicit-constructor)
  std::string name;                      // the program's name, distinct in each test
  bool suite = false;
  // The product code of an agent that is not of the suite; a code costs a
  // question to the suite's status tool at the parse, so only the tests of
  // the deploy marker, which is named after it, give one.
  std::string code;
  int maxRestarts = 3;
  std::string dependent;  // the id of an agent it needs, if any
  OperatingStates state = OpStopped;
  bool watched = true;  // with a Watchdog
};

// The product code of the suite agents, and the folder of the watchdog's stop
// marker under the install root.
const char kSuiteCode[] = "zq";
const char kBinArch[] = "arch";
// The product code of the agents whose deploy marker a test lays.
const char kDeployCode[] = "zz";

class OperatingRows : public ::testing::Test {
 protected:
  void SetUp() override {
    if (wantsWatchdogMode()) {
      Controller::setWatchDogMode();
    } else {
      // The mode cannot be switched back: a test that wants it runs alone.
      ASSERT_FALSE(Controller::isWatchDogMode()) << "run each test in a process of its own";
    }
    // Programs that a start script leaves running become our children when
    // the script ends, so the test reaps what it kills and nothing lingers.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    unsetenv("QOR_CMD_TIMEOUT");
    MIN_CMD_TIMEOUT = 5;
    WD_START_RETRY_COUNT = 0;
    WD_START_RETRY_INTERVAL = 1;
    setenv("ZEL_BINARCH", kBinArch, 1);
    qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL | QOR_TL_ERROR);
    controller()->setCAPDirPaths({captest::wide(caps.path() + "/")});
  }

  void TearDown() override {
    EXPECT_TRUE(workersIdle(30000));
    drain(controller()->getCommandHandler());
    drain(controller()->getMessageHandler());
    managed()->lockList();
    for (auto at = managed()->begin(); at != managed()->end();) at = managed()->erase(at);
    managed()->unlockList();
    agents.clear();
    running.clear();
    for (const AgentFiles& files : labs) {
      // A program still running is killed and reaped; one that died before
      // is reaped if it is our zombie; any other process of a reused id is
      // neither signalled nor waited for.
      for (int pid : pidsIn(files)) {
        const bool alive = proctest::runsExecutable(pid, files.exe);
        if (alive) kill(pid, SIGKILL);
        waitpid(pid, nullptr, alive ? 0 : WNOHANG);
      }
    }
  }

  virtual bool wantsWatchdogMode() const { return false; }

  static Controller* controller() { return Controller::getController(); }
  static ManagedProcessList* managed() { return controller()->getManagedEndpointProcesses(); }
  static bool workersIdle(int timeoutMs) {
    return qortest::waitFor([] { return controller()->getWorkerThreads()->isVectorEmpty(); }, timeoutMs);
  }
  std::string trace() { return qortest::readFile(dir.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }

  // An agent made as management makes one, from a real CAP file, in the
  // managed list and, unless told otherwise, with its Watchdog.
  Agent* makeAgent(const AgentShape& shape) {
    AgentFiles files;
    files.exe = proctest::copyProgram("/bin/sleep", dir.file(shape.name));
    files.startLog = dir.file(shape.name + ".starts");
    files.stopLog = dir.file(shape.name + ".stops");
    files.pids = dir.file(shape.name + ".pids");
    files.failNext = dir.file(shape.name + ".fail");
    files.stopCode = dir.file(shape.name + ".stopcode");
    const std::string code = shape.suite ? kSuiteCode : shape.code;
    const std::string marker = suite.path() + "/" + kBinArch + "/" + code + "/bin/.qorwd_disable_stop";
    const std::string start = dir.file(shape.name + "-start.sh");
    const std::string stop = dir.file(shape.name + "-stop.sh");
    // The program must not hold the script's output open: the worker reads
    // it to the end. The script returns once the program is in /proc.
    qortest::writeFile(start, filledIn(R"sh(echo start >> '@STARTS@'
if [ -f '@FAIL@' ]; then rm -f '@FAIL@'; exit 1; fi
'@EXE@' 30 </dev/null >/dev/null 2>&1 &
pid=$!
echo $pid >> '@PIDS@'
i=0
while [ $i -lt 250 ]; do
  [ "$(readlink /proc/$pid/exe)" = '@EXE@' ] && [ -n "$(tr -d '\000' < /proc/$pid/cmdline)" ] && break
  sleep 0.02; i=$((i + 1))
done
exit 0
)sh",
                                       files, marker));
    // It kills only processes that still run the agent's program.
    qortest::writeFile(stop, filledIn(R"sh(echo stop >> '@STOPS@'
if [ -f '@MARKER@' ]; then echo marked >> '@STOPS@'; fi
for pid in $(cat '@PIDS@' 2>/dev/null); do
  if [ "$(readlink /proc/$pid/exe)" = '@EXE@' ]; then kill -9 $pid; fi
done
exit $(cat '@STOPCODE@' 2>/dev/null || echo 0)
)sh",
                                      files, marker));

    captest::Subagent subagent;
    subagent.id = "ops." + shape.name;
    subagent.agentName = "<agentName>Ops agent</agentName>";
    subagent.procName = "<procName>" + shape.name + "</procName>";
    if (!code.empty()) subagent.productCode = "<productCode>" + code + "</productCode>";
    subagent.agentType = shape.suite ? "<agentType>ZEL_UNIX</agentType>" : "<agentType>Console</agentType>";
    subagent.agentPath = "<agentPath>" + files.exe + "</agentPath>";
    subagent.checkFrequency = "<checkFrequency>5</checkFrequency>";
    if (!shape.dependent.empty())
      subagent.dependentAgent = "<dependentAgent>" + shape.dependent + "</dependentAgent>";
    subagent.maxRestarts = "<maxRestarts>" + std::to_string(shape.maxRestarts) + "</maxRestarts>";
    // With a map of its codes the worker waits for the script's own end, and
    // leaves the process id of its copy of the agent as it was.
    subagent.startScript = captest::script("startScript", "/bin/sh " + start,
                                           "<returnCode type=\"OK\" msg_id=\"STARTED\">0</returnCode>");
    subagent.stopScript = captest::script("stopScript", "/bin/sh " + stop);
    Policy* policy = new Policy();
    EXPECT_EQ(XML_OK,
              captest::parseText(processor, dir, captest::document(subagent), *policy, shape.name + ".xml"));
    EXPECT_EQ(shape.suite, policy->isZELAgent());

    // The agent owns its policy, and frees it with its Watchdog.
    Agent* agent = new Agent();
    agents.emplace_back(agent);
    agent->setIdentityFrom(policy);
    agent->setInstanceProcName(policy->getProcName());
    agent->setManagedState(Managed);
    agent->setOperatingState(shape.state);
    if (shape.watched) {
      Watchdog* watchdog = new Watchdog();
      watchdog->setAgent(agent);
      agent->setWatchdog(watchdog);
    }
    managed()->lockList();
    managed()->push_back(agent);
    managed()->unlockList();
    labs.push_back(files);
    owners.push_back(agent);
    return agent;
  }

  // A script with the agent's file names put in.
  static std::string filledIn(std::string text, const AgentFiles& files, const std::string& marker) {
    for (const auto& name :
         {std::make_pair("@STARTS@", files.startLog), std::make_pair("@STOPS@", files.stopLog),
          std::make_pair("@FAIL@", files.failNext), std::make_pair("@EXE@", files.exe),
          std::make_pair("@PIDS@", files.pids), std::make_pair("@STOPCODE@", files.stopCode),
          std::make_pair("@MARKER@", marker)}) {
      for (size_t at = text.find(name.first); at != std::string::npos;
           at = text.find(name.first, at + name.second.size())) {
        text.replace(at, strlen(name.first), name.second);
      }
    }
    return text;
  }

  const AgentFiles& filesOf(const Agent* agent) const {
    for (size_t i = 0; i < owners.size(); ++i) {
      if (owners[i] == agent) return labs[i];
    }
    ADD_FAILURE() << "no files for the agent";
    return labs.front();
  }

  static std::vector<int> pidsIn(const AgentFiles& files) {
    std::vector<int> pids;
    for (const std::string& line : qortest::linesWith(qortest::readFile(files.pids), "")) {
      if (!line.empty()) pids.push_back(atoi(line.c_str()));
    }
    return pids;
  }
  // The program that the agent's start script started last, 0 if none.
  int lastStarted(const Agent* agent) const {
    std::vector<int> pids = pidsIn(filesOf(agent));
    return pids.empty() ? 0 : pids.back();
  }
  int starts(const Agent* agent) const {
    return qortest::countOccurrences(qortest::readFile(filesOf(agent).startLog), "start\n");
  }
  std::string stopLog(const Agent* agent) const { return qortest::readFile(filesOf(agent).stopLog); }

  // Runs the agent's program as the test's own child, as if it had been
  // started before, and records it running in the agent.
  int launch(Agent* agent) {
    const AgentFiles& files = filesOf(agent);
    running.emplace_back(new proctest::Process({files.exe, "30"}));
    const int pid = running.back()->pid();
    EXPECT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(pid, files.exe); }, 5000));
    qortest::writeFile(files.pids, qortest::readFile(files.pids) + std::to_string(pid) + "\n");
    agent->setOperatingState(OpRunning);
    agent->setProcID(pid);
    return pid;
  }

  // The agent's program dies: killed, and reaped by the test, which becomes
  // its parent when the start script that started it ends.
  static void die(int pid) {
    ASSERT_GT(pid, 1);
    kill(pid, SIGKILL);
    EXPECT_TRUE(
        qortest::waitFor([&] { return waitpid(pid, nullptr, WNOHANG) == pid || kill(pid, 0) != 0; }, 5000));
  }

  // The agent's state, pid and count, read with the list locked, since a
  // worker's result may be reaching the live agent meanwhile.
  int stateOf(const Agent* agent) {
    return locked([&] { return static_cast<int>(agent->getOperatingState()); });
  }
  int pidOf(const Agent* agent) {
    return locked([&] { return agent->getProcID(); });
  }
  int countOf(const Agent* agent) {
    return locked([&] { return agent->getDailyRestartCount(); });
  }
  template <typename Read>
  int locked(Read read) {
    managed()->lockList();
    const int value = read();
    managed()->unlockList();
    return value;
  }

  // One scheduled check of the agent, due now, as the command handler runs it.
  void check(Agent* agent) {
    agent->setCheckTime(time(nullptr) - agent->getPolicy()->getCheckFrequencyElement());
    AgentAVCheckEvent event;
    event.setAgent(agent);
    event.doCommandProcessing();
  }

  // An event as the rows meet it, on the test's stack.
  static void prepare(AgentOpEvent& event, Agent* agent, int opState, int id) {
    event.setAgent(agent);
    event.setOpState(opState);
    event.setEventTypeID(id);
  }
  // Applies `event` as the command handler does: with the list locked, and
  // its message passed on unless it ends suppressed.
  static void apply(AgentOpEvent& event) { event.doCommandProcessing(); }
  static void apply(AgentOpEvent& event, Agent* agent, int opState, int id) {
    prepare(event, agent, opState, id);
    apply(event);
  }
  // Raises an event on the command queue, as the Watchdog does.
  static void raise(Agent* agent, int opState, int id) {
    AgentOpEvent* event = new AgentOpEvent();
    prepare(*event, agent, opState, id);
    event->processEvent();
  }

  // Does what the command handler does until nothing is left: takes the next
  // event off the command queue, lets it apply itself, deletes it, and waits
  // for any worker it started to raise its result.
  HandledList settle() {
    HandledList handled;
    for (;;) {
      EXPECT_TRUE(workersIdle(30000));
      EventHandler* queue = controller()->getCommandHandler();
      queue->lockEventQueue();
      Event* next = queue->popEvent();
      queue->unlockEventQueue();
      if (next == nullptr) return handled;
      AgentOpEvent* event = dynamic_cast<AgentOpEvent*>(next);
      const int opState = event != nullptr ? event->getOpState() : -1;
      const int id = next->getEventTypeID();
      next->doCommandProcessing();
      handled.push_back({id, opState, next->getEventTypeID()});
      delete next;
    }
  }

  // The events raised and not yet handled, taken off the command queue; the
  // caller deletes them.
  static std::vector<AgentOpEvent*> takeRaised() {
    std::vector<AgentOpEvent*> raised;
    for (Event* event : qortest::takeEvents(controller()->getCommandHandler())) {
      AgentOpEvent* opEvent = dynamic_cast<AgentOpEvent*>(event);
      EXPECT_NE(nullptr, opEvent);
      if (opEvent != nullptr) raised.push_back(opEvent);
    }
    return raised;
  }

  // What the listeners have been told since the last call.
  static std::vector<Heard> heard() {
    std::vector<Heard> messages;
    for (Event* event : qortest::takeEvents(controller()->getMessageHandler())) {
      messages.push_back({event->getEventTypeID(), event->getLogMessage()});
      delete event;
    }
    return messages;
  }

  static void drain(EventHandler* queue) {
    for (Event* event : qortest::takeEvents(queue)) delete event;
  }

  static std::wstring operational(const Agent* agent, const std::wstring& text) {
    return agent->getName() + L" Operational Event: " + text;
  }

  // A remote deploy marker of the agent's product in the CAP directory; the
  // CAP directory entry ends in "/", and the marker's name begins with one.
  std::string deployMarker() { return caps.file(std::string(kDeployCode) + ".dy"); }

  qortest::TempDir dir;
  qortest::TempDir caps;
  proctest::FakeSuite suite;  // the install root of the suite agents
  XMLprocessor processor;
  std::vector<std::unique_ptr<Agent>> agents;
  std::vector<AgentFiles> labs;
  std::vector<const Agent*> owners;
  std::vector<std::unique_ptr<proctest::Process>> running;
};

const char kLimitTrace[] = " restart count exceeded and will not be restarted.";

// ---- The daily limit ---------------------------------------------------------

TEST_F(OperatingRows,
       AnAgentThatDiesAtEveryCheckIsRestartedThreeTimesThenExceedsItsLimitOnceThenOnceMoreThenNoMore) {
  Agent* agent = makeAgent({"qordiesd"});
  // Found stopped: its first start is not charged.
  check(agent);
  EXPECT_EQ((HandledList{{agent_initial_start, OpStopped, agent_initial_start},
                         {agent_started, OpStarting, agent_started}}),
            settle());
  EXPECT_EQ((std::vector<int>{agent_initial_start, agent_started}), idsOf(heard()));
  EXPECT_EQ(0, countOf(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(lastStarted(agent), pidOf(agent));

  for (int restarts = 1; restarts <= 3; ++restarts) {
    SCOPED_TRACE("death " + std::to_string(restarts));
    die(pidOf(agent));
    check(agent);
    EXPECT_EQ((HandledList{{agent_stopped_abnormally, OpStopped, agent_stopped_abnormally},
                           {agent_start_after_failure, OpStopping, agent_start_after_failure},
                           {agent_started, OpStarting, agent_started}}),
              settle());
    EXPECT_EQ((std::vector<int>{agent_stopped_abnormally, agent_start_after_failure, agent_started}),
              idsOf(heard()));
    EXPECT_EQ(restarts, countOf(agent));
    EXPECT_EQ(OpRunning, stateOf(agent));
    EXPECT_NE(0, pidOf(agent));
    EXPECT_EQ(lastStarted(agent), pidOf(agent));
  }
  EXPECT_EQ(4, starts(agent));

  // The fourth death finds the count at the limit: no start, one event 12.
  die(pidOf(agent));
  check(agent);
  EXPECT_EQ((HandledList{{agent_stopped_abnormally, OpStopped, agent_stopped_abnormally},
                         {agent_start_after_failure, OpStopping, agent_start_after_failure},
                         {agent_restart_exceeded, OpStopping, agent_restart_exceeded}}),
            settle());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_stopped_abnormally, agent_start_after_failure, agent_restart_exceeded}),
            idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent stopped abnormally."), messages[0].text);
  EXPECT_EQ(operational(agent, L"Agent start after failure"), messages[1].text);
  EXPECT_EQ(operational(agent, L"Agent exceeded restart tries."), messages[2].text);
  EXPECT_EQ(3, countOf(agent));
  EXPECT_EQ(OpStopped, stateOf(agent));
  EXPECT_EQ(0, pidOf(agent));
  EXPECT_EQ(1, traced("Agent id ops.qordiesd restart count exceeded and will not be restarted."));

  // Down and at the limit, each check asks for a first start: one more message...
  check(agent);
  EXPECT_EQ((HandledList{{agent_initial_start, OpStopped, agent_initial_start}}), settle());
  messages = heard();
  ASSERT_EQ((std::vector<int>{agent_initial_start}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent initial start"), messages[0].text);
  // ...then silence.
  for (int silent = 1; silent <= 2; ++silent) {
    check(agent);
    EXPECT_EQ((HandledList{{agent_initial_start, OpStopped, agent_initial_start}}), settle());
    EXPECT_EQ(std::vector<int>{}, idsOf(heard()));
    EXPECT_EQ(silent, traced("Message suppressed for event id 22."));
  }
  EXPECT_EQ(4, starts(agent));
  EXPECT_EQ(3, countOf(agent));
  EXPECT_EQ(OpStopped, stateOf(agent));
  EXPECT_EQ(1, traced(kLimitTrace));
}

TEST_F(OperatingRows, ACountAboveALoweredLimitMakesFirstStartRestartAndFailedStartDoNothing) {
  AgentShape shape{"qorloweredd"};
  shape.suite = true;  // whose messages the rows would otherwise keep back
  Agent* agent = makeAgent(shape);
  agent->setDailyRestartCount(4);

  struct Case {
    int opState;
    int id;
    OperatingStates before;
    int pidAfter;  // a restart drops the process before it looks at the count
  };
  for (const Case& row : {Case{OpStopped, agent_initial_start, OpStopped, 4321},
                          Case{OpStopping, agent_start_after_failure, OpStopping, 0},
                          Case{OpStarting, agent_restart_failed, OpStarting, 4321}}) {
    SCOPED_TRACE("id " + std::to_string(row.id));
    agent->setOperatingState(row.before);
    agent->setProcID(4321);
    AgentOpEvent event;
    apply(event, agent, row.opState, row.id);
    EXPECT_TRUE(controller()->getWorkerThreads()->isVectorEmpty());
    EXPECT_FALSE(event.messagesSuppressed());
    EXPECT_EQ(row.id, event.getEventTypeID());
    EXPECT_EQ(row.opState, event.getOpState());
    EXPECT_FALSE(event.getIncrementFlag());
    EXPECT_EQ(row.before, agent->getOperatingState());
    EXPECT_EQ(row.pidAfter, agent->getProcID());
    EXPECT_EQ(4, agent->getDailyRestartCount());
    EXPECT_EQ((std::vector<int>{row.id}), idsOf(heard()));
    EXPECT_TRUE(takeRaised().empty());
  }
  EXPECT_EQ(0, traced("Message suppressed for event id"));
  EXPECT_EQ(0, traced("Initiating starting of agent id"));
  EXPECT_EQ(0, traced(kLimitTrace));
  EXPECT_TRUE(workersIdle(1000));
  EXPECT_EQ(0, starts(agent));
  EXPECT_FALSE(qortest::fileExists(filesOf(agent).startLog));
}

TEST_F(OperatingRows, AStartedEventWithoutTheIncrementFlagAsAfterAnOperatorsStartLeavesTheCountAlone) {
  AgentShape shape{"qoroperd"};
  shape.state = OpManuallyStopped;
  Agent* agent = makeAgent(shape);
  agent->setDailyRestartCount(1);
  raise(agent, OpManuallyStopped, agent_start_cmd);

  EXPECT_EQ((HandledList{{agent_start_cmd, OpManuallyStopped, agent_start_cmd},
                         {agent_started, OpStarting, agent_started}}),
            settle());
  EXPECT_EQ((std::vector<int>{agent_start_cmd, agent_started}), idsOf(heard()));
  EXPECT_EQ(1, countOf(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(1, starts(agent));
  EXPECT_EQ(lastStarted(agent), pidOf(agent));
}

TEST_F(OperatingRows, AStartedEventWithTheIncrementFlagChargesTheRestartWhenItHasSucceeded) {
  Agent* agent = makeAgent({"qorchargedd"});
  agent->setDailyRestartCount(1);
  const int pid = launch(agent);
  agent->setOperatingState(OpStarting);
  agent->setProcID(0);

  AgentOpEvent event;
  prepare(event, agent, OpStarting, agent_started);
  event.setIncrementFlag(true);
  apply(event);

  EXPECT_EQ(2, agent->getDailyRestartCount());
  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(pid, agent->getProcID());
  EXPECT_EQ((std::vector<int>{agent_started}), idsOf(heard()));
}

TEST_F(OperatingRows, AStartReportWithTheActionFlagClearMovesTheAgentToStartingAndStartsNothing) {
  AgentShape shape{"qorreportd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  AgentOpEvent event;
  prepare(event, agent, OpStopped, agent_start_cmd);
  event.setActionFlag(false);
  apply(event);

  EXPECT_EQ(OpStarting, agent->getOperatingState());
  EXPECT_EQ(OpStarting, event.getOpState());
  EXPECT_EQ(agent_start_cmd, event.getEventTypeID());
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_TRUE(controller()->getWorkerThreads()->isVectorEmpty());
  EXPECT_TRUE(takeRaised().empty());
  EXPECT_EQ((std::vector<int>{agent_start_cmd}), idsOf(heard()));
  EXPECT_EQ(0, traced("Initiating starting of agent id"));
  EXPECT_TRUE(workersIdle(1000));
  EXPECT_EQ(0, starts(agent));
}

TEST_F(OperatingRows, AStopThatFailedReturnsTheAgentToRunningAndTheNextCheckDecidesAnew) {
  Agent* agent = makeAgent({"qorstubbornd"});
  const int pid = launch(agent);
  qortest::writeFile(filesOf(agent).stopCode, "1\n");
  raise(agent, OpRunning, agent_stop_cmd);

  EXPECT_EQ((HandledList{{agent_stop_cmd, OpRunning, agent_stop_cmd},
                         {agent_stop_failed, OpStopping, agent_stop_failed}}),
            settle());
  EXPECT_EQ((std::vector<int>{agent_stop_cmd, agent_stop_failed}), idsOf(heard()));
  EXPECT_EQ("stop\n", stopLog(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));

  // The stop script did kill the program: the next check, no longer held back
  // as for an agent stopping, finds it down and asks for a restart.
  EXPECT_FALSE(proctest::runsExecutable(pid, filesOf(agent).exe));
  check(agent);
  EXPECT_EQ(0, traced("The agent is a starting or stopping state -- skip check.\n"));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_stopped_abnormally, raised[0]->getEventTypeID());
  EXPECT_EQ(OpStopped, raised[0]->getOpState());
  for (AgentOpEvent* event : raised) delete event;
}

// ---- 2 or 5: commands and findings for an agent that is down ----------------

TEST_F(OperatingRows, AStartCommandRunsTheStartScriptOnAWorkerAndItsResultMakesTheAgentRunning) {
  Agent* agent = makeAgent({"qorstartd"});
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_start_cmd);

  EXPECT_EQ(OpStarting, event.getOpState());
  EXPECT_EQ(agent_start_cmd, event.getEventTypeID());
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_EQ(OpStarting, stateOf(agent));
  EXPECT_EQ(1, traced("Initiating starting of agent id (ops.qorstartd).\n"));
  EXPECT_EQ((HandledList{{agent_started, OpStarting, agent_started}}), settle());
  EXPECT_EQ((std::vector<int>{agent_start_cmd, agent_started}), idsOf(heard()));
  EXPECT_EQ(1, starts(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(lastStarted(agent), pidOf(agent));
  EXPECT_EQ(0, countOf(agent));
}

TEST_F(OperatingRows, AStartCommandForASuiteAgentIsKeptFromTheListenersButStillStartsIt) {
  AgentShape shape{"qorsuitestartd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_start_cmd);

  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_EQ(OpStarting, stateOf(agent));
  EXPECT_EQ(std::vector<int>{}, idsOf(heard()));
  EXPECT_EQ(1, traced("Message suppressed for event id 5."));
  EXPECT_TRUE(workersIdle(30000));
  EXPECT_EQ(1, starts(agent));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_started, raised[0]->getEventTypeID());
  EXPECT_EQ(OpStarting, raised[0]->getOpState());
  EXPECT_EQ(agent, raised[0]->getAgent());
  for (AgentOpEvent* e : raised) delete e;
}

TEST_F(OperatingRows, ARecycleCommandOfAStoppedAgentStopsAndStartsItOnOneWorker) {
  Agent* agent = makeAgent({"qorrecycled"});
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_recycle_cmd);

  EXPECT_EQ(OpStarting, event.getOpState());
  EXPECT_EQ(OpStarting, stateOf(agent));
  EXPECT_EQ(1, traced("Initiating recycle of agent id (ops.qorrecycled).\n"));
  EXPECT_EQ(0, traced("Initiating starting of agent id"));
  EXPECT_EQ((HandledList{{agent_started, OpStarting, agent_started}}), settle());
  EXPECT_EQ((std::vector<int>{agent_recycle_cmd, agent_started}), idsOf(heard()));
  EXPECT_EQ("stop\n", stopLog(agent));
  EXPECT_EQ(1, starts(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(lastStarted(agent), pidOf(agent));
}

TEST_F(OperatingRows, AStartCommandWhoseDependentIsNotFoundFailsAtOnceWithId13AndAPlainCopyRaised) {
  AgentShape shape{"qordependsd"};
  shape.dependent = "ops.nowhere";
  Agent* agent = makeAgent(shape);
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_start_cmd);

  EXPECT_EQ(agent_start_failed, event.getEventTypeID());
  EXPECT_EQ(1, event.getStartStatus());
  EXPECT_EQ(OpStarting, event.getOpState());
  EXPECT_TRUE(controller()->getWorkerThreads()->isVectorEmpty());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_start_failed}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent manual start failed - Dependent agent id not found."),
            messages[0].text);

  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  AgentOpEvent* copy = raised[0];
  EXPECT_EQ(nullptr, dynamic_cast<AgentMgmtEvent*>(copy));
  EXPECT_EQ(agent_start_failed, copy->getEventTypeID());
  EXPECT_EQ(OpStarting, copy->getOpState());
  EXPECT_EQ(1, copy->getStartStatus());
  EXPECT_EQ(agent, copy->getAgent());
  EXPECT_FALSE(copy->isAgentOwned());
  EXPECT_FALSE(copy->messagesSuppressed());

  // The copy takes row 3, id 13: the agent is down again, and the failure is heard.
  copy->doCommandProcessing();
  delete copy;
  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  messages = heard();
  ASSERT_EQ((std::vector<int>{agent_start_failed}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent manual start failed - Dependent agent id not found."),
            messages[0].text);
  EXPECT_TRUE(workersIdle(1000));
  EXPECT_EQ(0, starts(agent));
}

TEST_F(OperatingRows, ACommandedStartOfASuiteAgentThatFailedIsHeardOnceThroughItsCopy) {
  AgentShape shape{"qorsuitedepd"};
  shape.suite = true;
  shape.dependent = "ops.nowhere";
  Agent* agent = makeAgent(shape);
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_start_cmd);

  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_EQ(std::vector<int>{}, idsOf(heard()));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_TRUE(raised[0]->messagesSuppressed());
  raised[0]->doCommandProcessing();
  EXPECT_FALSE(raised[0]->messagesSuppressed());
  delete raised[0];

  EXPECT_EQ(OpStopped, agent->getOperatingState());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_start_failed}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent manual start failed - Dependent agent id not found."),
            messages[0].text);
}

TEST_F(OperatingRows, AnAgentThatCameUpByItselfIsRunningWithItsProcessAndItsDeployMarkerIsRemoved) {
  for (int opState : {static_cast<int>(OpStopped), static_cast<int>(OpManuallyStopped)}) {
    SCOPED_TRACE("opState " + std::to_string(opState));
    AgentShape shape("qorcameup" + std::to_string(opState));
    shape.code = kDeployCode;
    Agent* agent = makeAgent(shape);
    agent->setOperatingState(opState);
    const int pid = launch(agent);
    agent->setOperatingState(opState);
    ASSERT_EQ(0, agent->getProcID());
    qortest::writeFile(deployMarker(), "");

    AgentOpEvent event;
    apply(event, agent, opState, agent_started);

    EXPECT_EQ(OpRunning, agent->getOperatingState());
    EXPECT_EQ(pid, agent->getProcID());
    EXPECT_FALSE(qortest::fileExists(deployMarker()));
    EXPECT_EQ((std::vector<int>{agent_started}), idsOf(heard()));
    EXPECT_TRUE(takeRaised().empty());
  }
}

TEST_F(OperatingRows, AnAgentFoundDownRaisesARestartAndIsItselfLeftAsItIs) {
  Agent* agent = makeAgent({"qorfounddownd"});
  const int pid = launch(agent);
  agent->setDailyRestartCount(1);
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_stopped_abnormally);

  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(pid, agent->getProcID());
  EXPECT_EQ(1, agent->getDailyRestartCount());
  EXPECT_EQ(agent_stopped_abnormally, event.getEventTypeID());
  EXPECT_EQ(OpStopped, event.getOpState());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_stopped_abnormally}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent stopped abnormally."), messages[0].text);

  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(nullptr, dynamic_cast<AgentMgmtEvent*>(raised[0]));
  EXPECT_EQ(agent_start_after_failure, raised[0]->getEventTypeID());
  EXPECT_EQ(OpStopping, raised[0]->getOpState());
  EXPECT_EQ(agent, raised[0]->getAgent());
  EXPECT_FALSE(raised[0]->getIncrementFlag());
  EXPECT_TRUE(raised[0]->getActionFlag());
  EXPECT_FALSE(raised[0]->messagesSuppressed());
  for (AgentOpEvent* e : raised) delete e;
  EXPECT_TRUE(controller()->getWorkerThreads()->isVectorEmpty());
}

TEST_F(OperatingRows, AFirstStartIsNotChargedToTheCount) {
  Agent* agent = makeAgent({"qorfirstd"});
  agent->setDailyRestartCount(2);
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_initial_start);

  EXPECT_EQ(OpStarting, event.getOpState());
  EXPECT_FALSE(event.getIncrementFlag());
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_EQ((HandledList{{agent_started, OpStarting, agent_started}}), settle());
  EXPECT_EQ((std::vector<int>{agent_initial_start, agent_started}), idsOf(heard()));
  EXPECT_EQ(2, countOf(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(1, starts(agent));
}

TEST_F(OperatingRows, AFirstStartOfASuiteAgentIsKeptFromTheListeners) {
  AgentShape shape{"qorsuitefirstd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_initial_start);

  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_FALSE(event.getIncrementFlag());
  EXPECT_EQ(std::vector<int>{}, idsOf(heard()));
  EXPECT_TRUE(workersIdle(30000));
  EXPECT_EQ(1, starts(agent));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_started, raised[0]->getEventTypeID());
  EXPECT_FALSE(raised[0]->getIncrementFlag());
  for (AgentOpEvent* e : raised) delete e;
}

TEST_F(OperatingRows, AFirstStartAtTheLimitSendsItsSpareCopyAs12OnceThenOneMoreMessageThenSilence) {
  Agent* agent = makeAgent({"qorfirstlimitd"});
  launch(agent);
  agent->setDailyRestartCount(3);

  AgentOpEvent first;
  apply(first, agent, OpStopped, agent_initial_start);
  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(agent_initial_start, first.getEventTypeID());
  EXPECT_FALSE(first.messagesSuppressed());
  EXPECT_FALSE(agent->reportCountExceeded());
  EXPECT_TRUE(agent->isCountExceeded());
  EXPECT_TRUE(agent->reportRestartFailure());
  EXPECT_EQ((std::vector<int>{agent_initial_start}), idsOf(heard()));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_restart_exceeded, raised[0]->getEventTypeID());
  EXPECT_EQ(OpStopped, raised[0]->getOpState());
  EXPECT_EQ(agent, raised[0]->getAgent());
  EXPECT_FALSE(raised[0]->isAgentOwned());
  raised[0]->doCommandProcessing();
  delete raised[0];
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_restart_exceeded}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent exceeded restart tries."), messages[0].text);

  AgentOpEvent second;
  apply(second, agent, OpStopped, agent_initial_start);
  EXPECT_FALSE(second.messagesSuppressed());
  EXPECT_FALSE(agent->reportRestartFailure());
  EXPECT_EQ((std::vector<int>{agent_initial_start}), idsOf(heard()));
  EXPECT_TRUE(takeRaised().empty());

  AgentOpEvent third;
  apply(third, agent, OpStopped, agent_initial_start);
  EXPECT_TRUE(third.messagesSuppressed());
  EXPECT_EQ(std::vector<int>{}, idsOf(heard()));
  EXPECT_TRUE(takeRaised().empty());

  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(3, agent->getDailyRestartCount());
  EXPECT_TRUE(workersIdle(1000));
  EXPECT_EQ(0, starts(agent));
}

TEST_F(OperatingRows, AnAgentDisarmedWhileDownIsStoppedWithoutProcess) {
  Agent* agent = makeAgent({"qordisarmedd"});
  launch(agent);
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_restart_disabled);

  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ((std::vector<int>{agent_restart_disabled}), idsOf(heard()));
  EXPECT_TRUE(takeRaised().empty());
  EXPECT_TRUE(controller()->getWorkerThreads()->isVectorEmpty());
}

// ---- 3: results of a start --------------------------------------------------------

TEST_F(OperatingRows, AStartThatFailedIsRetriedAndChargedWhileTheCountIsBelowTheLimit) {
  Agent* agent = makeAgent({"qorretryd"});
  agent->setOperatingState(OpStarting);
  agent->setDailyRestartCount(1);
  AgentOpEvent event;
  apply(event, agent, OpStarting, agent_restart_failed);

  EXPECT_EQ(agent_restart_failed, event.getEventTypeID());
  EXPECT_EQ(OpStarting, event.getOpState());
  EXPECT_EQ(2, countOf(agent));
  EXPECT_EQ(OpStarting, stateOf(agent));
  EXPECT_EQ((HandledList{{agent_started, OpStarting, agent_started}}), settle());
  EXPECT_EQ((std::vector<int>{agent_restart_failed, agent_started}), idsOf(heard()));
  EXPECT_EQ(2, countOf(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(1, starts(agent));
}

TEST_F(OperatingRows, ARestartThatFailsOnceAndThenSucceedsCostsTwo) {
  Agent* agent = makeAgent({"qortwiced"});
  qortest::writeFile(filesOf(agent).failNext, "");
  raise(agent, OpStopped, agent_stopped_abnormally);

  EXPECT_EQ((HandledList{{agent_stopped_abnormally, OpStopped, agent_stopped_abnormally},
                         {agent_start_after_failure, OpStopping, agent_start_after_failure},
                         {agent_restart_failed, OpStarting, agent_restart_failed},
                         {agent_started, OpStarting, agent_started}}),
            settle());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_stopped_abnormally, agent_start_after_failure, agent_restart_failed,
                              agent_started}),
            idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent restart failed - Agent start script failed."), messages[2].text);
  EXPECT_EQ(2, countOf(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(2, starts(agent));
  EXPECT_EQ(lastStarted(agent), pidOf(agent));
}

TEST_F(OperatingRows, AStartThatFailsAtOnceIsRetriedAndChargedUntilTheLimitEndsIt) {
  AgentShape shape{"qorchaind"};
  shape.maxRestarts = 2;
  shape.dependent = "ops.nowhere";
  Agent* agent = makeAgent(shape);
  agent->setOperatingState(OpStarting);
  raise(agent, OpStarting, agent_restart_failed);

  EXPECT_EQ((HandledList{{agent_restart_failed, OpStarting, agent_restart_failed},
                         {agent_restart_failed, OpStarting, agent_restart_failed},
                         {agent_restart_failed, OpStarting, agent_restart_exceeded}}),
            settle());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_restart_failed, agent_restart_failed, agent_restart_exceeded}),
            idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent restart failed - Dependent agent id not found."), messages[0].text);
  EXPECT_EQ(operational(agent, L"Agent exceeded restart tries."), messages[2].text);
  EXPECT_EQ(2, agent->getDailyRestartCount());
  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(1, traced(kLimitTrace));
  EXPECT_EQ(0, starts(agent));
}

TEST_F(OperatingRows, AStartThatFailedAtTheLimitBecomes12OnceThenOneMoreMessageThenSilence) {
  Agent* agent = makeAgent({"qorladderd"});
  agent->setDailyRestartCount(3);
  // Errors alone: the limit's trace is on the error level.
  qortest::traceTo(dir.file("errors"), QOR_TL_ERROR);
  agent->setOperatingState(OpStarting);

  AgentOpEvent first;
  apply(first, agent, OpStarting, agent_restart_failed);
  EXPECT_EQ(agent_restart_exceeded, first.getEventTypeID());
  EXPECT_FALSE(first.messagesSuppressed());
  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_FALSE(agent->reportCountExceeded());
  EXPECT_TRUE(agent->reportRestartFailure());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_restart_exceeded}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent exceeded restart tries."), messages[0].text);
  const std::string errors = qortest::readFile(dir.file("errors"));
  EXPECT_EQ(1, qortest::countOccurrences(errors,
                                         "Agent id ops.qorladderd restart count exceeded and will not "
                                         "be restarted."));
  EXPECT_EQ(0, qortest::countOccurrences(errors, "agent event id = "));

  // The next two leave the agent starting: only the messages change.
  agent->setOperatingState(OpStarting);
  AgentOpEvent second;
  prepare(second, agent, OpStarting, agent_restart_failed);
  second.setStartStatus(7);
  apply(second);
  EXPECT_EQ(agent_restart_failed, second.getEventTypeID());
  EXPECT_FALSE(second.messagesSuppressed());
  EXPECT_EQ(OpStarting, agent->getOperatingState());
  EXPECT_FALSE(agent->reportRestartFailure());
  messages = heard();
  ASSERT_EQ((std::vector<int>{agent_restart_failed}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent restart failed - Agent start script failed."), messages[0].text);

  AgentOpEvent third;
  prepare(third, agent, OpStarting, agent_restart_failed);
  third.setStartStatus(7);
  apply(third);
  EXPECT_EQ(agent_restart_failed, third.getEventTypeID());
  EXPECT_TRUE(third.messagesSuppressed());
  EXPECT_EQ(OpStarting, agent->getOperatingState());
  EXPECT_EQ(std::vector<int>{}, idsOf(heard()));

  EXPECT_EQ(3, agent->getDailyRestartCount());
  EXPECT_TRUE(takeRaised().empty());
  EXPECT_TRUE(workersIdle(1000));
  EXPECT_EQ(0, starts(agent));
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("errors")), kLimitTrace));
}

TEST_F(OperatingRows, ALimitReachedWhileStartingStopsTheAgentWithAnErrorTrace) {
  Agent* agent = makeAgent({"qorlimit3d"});
  launch(agent);
  agent->setOperatingState(OpStarting);
  qortest::traceTo(dir.file("errors"), QOR_TL_ERROR);
  AgentOpEvent event;
  apply(event, agent, OpStarting, agent_restart_exceeded);

  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("errors")),
                                         "Agent id ops.qorlimit3d restart count exceeded and will not be "
                                         "restarted."));
  EXPECT_EQ((std::vector<int>{agent_restart_exceeded}), idsOf(heard()));
}

TEST_F(OperatingRows, ACommandedStartThatFailedIsHeardAndLeavesTheAgentStopped) {
  Agent* agent = makeAgent({"qorfailed13d"});
  launch(agent);
  agent->setOperatingState(OpStarting);
  AgentOpEvent event;
  prepare(event, agent, OpStarting, agent_start_failed);
  event.setStartStatus(7);
  event.suppressMessages();
  apply(event);

  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_start_failed}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent manual start failed - Agent start script failed."), messages[0].text);
}

// ---- 4: a running agent -----------------------------------------------------------

TEST_F(OperatingRows, AStopCommandOfARunningAgentRunsTheStopScriptAndLeavesItManuallyStopped) {
  Agent* agent = makeAgent({"qorstopd"});
  const int pid = launch(agent);
  AgentOpEvent event;
  apply(event, agent, OpRunning, agent_stop_cmd);

  EXPECT_EQ(OpStopping, event.getOpState());
  EXPECT_EQ(OpStopping, stateOf(agent));
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_EQ(1, traced("Initiating stop of agent id (ops.qorstopd).\n"));
  EXPECT_EQ((HandledList{{agent_stopped, OpStopping, agent_stopped}}), settle());
  EXPECT_EQ((std::vector<int>{agent_stop_cmd, agent_stopped}), idsOf(heard()));
  EXPECT_EQ("stop\n", stopLog(agent));
  EXPECT_FALSE(proctest::runsExecutable(pid, filesOf(agent).exe));
  EXPECT_EQ(OpManuallyStopped, stateOf(agent));
  EXPECT_EQ(0, pidOf(agent));
}

TEST_F(OperatingRows, AStopCommandOfASuiteAgentIsKeptFromTheListenersAndSoIsItsStoppedResult) {
  AgentShape shape{"qorsuitestopd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  launch(agent);
  AgentOpEvent event;
  apply(event, agent, OpRunning, agent_stop_cmd);

  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_EQ((HandledList{{agent_stopped, OpStopping, agent_stopped}}), settle());
  EXPECT_EQ(std::vector<int>{}, idsOf(heard()));
  EXPECT_EQ(1, traced("Message suppressed for event id 4."));
  EXPECT_EQ(1, traced("Message suppressed for event id 10."));
  EXPECT_EQ("stop\n", stopLog(agent));
  EXPECT_EQ(OpManuallyStopped, stateOf(agent));
}

TEST_F(OperatingRows, AStopReportWithTheActionFlagClearMovesTheAgentToStoppingAndStartsNoWorker) {
  AgentShape shape{"qorstopreportd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  const int pid = launch(agent);
  AgentOpEvent event;
  prepare(event, agent, OpRunning, agent_stop_cmd);
  event.setActionFlag(false);
  apply(event);

  EXPECT_EQ(OpStopping, event.getOpState());
  EXPECT_EQ(OpStopping, agent->getOperatingState());
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_EQ(1, traced("Initiating stop of agent id (ops.qorstopreportd).\n"));
  EXPECT_TRUE(controller()->getWorkerThreads()->isVectorEmpty());
  EXPECT_TRUE(takeRaised().empty());
  EXPECT_EQ((std::vector<int>{agent_stop_cmd}), idsOf(heard()));
  EXPECT_TRUE(workersIdle(1000));
  EXPECT_FALSE(qortest::fileExists(filesOf(agent).stopLog));
  EXPECT_TRUE(proctest::runsExecutable(pid, filesOf(agent).exe));
}

TEST_F(OperatingRows, ARecycleCommandOfARunningAgentMovesItToStartingAndRestartsItOnOneWorker) {
  Agent* agent = makeAgent({"qorrecyclerund"});
  const int pid = launch(agent);
  agent->setDailyRestartCount(1);
  AgentOpEvent event;
  apply(event, agent, OpRunning, agent_recycle_cmd);

  EXPECT_EQ(OpStarting, event.getOpState());
  EXPECT_EQ(OpStarting, stateOf(agent));
  EXPECT_EQ(1, traced("Initiating recycle of agent id (ops.qorrecyclerund).\n"));
  EXPECT_EQ((HandledList{{agent_started, OpStarting, agent_started}}), settle());
  EXPECT_EQ((std::vector<int>{agent_recycle_cmd, agent_started}), idsOf(heard()));
  EXPECT_EQ("stop\n", stopLog(agent));
  EXPECT_EQ(1, starts(agent));
  EXPECT_FALSE(proctest::runsExecutable(pid, filesOf(agent).exe));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(lastStarted(agent), pidOf(agent));
  EXPECT_EQ(1, countOf(agent));
}

TEST_F(OperatingRows, ARecycleCommandOfASuiteAgentIsKeptFromTheListeners) {
  AgentShape shape{"qorsuiterecycled"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  launch(agent);
  AgentOpEvent event;
  apply(event, agent, OpRunning, agent_recycle_cmd);

  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_EQ(OpStarting, stateOf(agent));
  EXPECT_EQ(1, traced("Message suppressed for event id 25."));
  EXPECT_TRUE(workersIdle(30000));
  EXPECT_EQ("stop\n", stopLog(agent));
  EXPECT_EQ(1, starts(agent));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_started, raised[0]->getEventTypeID());
  for (AgentOpEvent* e : raised) delete e;
}

TEST_F(OperatingRows, AnAgentOverItsMemoryLimitIsStoppedThenRestartedAndChargedOnceItRuns) {
  Agent* agent = makeAgent({"qorhungryd"});
  const int pid = launch(agent);
  raise(agent, OpRunning, agent_memory_exceeded);

  EXPECT_EQ((HandledList{{agent_memory_exceeded, OpRunning, agent_memory_exceeded},
                         {agent_start_after_failure, OpStopping, agent_start_after_failure},
                         {agent_started, OpStarting, agent_started}}),
            settle());
  EXPECT_EQ((std::vector<int>{agent_memory_exceeded, agent_start_after_failure, agent_started}),
            idsOf(heard()));
  EXPECT_EQ("stop\n", stopLog(agent));
  EXPECT_FALSE(proctest::runsExecutable(pid, filesOf(agent).exe));
  EXPECT_EQ(1, starts(agent));
  EXPECT_EQ(1, countOf(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));
  EXPECT_EQ(lastStarted(agent), pidOf(agent));
}

TEST_F(OperatingRows, ARunningSuiteAgentFoundUnhealthyOrDownIsStoppedAndHeardAndItsStopRaisesARestart) {
  AgentShape shape{"qorsickd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  for (int id : {agent_stopped_abnormally, agent_memory_exceeded, agent_cpu_exceeded}) {
    SCOPED_TRACE("id " + std::to_string(id));
    launch(agent);
    AgentOpEvent event;
    apply(event, agent, OpRunning, id);

    EXPECT_EQ(OpStopping, event.getOpState());
    EXPECT_EQ(id, event.getEventTypeID());
    EXPECT_FALSE(event.messagesSuppressed());
    EXPECT_EQ(OpStopping, stateOf(agent));
    EXPECT_EQ((std::vector<int>{id}), idsOf(heard()));
    EXPECT_TRUE(workersIdle(30000));
    std::vector<AgentOpEvent*> raised = takeRaised();
    ASSERT_EQ(1u, raised.size());
    EXPECT_EQ(agent_start_after_failure, raised[0]->getEventTypeID());
    EXPECT_EQ(OpStopping, raised[0]->getOpState());
    EXPECT_EQ(agent, raised[0]->getAgent());
    for (AgentOpEvent* e : raised) delete e;
  }
  EXPECT_EQ("stop\nstop\nstop\n", stopLog(agent));
}

TEST_F(OperatingRows, ARunningAgentStoppedByOtherMeansIsManuallyStoppedWithoutProcess) {
  Agent* agent = makeAgent({"qorelsewhered"});
  launch(agent);
  AgentOpEvent event;
  apply(event, agent, OpRunning, agent_stopped);

  EXPECT_EQ(OpManuallyStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ((std::vector<int>{agent_stopped}), idsOf(heard()));
  EXPECT_TRUE(controller()->getWorkerThreads()->isVectorEmpty());
}

TEST_F(OperatingRows, ARunningAgentFoundStartedStaysAsItIsAndLosesItsDeployMarker) {
  AgentShape shape("qorstillupd");
  shape.code = kDeployCode;
  Agent* agent = makeAgent(shape);
  const int pid = launch(agent);
  agent->setDailyRestartCount(1);
  qortest::writeFile(deployMarker(), "");
  AgentOpEvent event;
  apply(event, agent, OpRunning, agent_started);

  EXPECT_FALSE(qortest::fileExists(deployMarker()));
  EXPECT_EQ(OpRunning, agent->getOperatingState());
  EXPECT_EQ(pid, agent->getProcID());
  EXPECT_EQ(1, agent->getDailyRestartCount());
  EXPECT_EQ((std::vector<int>{agent_started}), idsOf(heard()));
  EXPECT_TRUE(takeRaised().empty());
}

// ---- 6: results of a stop ---------------------------------------------------------

TEST_F(OperatingRows, StopResultsOfASuiteAgentAreHeardExceptStoppedSuccessfully) {
  AgentShape shape{"qorsuiteresultd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  struct Case {
    int id;
    bool heard;
    OperatingStates after;
  };
  for (const Case& row :
       {Case{agent_stopped, false, OpManuallyStopped}, Case{agent_stopped_abnormally, true, OpStopped},
        Case{agent_stop_failed, true, OpRunning}, Case{agent_restart_exceeded, true, OpStopped}}) {
    SCOPED_TRACE("id " + std::to_string(row.id));
    agent->setOperatingState(OpStopping);
    AgentOpEvent event;
    prepare(event, agent, OpStopping, row.id);
    event.suppressMessages();
    apply(event);
    EXPECT_EQ(!row.heard, event.messagesSuppressed());
    EXPECT_EQ(row.heard ? std::vector<int>{row.id} : std::vector<int>{}, idsOf(heard()));
    EXPECT_EQ(row.after, agent->getOperatingState());
  }
}

TEST_F(OperatingRows, AnAgentStoppedAsAskedIsManuallyStoppedWithoutProcess) {
  Agent* agent = makeAgent({"qorstopped6d"});
  launch(agent);
  agent->setOperatingState(OpStopping);
  AgentOpEvent event;
  apply(event, agent, OpStopping, agent_stopped);

  EXPECT_EQ(OpManuallyStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ((std::vector<int>{agent_stopped}), idsOf(heard()));
}

TEST_F(OperatingRows, AnAgentThatWentDownWhileStoppingIsStoppedWithoutProcess) {
  Agent* agent = makeAgent({"qordown6d"});
  launch(agent);
  agent->setOperatingState(OpStopping);
  AgentOpEvent event;
  apply(event, agent, OpStopping, agent_stopped_abnormally);

  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ((std::vector<int>{agent_stopped_abnormally}), idsOf(heard()));
  EXPECT_TRUE(takeRaised().empty());
}

TEST_F(OperatingRows, AnAgentStoppedForARestartLosesItsProcessAndIsStartedWithTheIncrementFlag) {
  Agent* agent = makeAgent({"qorrestartd"});
  agent->setOperatingState(OpStopping);
  agent->setProcID(4321);
  agent->setDailyRestartCount(1);
  // The start fails, so that the worker's result carries the process id
  // that the agent had when its copy was made.
  qortest::writeFile(filesOf(agent).failNext, "");
  AgentOpEvent event;
  apply(event, agent, OpStopping, agent_start_after_failure);

  EXPECT_TRUE(event.getIncrementFlag());
  EXPECT_EQ(OpStarting, event.getOpState());
  EXPECT_EQ(agent_start_after_failure, event.getEventTypeID());
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_EQ(OpStarting, stateOf(agent));
  EXPECT_EQ(1, traced("Initiating starting of agent id (ops.qorrestartd).\n"));
  EXPECT_TRUE(workersIdle(30000));
  EXPECT_EQ(0, pidOf(agent));
  // Not charged yet: a restart is charged when it has succeeded or is retried.
  EXPECT_EQ(1, countOf(agent));
  EXPECT_EQ(1, starts(agent));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_restart_failed, raised[0]->getEventTypeID());
  EXPECT_EQ(OpStarting, raised[0]->getOpState());
  EXPECT_EQ(7, raised[0]->getStartStatus());
  EXPECT_TRUE(raised[0]->getIncrementFlag());
  EXPECT_EQ(agent, raised[0]->getAgent());
  for (AgentOpEvent* e : raised) delete e;
  EXPECT_EQ((std::vector<int>{agent_start_after_failure}), idsOf(heard()));
}

TEST_F(OperatingRows, ARestartOfASuiteAgentIsKeptFromTheListeners) {
  AgentShape shape{"qorsuiterestartd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  agent->setOperatingState(OpStopping);
  AgentOpEvent event;
  apply(event, agent, OpStopping, agent_start_after_failure);

  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_TRUE(event.getIncrementFlag());
  EXPECT_EQ(std::vector<int>{}, idsOf(heard()));
  EXPECT_EQ(1, traced("Message suppressed for event id 24."));
  EXPECT_TRUE(workersIdle(30000));
  EXPECT_EQ(1, starts(agent));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_started, raised[0]->getEventTypeID());
  EXPECT_TRUE(raised[0]->getIncrementFlag());
  for (AgentOpEvent* e : raised) delete e;
}

TEST_F(OperatingRows, AFirstStartOfASuiteAgentThatFailsAtOnceIsHeardOnlyThroughItsFailedStartCopy) {
  AgentShape shape{"qorsuitefaild"};
  shape.suite = true;
  shape.dependent = "ops.nowhere";
  Agent* agent = makeAgent(shape);
  AgentOpEvent event;
  apply(event, agent, OpStopped, agent_initial_start);

  EXPECT_EQ(agent_restart_failed, event.getEventTypeID());
  EXPECT_EQ(1, event.getStartStatus());
  EXPECT_TRUE(event.messagesSuppressed());
  EXPECT_EQ(std::vector<int>{}, idsOf(heard()));
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_restart_failed, raised[0]->getEventTypeID());
  EXPECT_EQ(OpStarting, raised[0]->getOpState());
  EXPECT_EQ(1, raised[0]->getStartStatus());
  EXPECT_FALSE(raised[0]->messagesSuppressed());
  EXPECT_FALSE(raised[0]->getIncrementFlag());
  EXPECT_EQ(agent, raised[0]->getAgent());
  EXPECT_FALSE(raised[0]->isAgentOwned());
  for (AgentOpEvent* e : raised) delete e;
  EXPECT_EQ(0, agent->getDailyRestartCount());
}

TEST_F(OperatingRows, ARestartOfASuiteAgentThatFailsAtOnceIsHeardAsAFailedRestart) {
  AgentShape shape{"qorsuiterefaild"};
  shape.suite = true;
  shape.dependent = "ops.nowhere";
  Agent* agent = makeAgent(shape);
  agent->setOperatingState(OpStopping);
  AgentOpEvent event;
  apply(event, agent, OpStopping, agent_start_after_failure);

  EXPECT_EQ(agent_restart_failed, event.getEventTypeID());
  EXPECT_EQ(1, event.getStartStatus());
  EXPECT_FALSE(event.messagesSuppressed());
  EXPECT_TRUE(event.getIncrementFlag());
  std::vector<Heard> messages = heard();
  ASSERT_EQ((std::vector<int>{agent_restart_failed}), idsOf(messages));
  EXPECT_EQ(operational(agent, L"Agent restart failed - Dependent agent id not found."), messages[0].text);
  std::vector<AgentOpEvent*> raised = takeRaised();
  ASSERT_EQ(1u, raised.size());
  EXPECT_EQ(agent_restart_failed, raised[0]->getEventTypeID());
  EXPECT_EQ(OpStarting, raised[0]->getOpState());
  EXPECT_FALSE(raised[0]->messagesSuppressed());
  EXPECT_TRUE(raised[0]->getIncrementFlag());
  for (AgentOpEvent* e : raised) delete e;
}

TEST_F(OperatingRows, ALimitReachedWhileStoppingStopsTheAgentWithTheSameErrorTrace) {
  Agent* agent = makeAgent({"qorlimit6d"});
  launch(agent);
  agent->setOperatingState(OpStopping);
  qortest::traceTo(dir.file("errors"), QOR_TL_ERROR);
  AgentOpEvent event;
  apply(event, agent, OpStopping, agent_restart_exceeded);

  EXPECT_EQ(OpStopped, agent->getOperatingState());
  EXPECT_EQ(0, agent->getProcID());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("errors")),
                                         "Agent id ops.qorlimit6d restart count exceeded and will not be "
                                         "restarted."));
  EXPECT_EQ((std::vector<int>{agent_restart_exceeded}), idsOf(heard()));
}

// ---- Without a Watchdog -------------------------------------------------------------

TEST_F(OperatingRows, AnOperatingEventForAnAgentWithoutWatchdogIsIgnoredInEveryOperatingState) {
  AgentShape shape{"qorunwatchedd"};
  shape.watched = false;
  Agent* agent = makeAgent(shape);
  agent->setDailyRestartCount(1);
  struct Case {
    int opState;
    int id;
  };
  for (const Case& row : {Case{OpStopped, agent_initial_start}, Case{OpStarting, agent_restart_failed},
                          Case{OpRunning, agent_stop_cmd}, Case{OpManuallyStopped, agent_start_cmd},
                          Case{OpStopping, agent_start_after_failure}}) {
    SCOPED_TRACE("opState " + std::to_string(row.opState));
    agent->setOperatingState(OpRunning);
    agent->setProcID(4321);
    AgentOpEvent event;
    apply(event, agent, row.opState, row.id);
    EXPECT_EQ(OpRunning, agent->getOperatingState());
    EXPECT_EQ(4321, agent->getProcID());
    EXPECT_EQ(1, agent->getDailyRestartCount());
    EXPECT_EQ(row.id, event.getEventTypeID());
    EXPECT_EQ(row.opState, event.getOpState());
    EXPECT_EQ((std::vector<int>{row.id}), idsOf(heard()));
    EXPECT_TRUE(takeRaised().empty());
    EXPECT_EQ(1, traced("ignoring state change -- watchdog is null -- agent op state = " +
                        std::to_string(row.opState) + ".\n"));
  }
  EXPECT_EQ(5, traced("agent watchdog is null.\n"));
  EXPECT_TRUE(controller()->getWorkerThreads()->isVectorEmpty());
  EXPECT_EQ(0, starts(agent));
}

// ---- Watchdog mode ------------------------------------------------------------------

// The watchdog process: its mode is chosen for good, so these tests run in a
// process of their own.
class WatchdogModeRows : public OperatingRows {
 protected:
  bool wantsWatchdogMode() const override { return true; }
  std::string stopMarker() const {
    return suite.path() + "/" + kBinArch + "/" + kSuiteCode + "/bin/.qorwd_disable_stop";
  }
};

TEST_F(WatchdogModeRows, TheStopMarkerStandsWhileTheAgentIsStoppedForARestartAndOnlyTheRestartIsKeptQuiet) {
  ASSERT_EQ(0, mkdir((suite.path() + "/" + kBinArch).c_str(), 0755));
  ASSERT_EQ(0, mkdir((suite.path() + "/" + kBinArch + "/" + kSuiteCode).c_str(), 0755));
  ASSERT_EQ(0, mkdir((suite.path() + "/" + kBinArch + "/" + kSuiteCode + "/bin").c_str(), 0755));
  AgentShape shape{"qorosd"};
  shape.suite = true;
  Agent* agent = makeAgent(shape);
  launch(agent);

  // Found unhealthy: the marker is made before the stop script runs, and the
  // restart removes it before the start.
  AgentOpEvent sick;
  apply(sick, agent, OpRunning, agent_memory_exceeded);
  EXPECT_FALSE(sick.messagesSuppressed());
  EXPECT_TRUE(workersIdle(30000));
  EXPECT_EQ("stop\nmarked\n", stopLog(agent));
  EXPECT_TRUE(qortest::fileExists(stopMarker()));
  EXPECT_EQ((HandledList{{agent_start_after_failure, OpStopping, agent_start_after_failure},
                         {agent_started, OpStarting, agent_started}}),
            settle());
  EXPECT_FALSE(qortest::fileExists(stopMarker()));
  // The restart is kept quiet in this mode too, and its result with it, since
  // the worker's copy of the event keeps its suppression.
  EXPECT_EQ(1, traced("Message suppressed for event id 24."));
  EXPECT_EQ(1, traced("Message suppressed for event id 7."));
  EXPECT_EQ((std::vector<int>{agent_memory_exceeded}), idsOf(heard()));
  EXPECT_EQ(1, countOf(agent));
  EXPECT_EQ(OpRunning, stateOf(agent));

  // An operator's stop of a suite agent is heard in this mode, and leaves the marker.
  AgentOpEvent stop;
  apply(stop, agent, OpRunning, agent_stop_cmd);
  EXPECT_FALSE(stop.messagesSuppressed());
  EXPECT_TRUE(qortest::fileExists(stopMarker()));
  EXPECT_EQ((HandledList{{agent_stopped, OpStopping, agent_stopped}}), settle());
  EXPECT_EQ("stop\nmarked\nstop\nmarked\n", stopLog(agent));
  EXPECT_EQ(OpManuallyStopped, stateOf(agent));
  EXPECT_EQ((std::vector<int>{agent_stop_cmd, agent_stopped}), idsOf(heard()));

  // So are its start and its first start.
  AgentOpEvent start;
  apply(start, agent, OpManuallyStopped, agent_start_cmd);
  EXPECT_FALSE(start.messagesSuppressed());
  EXPECT_EQ((HandledList{{agent_started, OpStarting, agent_started}}), settle());
  locked([&] {
    agent->setOperatingState(OpStopped);
    return 0;
  });
  AgentOpEvent first;
  apply(first, agent, OpStopped, agent_initial_start);
  EXPECT_FALSE(first.messagesSuppressed());
  EXPECT_EQ((HandledList{{agent_started, OpStarting, agent_started}}), settle());
  EXPECT_EQ((std::vector<int>{agent_start_cmd, agent_started, agent_initial_start, agent_started}),
            idsOf(heard()));
  EXPECT_EQ(0, traced("Message suppressed for event id 5."));
  EXPECT_EQ(0, traced("Message suppressed for event id 22."));
}

}  // namespace
