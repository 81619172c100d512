// Operator commands of the query service written as data, and what the tests
// of those commands share: a call under a deadline, start and stop scripts held
// at a gate, a state file's record, and the walk of a table of commands with
// the events heard after each. Used by the end-to-end tests, on any thread.
#ifndef QOR_TESTS_E2E_QUERYCALLS_H
#define QOR_TESTS_E2E_QUERYCALLS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cap/capfiles.h"
#include "core/qorctrl.h"
#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace e2e {

enum class Command { Start, Stop, Recycle, Reset, Manage, Unmanage };

// One command and its arguments; the fields a command does not take are ignored.
struct Call {
  Command command;
  std::wstring name;
  std::wstring process;
  std::wstring instance;
  int pid = -1;
  bool resetCount = false;
};

inline Call startOf(const std::wstring& name, const std::wstring& process, bool resetCount = false) {
  return Call{Command::Start, name, process, L"", -1, resetCount};
}
inline Call stopOf(const std::wstring& name, const std::wstring& process, int pid = -1) {
  return Call{Command::Stop, name, process, L"", pid, false};
}
inline Call recycleOf(const std::wstring& name, const std::wstring& process, int pid = -1) {
  return Call{Command::Recycle, name, process, L"", pid, false};
}
inline Call resetOf(const std::wstring& name, const std::wstring& process) {
  return Call{Command::Reset, name, process, L"", -1, false};
}
inline Call manageOf(const std::wstring& name) { return Call{Command::Manage, name, L"", L"", -1, false}; }
inline Call unmanageOf(const std::wstring& name) {
  return Call{Command::Unmanage, name, L"", L"", -1, false};
}

inline std::string narrow(const std::wstring& text) {
  char* converted = QOR_wcstombs(text);
  std::string result = converted != nullptr ? converted : "";
  delete[] converted;
  return result;
}

inline const char* commandName(Command command) {
  switch (command) {
    case Command::Start:
      return "startAgent";
    case Command::Stop:
      return "stopAgent";
    case Command::Recycle:
      return "recycleAgent";
    case Command::Reset:
      return "resetRestartCount";
    case Command::Manage:
      return "startManagingAgent";
    case Command::Unmanage:
      return "stopManagingAgent";
  }
  return "?";
}

// The call as a line of a failure message: startAgent("Name", process "p", pid -1).
inline std::string describe(const Call& call) {
  std::string text = std::string(commandName(call.command)) + "(\"" + narrow(call.name) + "\"";
  if (call.command != Command::Manage && call.command != Command::Unmanage) {
    text += ", process \"" + narrow(call.process) + "\"";
  }
  if (!call.instance.empty()) text += ", instance \"" + narrow(call.instance) + "\"";
  if (call.command == Command::Stop || call.command == Command::Recycle) {
    text += ", pid " + std::to_string(call.pid);
  }
  if (call.resetCount) text += ", resetCount";
  return text + ")";
}

inline int send(QOR_QueryService* service, const Call& call) {
  switch (call.command) {
    case Command::Start:
      return service->startAgent(call.name, call.resetCount, call.process, call.instance);
    case Command::Stop:
      return service->stopAgent(call.name, call.process, call.pid);
    case Command::Recycle:
      return service->recycleAgent(call.name, call.process, call.instance, call.pid);
    case Command::Reset:
      return service->resetRestartCount(call.name, call.process, call.instance);
    case Command::Manage:
      return service->startManagingAgent(call.name);
    case Command::Unmanage:
      return service->stopManagingAgent(call.name);
  }
  return -2;
}

// How long any one call into the service may take before it counts as blocked.
constexpr int kCallDeadlineMs = 5000;

// Runs `call` on a thread of its own and returns its result, unless it takes
// longer than `ms`: then the test fails and the process ends at once, since a
// thread blocked inside the service can be neither joined nor left behind.
template <typename Function>
auto within(int ms, const std::string& what, Function call) -> decltype(call()) {
  std::packaged_task<decltype(call())()> task(std::move(call));
  auto result = task.get_future();
  std::thread runner(std::move(task));
  if (result.wait_for(std::chrono::milliseconds(ms)) != std::future_status::ready) {
    ADD_FAILURE() << what << " has not returned within " << ms << " ms";
    std::fflush(nullptr);
    std::_Exit(1);
  }
  runner.join();
  return result.get();
}

// A command of the table, sent through the service within the deadline.
inline int sendWithin(QOR_QueryService* service, const Call& call) {
  return within(kCallDeadlineMs, describe(call), [service, call] { return send(service, call); });
}

