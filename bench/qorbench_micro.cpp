// Micro benchmarks of qor: each function times one real code path of the
// library as the service takes it -- a CAP file read, the process table, one
// policy's match, one availability check, a variable substitution, one socket
// exchange. Run by Google Benchmark on the main thread of one process; what a
// benchmark starts (processes, a socket server) it stops before it returns.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "cap/capfiles.h"
#include "cap/qorpol.h"
#include "cap/qorxmlproc.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "interfaces/qorsockclient.h"
#include "interfaces/qorsockserv.h"
#include "interfaces/socktest.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "support/queues.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorunx.h"
#include "watchdog/qorwd.h"

namespace {

std::wstring wide(const std::string& text) { return captest::wide(text); }

// The check frequency of the agents made here; a check is due once this many
// seconds have passed since the last.
constexpr int kCheckFrequency = 60;

// A subagent for the executable `exe`, found by its name and its directory.
captest::Subagent subagentFor(const std::string& exe, const std::string& statusCommand = std::string()) {
  captest::Subagent subagent;
  subagent.id = "bench.agent";
  subagent.procName = "<procName>" + exe.substr(exe.rfind('/') + 1) + "</procName>";
  subagent.agentPath = "<agentPath>" + exe + "</agentPath>";
  subagent.checkFrequency = "<checkFrequency>" + std::to_string(kCheckFrequency) + "</checkFrequency>";
  if (!statusCommand.empty()) {
    subagent.availabilityStatusScript = captest::script("availabilityStatusScript", statusCommand);
  }
  return subagent;
}

// Copies of /bin/sleep running as `exe`; killed and reaped at the end.
class Sleepers {
 public:
  Sleepers(const std::string& exe, int count) : exe_(exe) {
    proctest::copyProgram("/bin/sleep", exe_);
    for (int i = 0; i < count; ++i) processes_.emplace_back(new proctest::Process({exe_, "600"}));
  }
  // Waits until /proc shows each of them as `exe`, 5 s at most each; false
  // when one never does.
  bool ready() const {
    return std::all_of(
        processes_.begin(), processes_.end(), [&](const std::unique_ptr<proctest::Process>& p) {
          return qortest::waitFor([&] { return proctest::runsExecutable(p->pid(), exe_); }, 5000);
        });
  }
  std::vector<int> pids() const {
    std::vector<int> ids;
    for (const auto& process : processes_) ids.push_back(process->pid());
    return ids;
  }

