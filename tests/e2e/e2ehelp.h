// Helpers of the end-to-end tests: programs run by the example script, CAP
// files for them, the OS agent's own CAP file, a start script that keeps a run
// log, and qorhost run as a child with its printed events and listings. Used
// on the test's main thread; what they start they stop or kill at the end.
#ifndef QOR_TESTS_E2E_E2EHELP_H
#define QOR_TESTS_E2E_E2EHELP_H

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "cap/capfiles.h"
#include "support/qortest.h"

namespace e2e {

inline std::string tool(const std::string& name) { return qortest::binaryDir() + "/tools/" + name; }

// A folder of programs run by the example script, each a copy of sleep under
// a name of its own. Every program that the test started, or that it adopted
// because the service started it, is stopped at the end.
class Programs {
 public:
  ~Programs() { stopAll(); }
  int start(const std::string& name) {
    run("start", name);
    adopt(name);
    return pid(name);
  }
  // Starts them all at once, which is much quicker for many.
  void startAll(const std::vector<std::string>& names) {
    std::string loop;
    for (const std::string& name : names) {
      loop += "/bin/sh '" + script() + "' start " + name + " >/dev/null & ";
      adopt(name);
    }
    qortest::RunResult result = qortest::runProgram({"/bin/sh", "-c", loop + "wait"}, {env()});
    EXPECT_EQ(0, result.exitCode) << result.err;
  }
  void stop(const std::string& name) { run("stop", name); }
  // A program that the service may start: stopped at the end as well.
  void adopt(const std::string& name) {
    for (const std::string& known : started_) {
      if (known == name) return;
    }
    started_.push_back(name);
  }
  // The process id in the program's pid file, 0 when there is none.
  int pid(const std::string& name) const {
    return std::atoi(qortest::readFile(dir_.file(name + ".pid")).c_str());
  }
  // The executable of a program, whether it runs or not.
  std::string path(const std::string& name) const { return dir_.file("bin/" + name); }
  // Installs the program without starting it. The service may start it,
  // so it is stopped at the end as well.
  void install(const std::string& name) {
    qortest::runProgram({"/bin/mkdir", "-p", dir_.file("bin")});
    qortest::writeFile(path(name), qortest::readFile("/bin/sleep"));
    qortest::makeExecutable(path(name));
    adopt(name);
  }
  std::string script() const { return qortest::sourceDir() + "/examples/scripts/example-daemon.sh"; }
  std::string env() const { return "QOR_EXAMPLES_RUN=" + dir_.path(); }
  const std::string& dir() const { return dir_.path(); }

 private:
  void run(const std::string& action, const std::string& name) {
    qortest::RunResult result = qortest::runProgram({"/bin/sh", script(), action, name}, {env()});
    EXPECT_EQ(0, result.exitCode) << action << " " << name << ": " << result.out << result.err;
  }
  void stopAll() {
    if (started_.empty()) return;
    std::string loop;
    for (const std::string& name : started_)
      loop += "/bin/sh '" + script() + "' stop " + name + " >/dev/null & ";
    qortest::runProgram({"/bin/sh", "-c", loop + "wait"}, {env()});
  }