// Start and stop scripts that pass the action on to the example script, but
// first wait while a gate file of the action and the program exists: an
// agent whose gate is held stays starting (3) or stopping (6) until the test
// opens it. Every gate is opened at the end, so that no script outlives the
// test for long.
class GatedScripts {
 public:
  explicit GatedScripts(const Programs& programs) {
    qortest::writeFile(path(),
                       "#!/bin/sh\n"
                       "set -u\n"
                       "while [ -f '" +
                           dir_.path() +
                           "/'\"$2.$1.held\" ]; do sleep 0.05; done\n"
                           "QOR_EXAMPLES_RUN='" +
                           programs.dir() + "' exec /bin/sh '" + programs.script() +
                           "' \"$1\" \"$2\" >/dev/null\n");
  }
  ~GatedScripts() {
    for (const std::string& gate : held_) std::remove(gate.c_str());
  }
  // From now on the `action` ("start" or "stop") of `program` waits at its gate.
  void hold(const std::string& action, const std::string& program) {
    held_.push_back(gate(action, program));
    qortest::writeFile(held_.back(), "");
  }
  void open(const std::string& action, const std::string& program) {
    std::remove(gate(action, program).c_str());
  }
  // The script element of a CAP file, `element` being startScript or stopScript.
  std::string element(const std::string& element, const std::string& action,
                      const std::string& program) const {
    return captest::script(element, "/bin/sh " + path() + " " + action + " " + program);
  }
  std::string path() const { return dir_.file("gated.sh"); }

 private:
  std::string gate(const std::string& action, const std::string& program) const {
    return dir_.file(program + "." + action + ".held");
  }

  qortest::TempDir dir_;
  std::vector<std::string> held_;
};

// An agent of `programs` whose starts and stops go through `gates`, checked
// every `checkFrequency` seconds.
inline captest::Subagent gatedAgent(const std::string& id, const std::string& name, const Programs& programs,
                                    const std::string& program, const GatedScripts& gates, int checkFrequency,
                                    int maxRestarts = 3) {
  captest::Subagent agent;
  agent.id = id;
  agent.agentName = "<agentName>" + name + "</agentName>";
  agent.procName = "<procName>" + program + "</procName>";
  agent.agentPath = "<agentPath>" + programs.path(program) + "</agentPath>";
  agent.checkFrequency = "<checkFrequency>" + std::to_string(checkFrequency) + "</checkFrequency>";
  agent.maxRestarts = "<maxRestarts>" + std::to_string(maxRestarts) + "</maxRestarts>";
  agent.startScript = gates.element("startScript", "start", program);
  agent.stopScript = gates.element("stopScript", "stop", program);
  return agent;
}

// A record of the state file as the service writes it, for a console agent.
inline std::string stateRecord(const std::string& id, const std::string& process, int managed,
                               const std::string& name, int state, int count, const std::string& path) {
  return "*\n6.2.2.2\n" + id + "\n" + process + "\n\n\n" + std::to_string(managed) + "\n" + name + "\n" +
         std::to_string(state) + "\n" + process + "\n0\n" + std::to_string(count) + "\n" + path +
         "\n1\n\n\n0\n*\n";
}

// One row of a table of commands: the call and the code it must return, the
// events heard after it, exactly and in order, and the operating state the
// agent settles in. A row with no call only arranges something (a gate held or
// opened) and hears what follows from it.
struct Row {
  std::string what;
  std::function<void()> arrange;
  bool hasCall = false;
  Call call{Command::Start, L"", L"", L"", -1, false};
  int code = 0;
  std::vector<std::string> heard;
  int state = -1;
  // The subagent id of the agent that `state` is of, when not the walk's own.
  std::string agent;
  // An error trace that the call writes once, when the code alone does not
  // tell which refusal it was.
  std::string traced;
};

// A refusal: the code, and nothing queued.
inline Row refused(const Call& call, int code, const std::string& traced = std::string()) {
  Row row;
  row.what = describe(call) + " answers " + std::to_string(code);
  row.hasCall = true;
  row.call = call;
  row.code = code;
  row.traced = traced;
  return row;
}

// An accepted command, the events that follow it and the state it leaves the agent in.
inline Row accepted(const Call& call, const std::vector<std::string>& heard, int state) {
  Row row = refused(call, 0);
  row.heard = heard;
  row.state = state;
  return row;
}