 private:
  std::string exe_;
  std::vector<std::unique_ptr<proctest::Process>> processes_;
};

// ---- Reading a CAP file -----------------------------------------------------------

// One CAP file read as the service reads it: expat in blocks, validated
// against the schema while it is read, the subagent for this platform turned
// into a Policy. The processor is reused, as the Controller and qorctl do.
void BM_CapParseAndValidate(benchmark::State& state) {
  qortest::TempDir dir;
  const std::string text = qortest::readFile(qortest::sourceDir() + "/examples/cap/sleeper.xml");
  qortest::writeFile(dir.file("sleeper.xml"), text);
  const std::wstring path = wide(dir.file("sleeper.xml"));
  XMLprocessor processor;
  for (auto _ : state) {
    Policy policy;
    if (processor.parse(path, policy) != XML_OK) {
      state.SkipWithError("sleeper.xml was not read as valid");
      break;
    }
    benchmark::DoNotOptimize(policy);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_CapParseAndValidate);

// ---- The process table ------------------------------------------------------------

// One read of /proc into records, freed again as every caller frees them.
void BM_ProcessTableRead(benchmark::State& state) {
  QorCmd* manager = GetCmdManager();
  size_t count = 0;
  for (auto _ : state) {
    std::vector<QorProcess*> processes;
    manager->getRunningProcesses(processes);
    count = processes.size();
    for (QorProcess* process : processes) delete process;
  }
  state.counters["processes"] = static_cast<double>(count);
}
BENCHMARK(BM_ProcessTableRead);

// The records of this host's process table, padded with copies of its other
// records to `size`; the records of `keep` stay, spread through the table.
std::vector<QorProcess*> tableOf(size_t size, const std::vector<int>& keep) {
  std::vector<QorProcess*> real;
  GetCmdManager()->getRunningProcesses(real);
  std::vector<QorProcess*> kept;
  std::vector<QorProcess*> others;
  for (QorProcess* process : real) {
    const bool wanted = std::find(keep.begin(), keep.end(), process->getProcID()) != keep.end();
    (wanted ? kept : others).push_back(process);
  }
  while (!others.empty() && others.size() + kept.size() > size) {
    delete others.back();
    others.pop_back();
  }
  for (size_t i = 0; !others.empty() && others.size() + kept.size() < size; ++i) {
    others.push_back(new QorProcess(*others[i]));
  }
  std::vector<QorProcess*> table = others;
  for (size_t k = 0; k < kept.size(); ++k) {
    const size_t at = std::min(table.size(), (k + 1) * size / (kept.size() + 1));
    table.insert(table.begin() + static_cast<long>(at), kept[k]);
  }
  return table;
}

// One policy matched against a process table of 500 records, three of which
// are its own: the step that discovery and reconciliation take for every
// policy in each cycle.
void BM_MatchOnePolicyAgainst500Processes(benchmark::State& state) {
  constexpr size_t kTableSize = 500;
  qortest::TempDir lab;
  const std::string exe = lab.file("qorbenchm");
  Sleepers sleepers(exe, 3);
  if (!sleepers.ready()) {
    state.SkipWithError("the processes to match did not start");
    return;
  }
  XMLprocessor processor;
  Policy policy;
  if (captest::parseText(processor, lab, captest::document(subagentFor(exe)), policy) != XML_OK) {
    state.SkipWithError("the policy's CAP file was not read as valid");
    return;
  }
  std::vector<QorProcess*> table = tableOf(kTableSize, sleepers.pids());
  std::vector<QorProcess*> matched;
  for (auto _ : state) {
    matched.clear();
    GetCmdManager()->getPolicyProcesses(&policy, table, matched);
  }
  state.counters["records"] = static_cast<double>(table.size());
  state.counters["matched"] = static_cast<double>(matched.size());
  if (matched.size() != 3) state.SkipWithError("the policy did not match its three processes");
  for (QorProcess* process : table) delete process;
}
BENCHMARK(BM_MatchOnePolicyAgainst500Processes);

// ---- One availability check -------------------------------------------------------

// One agent as the service keeps it: made from a CAP file, with its Watchdog,
// in the managed list, its process (a copy of /bin/sleep) running and found
// once, as discovery finds it. Out of the list and stopped at the end. No
// service thread runs: what a check asks of the state machine stays on the
// command queue, where check() looks for it.
class CheckedAgent {
 public:
  explicit CheckedAgent(const std::string& statusCommand)
      : sleeper_(dir_.file("qorbenchd"), 1),
        list_(Controller::getController()->getManagedEndpointProcesses()) {
    // The check looks for the remote deploy marker in the CAP folders.
    Controller::getController()->setCAPDirPaths({wide(dir_.path() + "/")});
    Policy* policy = new Policy();  // the agent frees it
    XMLprocessor processor;
    parsed_ = captest::parseText(processor, dir_,
                                 captest::document(subagentFor(dir_.file("qorbenchd"), statusCommand)),
                                 *policy) == XML_OK;
    agent_.reset(new Agent());
    agent_->setIdentityFrom(policy);
    agent_->setInstanceProcName(policy->getProcName());
    agent_->setManagedState(Managed);
    agent_->setOperatingState(OpRunning);
    Watchdog* watchdog = new Watchdog();  // the agent frees it
    watchdog->setAgent(agent_.get());
    agent_->setWatchdog(watchdog);
    const bool running = sleeper_.ready();
    list_->lockList();
    list_->push_back(agent_.get());
    if (parsed_ && running) GetCmdManager()->collectProcessData(agent_.get());
    list_->unlockList();
  }
  ~CheckedAgent() {
    list_->lockList();
    list_->clear();  // the agent is the list's only one
    list_->unlockList();
    for (Event* event : qortest::takeEvents(Controller::getController()->getCommandHandler())) delete event;
  }
  CheckedAgent(const CheckedAgent&) = delete;
  CheckedAgent& operator=(const CheckedAgent&) = delete;

  // Found running, with the process started here.
  bool ready() const { return parsed_ && agent_->getProcID() == sleeper_.pids().front(); }

  // One check, due, as the command handler runs it: with the list locked.
  void check() {
    list_->lockList();
    agent_->setCheckTime(time(nullptr) - kCheckFrequency);
    agent_->getWatchdog()->checkAvailability();
    list_->unlockList();
  }

  // The agent still reads as running and no check asked for anything.
  bool stillUp() {
    const std::vector<Event*> raised = qortest::takeEvents(Controller::getController()->getCommandHandler());
    for (Event* event : raised) delete event;
    list_->lockList();
    const bool running = agent_->getOperatingState() == OpRunning;
    list_->unlockList();
    return raised.empty() && running;
  }

 private:
  qortest::TempDir dir_;
  Sleepers sleeper_;
  ManagedProcessList* list_;
  std::unique_ptr<Agent> agent_;
  bool parsed_ = false;
};

void runChecks(benchmark::State& state, const std::string& statusCommand) {
  CheckedAgent agent(statusCommand);
  if (!agent.ready()) {
    state.SkipWithError("the agent's process was not found");
    return;
  }
  for (auto _ : state) agent.check();
  if (!agent.stillUp()) state.SkipWithError("a check found the agent down");
}

// A whole Watchdog::checkAvailability of an agent without a status script:
// the due test, the process match by name and path in /proc, and the health
// figures of the process read from /proc.
void BM_AvailabilityCheckWithoutScript(benchmark::State& state) { runChecks(state, std::string()); }
BENCHMARK(BM_AvailabilityCheckWithoutScript)->Unit(benchmark::kMicrosecond);

// The same check with a status script that exits at once: the script runs
// through the command manager (shell, output pipe, poll loop) in place of
// the process match; the health figures are read as well.
void BM_AvailabilityCheckWithScript(benchmark::State& state) { runChecks(state, "exit 0"); }
// Wall time decides how long it runs: the check mostly waits.
BENCHMARK(BM_AvailabilityCheckWithScript)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

// ---- Variable substitution --------------------------------------------------------

// The run variables of a typical start command: the instance three times and
// the agent's user once, as every script run expands them.
void BM_VariableSubstitution(benchmark::State& state) {
  const std::wstring command =
      L"su ##USER## -c '/opt/app/bin/appctl start ##INSTANCE## --log /var/log/app/##INSTANCE##.log "
      L"--pid /var/run/app/##INSTANCE##.pid'";
  Agent agent;
  agent.setInstanceName(L"db1");
  agent.setUserName(L"oracle");
  std::wstring result;
  for (auto _ : state) {
    result = ReplaceTEOVariables(command, &agent);
    benchmark::DoNotOptimize(result);
  }
  if (result.find(L"##") != std::wstring::npos) state.SkipWithError("a variable was left in the command");
}
BENCHMARK(BM_VariableSubstitution);

// ---- One socket exchange ----------------------------------------------------------

// One state command on .teo_sock and its answer, with the client's waits at
// their defaults: connect, send, the server's parse and queueing of the
// event, the answer, the client's wait for it. The server runs on a thread of
// its own, as the service runs it.
void BM_SocketRequestAndAnswer(benchmark::State& state) {
  qortest::TempDir dir;
  setenv("QOR_IP_DIR", dir.path().c_str(), 1);
  // The length of the client's wait for the answer is part of the figure.
  unsetenv("QOR_SOCKET_ANSWER_WAIT");
  socktest::ListedAgents agents;
  agents.add(L"Bench agent", L"qg", L"", Managed, OpRunning);
  TEOSocketServer server;
  socktest::ServerThread thread(server);
  if (!thread.start()) {
    state.SkipWithError("the socket server did not listen");
    return;
  }
  int result = 0;
  for (auto _ : state) {
    result = sendTEOCommand("622 started qg");
    if (result != 0) break;
  }
  if (result != 0) state.SkipWithError("the command was not answered with 0");
  if (thread.stop() != SOCKET_SERVER_SHUT_DOWN) state.SkipWithError("the socket server did not stop");
  unsetenv("QOR_IP_DIR");
}
// Wall time decides how long it runs: the client mostly waits.
BENCHMARK(BM_SocketRequestAndAnswer)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // Traces stay off unless QOR_TRACE_LEVEL asks for them: the socket
  // exchange and the platform's detection trace normal steps at the error
  // level, which would flood the console. Each benchmark checks its own
  // outcome and says so when it fails.
  if (std::getenv("QOR_TRACE_LEVEL") == nullptr) LOG1_SetMask(0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