  qortest::TempDir dir_;
  std::vector<std::string> started_;
};

// A CAP file for one program of `programs`; `extra` goes after platform
// (checkFrequency and the like, in the order of the format).
inline std::string capFile(const std::string& id, const std::string& name, const std::string& path,
                           const std::string& checkFrequency = "", const std::string& statusScript = "") {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<subagents xmlns=\"urn:qor:cap\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
      "xsi:schemaLocation=\"urn:qor:cap mdhcap.xsd\">\n"
      "  <subagent id=\"" +
      id +
      "\">\n"
      "    <agentName>" +
      name +
      "</agentName>\n"
      "    <procName>" +
      path.substr(path.rfind('/') + 1) +
      "</procName>\n"
      "    <agentType>Console</agentType>\n"
      "    <agentPath>" +
      path +
      "</agentPath>\n"
      "    <platform xsi:type=\"PlatformLinux\"/>\n";
  if (!checkFrequency.empty()) text += "    <checkFrequency>" + checkFrequency + "</checkFrequency>\n";
  text +=
      "    <managerType>TeoServices</managerType>\n"
      "    <maxRestarts>3</maxRestarts>\n";
  text += statusScript;
  return text + "  </subagent>\n</subagents>\n";
}

// The embedding host itself as the OS agent, supervised by the watchdog
// process. Agents that come after startup are managed only while the
// directory holds such a file.
inline std::string osAgentCapFile(const std::string& path = tool("qorhost")) {
  captest::Subagent host;
  host.id = "e2e.host";
  host.agentName = "<agentName>Embedding host</agentName>";
  host.procName = "<procName>qorhost</procName>";
  host.agentPath = "<agentPath>" + path + "</agentPath>";
  host.managerType = "<managerType>WatchDog</managerType>";
  return captest::document(host);
}

// A folder with the start script of the agents of these tests and the log of
// its runs. The script notes the beginning and the end of each run in
// run.log, with the time in seconds, then starts the program with the example
// script, unless a control file of the program in this folder says otherwise:
//   NAME.fail    the number of runs still to fail (exit 1, nothing started);
//                each failing run lowers it
//   NAME.hollow  exit 0 without starting anything
//   NAME.hang    seconds to sleep instead of starting; the run ends with the
//                sleep, having started nothing. The sleeping process's id is
//                written to NAME.hang.pid, and added to NAME.hang.pids
//   NAME.delay   seconds to sleep before starting the program as usual
class StartScript {
 public:
  explicit StartScript(const Programs& programs) {
    qortest::writeFile(path(),
                       "#!/bin/sh\n"
                       "set -u\n"
                       "here='" +
                           dir_.path() +
                           "'\n"
                           "name=$1\n"
                           "note() { echo \"$1 $name $(date +%s.%N)\" >>\"$here/run.log\"; }\n"
                           "note begin\n"
                           "if [ -f \"$here/$name.hang\" ]; then\n"
                           "  echo $$ >\"$here/$name.hang.pid\"\n"
                           "  echo $$ >>\"$here/$name.hang.pids\"\n"
                           "  exec sleep \"$(cat \"$here/$name.hang\")\"\n"
                           "fi\n"
                           "if [ -f \"$here/$name.fail\" ]; then\n"
                           "  left=$(cat \"$here/$name.fail\")\n"
                           "  if [ \"$left\" -gt 0 ]; then\n"
                           "    echo $((left - 1)) >\"$here/$name.fail\"\n"
                           "    note failed\n"
                           "    exit 1\n"
                           "  fi\n"
                           "fi\n"
                           "if [ -f \"$here/$name.delay\" ]; then\n"
                           "  sleep \"$(cat \"$here/$name.delay\")\"\n"
                           "fi\n"
                           "if [ -f \"$here/$name.hollow\" ]; then\n"
                           "  note end\n"
                           "  exit 0\n"
                           "fi\n"
                           "QOR_EXAMPLES_RUN='" +
                           programs.dir() + "' /bin/sh '" + programs.script() +
                           "' start \"$name\" >/dev/null\n"
                           "rc=$?\n"
                           "note end\n"
                           "exit $rc\n");
  }
  ~StartScript() {
    // A hung start outlives a service that was stopped meanwhile.
    for (const std::string& name : hung_) {
      int pid = std::atoi(qortest::readFile(dir_.file(name + ".hang.pid")).c_str());
      if (pid > 0) kill(pid, SIGKILL);
    }
  }
  // Lets the starts of `name` from now on go plainly: no failure and no hollow start.
  void plain(const std::string& name) {
    for (const char* control : {".fail", ".hollow"}) std::remove(dir_.file(name + control).c_str());
  }
  // Whether a hung start of `name` is under way.
  bool hanging(const std::string& name) const {
    return std::atoi(qortest::readFile(dir_.file(name + ".hang.pid")).c_str()) > 0;
  }
  // Ends a hang of `name` and lets its later starts go through.
  void release(const std::string& name) {
    std::remove(dir_.file(name + ".hang").c_str());
    const std::string pidFile = dir_.file(name + ".hang.pid");
    EXPECT_TRUE(qortest::waitFor([&] { return std::atoi(qortest::readFile(pidFile).c_str()) > 0; }, 5000));
    kill(std::atoi(qortest::readFile(pidFile).c_str()), SIGKILL);
  }
  // Forgets the hung runs of `name`, which have ended and been reaped, so
  // that no process that took over their ids is killed at the end.
  void ended(const std::string& name) {
    std::remove(dir_.file(name + ".hang").c_str());
    std::remove(dir_.file(name + ".hang.pid").c_str());
  }
  std::string path() const { return dir_.file("start.sh"); }
  // The startScript element of a CAP file that starts `name` through this script.
  std::string element(const std::string& name) const {
    return captest::script("startScript", "/bin/sh " + path() + " " + name);
  }
  void failNext(const std::string& name, int runs) {
    qortest::writeFile(dir_.file(name + ".fail"), std::to_string(runs) + "\n");
  }
  void delay(const std::string& name, int seconds) {
    qortest::writeFile(dir_.file(name + ".delay"), std::to_string(seconds) + "\n");
  }
  // The ids of all the hung runs of `name` so far, in order.
  std::vector<int> hangPids(const std::string& name) const {
    std::vector<int> pids;
    for (const std::string& line : qortest::linesWith(qortest::readFile(dir_.file(name + ".hang.pids")), ""))
      pids.push_back(std::atoi(line.c_str()));
    return pids;
  }
  void hollow(const std::string& name) { qortest::writeFile(dir_.file(name + ".hollow"), ""); }
  void hang(const std::string& name, int seconds) {
    qortest::writeFile(dir_.file(name + ".hang"), std::to_string(seconds) + "\n");
    hung_.push_back(name);
  }
  // The run log's lines that match "WHAT NAME", in order; each a "WHAT NAME SECONDS".
  std::vector<std::string> log(const std::string& what, const std::string& name) const {
    std::vector<std::string> lines;
    for (const std::string& line : qortest::linesWith(qortest::readFile(dir_.file("run.log")), "")) {
      if (line.rfind(what + " " + name + " ", 0) == 0) lines.push_back(line);
    }
    return lines;
  }
  // All lines of the run log.
  std::vector<std::string> log() const {
    return qortest::linesWith(qortest::readFile(dir_.file("run.log")), "");
  }
  // The time, in seconds since the epoch, of a line of the log.
  static double timeOf(const std::string& line) {
    return std::atof(line.substr(line.rfind(' ') + 1).c_str());
  }

