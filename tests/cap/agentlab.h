// Helpers of the tests that make agents from CAP files: programs of our own
// under chosen names in a directory of their own, running or not, and records
// of the state file teo.dat in the layout that the service writes. Used on
// the test's main thread; the lab kills and reaps what it started.
#ifndef QOR_TESTS_CAP_AGENTLAB_H
#define QOR_TESTS_CAP_AGENTLAB_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "agents/qoragt.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"

namespace captest {

// A process id that no process has.
constexpr int kNoSuchProcess = 4194000;

// One record of teo.dat, in the layout of version 6.2.2.2.
struct Persisted {
  std::string id;
  std::string instanceProcName;
  std::string instanceName;
  int managedState = Managed;
  std::string name = "Persisted agent";
  int operatingState = OpRunning;
  std::string procName;
  int procID = 0;
  int dailyRestartCount = 0;
  std::string path;
  int type = Console;

  std::string lines() const {
    return "*\n6.2.2.2\n" + id + "\n" + instanceProcName + "\n" + instanceName + "\n\n" +
           std::to_string(managedState) + "\n" + name + "\n" + std::to_string(operatingState) + "\n" +
           procName + "\n" + std::to_string(procID) + "\n" + std::to_string(dailyRestartCount) + "\n" + path +
           "\n" + std::to_string(type) + "\n\n\n0\n*\n";
  }
};

// The whole file: the count, then the records.
inline std::string teoDat(const std::vector<Persisted>& records) {
  std::string text = std::to_string(records.size()) + "\n";
  for (const Persisted& record : records) text += record.lines();
  return text;
}

class AgentLab {
 public:
  // The executable `name` of the lab, a copy of sleep; it exists but does not run.
  std::string program(const std::string& name) {
    std::string exe = lab_.file(name);
    if (!qortest::fileExists(exe)) proctest::copyProgram("/bin/sleep", exe);
    return exe;
  }
  // Runs the program `name`; its process id once /proc shows it.
  int run(const std::string& name) {
    std::string exe = program(name);
    return start({exe, "30"}, exe);
  }
  // Runs a copy of the shell as `name` with a script and `args`, which stand
  // at the end of its command line.
  int runShell(const std::string& name, const std::vector<std::string>& args) {
    std::string exe = lab_.file(name);
    if (!qortest::fileExists(exe)) proctest::copyProgram("/bin/sh", exe);
    std::string script = scripts_.file(name + std::to_string(processes_.size()) + ".sh");
    qortest::writeFile(script, "while :; do sleep 1; done\n");
    std::vector<std::string> argv{exe, script};
    argv.insert(argv.end(), args.begin(), args.end());
    return start(argv, exe);
  }
  std::string file(const std::string& name) const { return lab_.file(name); }

 private:
  int start(const std::vector<std::string>& argv, const std::string& exe) {
    processes_.emplace_back(new proctest::Process(argv));
    int pid = processes_.back()->pid();
    EXPECT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(pid, exe); }, 5000)) << exe;
    return pid;
  }

  qortest::TempDir lab_;
  qortest::TempDir scripts_;
  std::vector<std::unique_ptr<proctest::Process>> processes_;
};

}  // namespace captest

#endif  // QOR_TESTS_CAP_AGENTLAB_H