inline Row step(const std::string& what, const std::function<void()>& arrange,
                const std::vector<std::string>& heard = {}, int state = -1) {
  Row row;
  row.what = what;
  row.arrange = arrange;
  row.heard = heard;
  row.state = state;
  return row;
}

// The row, with its state taken of the agent `agent`.
inline Row of(const std::string& agent, Row row) {
  row.agent = agent;
  return row;
}

// The exact line that HeardEvents keeps of an event of an agent.
inline std::string operational(int id, const std::string& name, const std::string& text) {
  char prefix[8];
  std::snprintf(prefix, sizeof prefix, "[%2d] ", id);
  return prefix + name + " Operational Event: " + text;
}
inline std::string management(int id, const std::string& name, const std::string& text) {
  char prefix[8];
  std::snprintf(prefix, sizeof prefix, "[%2d] ", id);
  return prefix + name + " Management Event: " + text;
}
inline const char* disarmedLine() { return "[18]  Watchdog Event: Disarm completed successfully"; }
inline const char* rearmedLine() { return "[19]  Watchdog Event: Rearm completed successfully"; }
inline const char* unreliableLine() { return "[27] Teo Services watchdog not reliable"; }

// The service embedded in the test with gated scripts for its agents, and a
// walk through a table of commands.
class QueryService : public EmbeddedService {
 protected:
  QueryService() : gates(programs) {}

  // Waits until every event of the start has been heard, with an event of
  // the embedder's that goes through the same queues, and hears only what
  // comes after it from now on. The start never rearms, so the rearm's event
  // is known for the barrier's own; a service that was disarmed is disarmed
  // again after it, which the listeners hear as a warning, then the disarm.
  void hearFromNowOn() {
    const bool disarmed = Controller::getController()->isDisarmed();
    ASSERT_EQ(0, heard.exactly(rearmedLine())) << joined(heard.all());
    RearmWatchdog(0);
    ASSERT_TRUE(qortest::waitFor([&] { return heard.exactly(rearmedLine()) == 1; }, 5000))
        << joined(heard.all());
    std::vector<std::string> lines = heard.all();
    cursor = std::find(lines.begin(), lines.end(), rearmedLine()) - lines.begin() + 1;
    if (!disarmed) return;
    DisarmWatchdog(0);
    ASSERT_TRUE(qortest::waitFor([&] { return heard.all().size() >= cursor + 2; }, 5000))
        << joined(heard.all(), cursor);
    lines = heard.all();
    ASSERT_EQ((std::vector<std::string>{unreliableLine(), disarmedLine()}),
              std::vector<std::string>(lines.begin() + cursor, lines.begin() + cursor + 2));
    cursor += 2;
    ASSERT_TRUE(Controller::getController()->isDisarmed());
  }

  // Walks the rows in order. A refusal must leave nothing to hear; the
  // events of the next row that has some prove that nothing came in between,
  // since they pass through the same queues after anything it might have
  // queued. The agent `id` is the one whose state the rows give.
  void walk(const std::vector<Row>& rows, const std::string& id) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.what);
      if (row.arrange) row.arrange();
      const int tracedBefore = row.traced.empty() ? 0 : traced(row.traced);
      if (row.hasCall) {
        EXPECT_EQ(row.code, sendWithin(service, row.call));
      }
      if (!row.traced.empty()) {
        EXPECT_EQ(tracedBefore + 1, traced(row.traced)) << row.traced;
      }
      if (row.heard.empty()) {
        EXPECT_EQ(cursor, heard.all().size()) << joined(heard.all(), cursor);
      } else {
        const size_t expected = cursor + row.heard.size();
        ASSERT_TRUE(qortest::waitFor([&] { return heard.all().size() >= expected; }, 15000))
            << joined(heard.all(), cursor);
        std::vector<std::string> lines = heard.all();
        EXPECT_EQ(row.heard, std::vector<std::string>(lines.begin() + cursor, lines.begin() + expected));
        cursor = expected;
      }
      const std::string& agent = row.agent.empty() ? id : row.agent;
      if (row.state >= 0) {
        ASSERT_TRUE(waitForState(agent, row.state, 15000)) << agent << " in state " << seen(agent).state;
      }
    }
  }

  static std::string joined(const std::vector<std::string>& lines, size_t from = 0) {
    std::string text;
    for (size_t i = from; i < lines.size(); ++i) text += lines[i] + "\n";
    return text;
  }

  GatedScripts gates;
  // How many of the events heard the rows have accounted for.
  size_t cursor = 0;
};

}  // namespace e2e

#endif  // QOR_TESTS_E2E_QUERYCALLS_H