 private:
  qortest::TempDir dir_;
  std::vector<std::string> hung_;
};

// One subagent for the program `program` of `programs`, started by `start`,
// checked every `checkFrequency` seconds and restarted `maxRestarts` times a day.
inline captest::Subagent agentFor(const std::string& id, const std::string& name, const Programs& programs,
                                  const std::string& program, const StartScript& start, int maxRestarts,
                                  int checkFrequency = 5) {
  captest::Subagent agent;
  agent.id = id;
  agent.agentName = "<agentName>" + name + "</agentName>";
  agent.procName = "<procName>" + program + "</procName>";
  agent.agentPath = "<agentPath>" + programs.path(program) + "</agentPath>";
  agent.checkFrequency = "<checkFrequency>" + std::to_string(checkFrequency) + "</checkFrequency>";
  agent.maxRestarts = "<maxRestarts>" + std::to_string(maxRestarts) + "</maxRestarts>";
  agent.startScript = start.element(program);
  return agent;
}

// qorhost on a CAP directory, its traces in a file of its own; with `input`
// a pipe, the test types its commands.
class Host {
 public:
  Host(const std::string& capDir, const std::string& ipDir, const std::string& traceFile, unsigned level,
       const std::vector<std::string>& env, qortest::Child::Input input = qortest::Child::Input::Inherited)
      : child_({tool("qorhost"), "--cap-dir", capDir, "--ip-dir", ipDir, "--trace-level",
                std::to_string(level), "--trace-file", traceFile},
               env, input) {}
  qortest::Child& child() { return child_; }
  // Waits until qorhost has printed `count` listings, each closed by its
  // "qorhost: N agents" line.
  bool waitForListing(int count) {
    return qortest::waitFor([&] { return listings() >= count; }, 15000);
  }
  int listings() {
    static const std::regex closing("^qorhost: [0-9]+ agents?$");
    int found = 0;
    for (const std::string& line : qortest::linesWith(child_.out(), "qorhost: ")) {
      if (std::regex_match(line, closing)) ++found;
    }
    return found;
  }
  std::vector<std::string> agentLines() { return qortest::linesWith(child_.out(), "qorhost: agent '"); }
  // Asks for a new listing and returns its agent lines; empty if none came.
  std::vector<std::string> list() {
    const int before = listings();
    child_.signal(SIGUSR1);
    if (!waitForListing(before + 1)) return {};
    static const std::regex closing("^qorhost: [0-9]+ agents?$");
    std::vector<std::string> current;
    int closed = 0;
    for (const std::string& line : qortest::linesWith(child_.out(), "qorhost: ")) {
      if (std::regex_match(line, closing)) {
        if (++closed == before + 1) return current;
        current.clear();
      } else if (line.rfind("qorhost: agent '", 0) == 0) {
        current.push_back(line);
      }
    }
    return {};
  }
  // The line of the agent `id` in a new listing, or empty.
  std::string listingOf(const std::string& id) {
    for (const std::string& line : list()) {
      if (line.find("' id " + id + " managed ") != std::string::npos) return line;
    }
    return std::string();
  }
  // The ids of the events printed for the agent named `name`, in order.
  std::vector<int> eventIds(const std::string& name) {
    std::vector<int> ids;
    for (const std::string& line : qortest::linesWith(child_.out(), "] " + name + " Operational Event: ")) {
      size_t open = line.find("  [");
      if (open != std::string::npos) ids.push_back(std::atoi(line.c_str() + open + 3));
    }
    return ids;
  }
  // The printed events of the agent named `name`, without their time.
  std::vector<std::string> events(const std::string& name) {
    std::vector<std::string> texts;
    for (const std::string& line : qortest::linesWith(child_.out(), "] " + name + " Operational Event: ")) {
      size_t open = line.find("  [");
      if (open != std::string::npos) texts.push_back(line.substr(open + 2));
    }
    return texts;
  }
  // The printed alerts of the agent named `name`, without their time.
  std::vector<std::string> alerts(const std::string& name) {
    std::vector<std::string> texts;
    for (const std::string& line : qortest::linesWith(child_.out(), "] ALERT agent '" + name + "' ")) {
      size_t open = line.find("  [");
      if (open != std::string::npos) texts.push_back(line.substr(open + 2));
    }
    return texts;
  }
  int stop() {
    child_.signal(SIGINT);
    return child_.wait(15000);
  }

 private:
  qortest::Child child_;
};

// The lines of the state file, and a field of the record of `id`: `line` is
// the line's number within the record (1 is its opening "*", 3 its id).
inline std::vector<std::string> lines(const std::string& text) { return qortest::linesWith(text, ""); }
inline std::string fieldOf(const std::vector<std::string>& file, const std::string& id, int line) {
  for (size_t i = 3; i < file.size(); ++i) {
    if (file[i] == id && file[i - 2] == "*" && i - 3 + line < file.size()) return file[i - 3 + line];
  }
  ADD_FAILURE() << "no record of " << id;
  return std::string();
}
inline void setField(std::vector<std::string>& file, const std::string& id, int line,
                     const std::string& value) {
  for (size_t i = 3; i < file.size(); ++i) {
    if (file[i] == id && file[i - 2] == "*") {
      file[i - 3 + line] = value;
      return;
    }
  }
  ADD_FAILURE() << "no record of " << id;
}
inline std::string join(const std::vector<std::string>& file) {
  std::string text;
  for (const std::string& line : file) text += line + "\n";
  return text;
}

// Seconds since midnight of a trace line's time stamp ("YYYY-MM-DD HH:MM:SS.mmm ...").
inline double stampOf(const std::string& line) {
  int hours = 0, minutes = 0, seconds = 0, millis = 0;
  if (std::sscanf(line.c_str(), "%*d-%*d-%*d %d:%d:%d.%d", &hours, &minutes, &seconds, &millis) != 4)
    return -1;
  return hours * 3600.0 + minutes * 60.0 + seconds + millis / 1000.0;
}

}  // namespace e2e

#endif  // QOR_TESTS_E2E_E2EHELP_H
