// Agents come alive, as a host operator sees them through qorhost: a CAP file
// for a running program yields an agent with its process id, one for a
// program that does not run an agent with none, managed agents are checked
// on their schedule, a killed program is reported, and the state survives a
// restart of the service. Real programs (copies of sleep started by the
// example script), real CAP files, the real qorhost.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "support/qortest.h"

namespace {

std::string tool(const std::string& name) { return qortest::binaryDir() + "/tools/" + name; }

// A folder of programs run by the example script, each a copy of sleep under
// a name of its own; stopped at the end.
class Programs {
 public:
  ~Programs() {
    for (const std::string& name : started_) run("stop", name);
  }
  int start(const std::string& name) {
    run("start", name);
    started_.push_back(name);
    return pid(name);
  }
  void stop(const std::string& name) { run("stop", name); }
  int pid(const std::string& name) const {
    return std::atoi(qortest::readFile(dir_.file(name + ".pid")).c_str());
  }
  // The executable of a program, whether it runs or not.
  std::string path(const std::string& name) const { return dir_.file("bin/" + name); }
  void install(const std::string& name) {
    qortest::runProgram({"/bin/mkdir", "-p", dir_.file("bin")});
    qortest::writeFile(path(name), qortest::readFile("/bin/sleep"));
    qortest::makeExecutable(path(name));
  }
  std::string script() const { return qortest::sourceDir() + "/examples/scripts/example-daemon.sh"; }
  std::string env() const { return "QOR_EXAMPLES_RUN=" + dir_.path(); }

 private:
  void run(const std::string& action, const std::string& name) {
    qortest::RunResult result = qortest::runProgram({"/bin/sh", script(), action, name}, {env()});
    EXPECT_EQ(0, result.exitCode) << action << " " << name << ": " << result.out << result.err;
  }

  qortest::TempDir dir_;
  std::vector<std::string> started_;
};

// A CAP file for one program of `programs`; `extra` goes after platform
// (checkFrequency and the like, in the order of the format).
std::string capFile(const std::string& id, const std::string& name, const std::string& path,
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

// qorhost on a CAP directory, its traces in a file of its own.
class Host {
 public:
  Host(const std::string& capDir, const std::string& ipDir, const std::string& traceFile, unsigned level,
       const std::vector<std::string>& env)
      : child_({tool("qorhost"), "--cap-dir", capDir, "--ip-dir", ipDir, "--trace-level",
                std::to_string(level), "--trace-file", traceFile},
               env) {}
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
  int stop() {
    child_.signal(SIGINT);
    return child_.wait(15000);
  }

 private:
  qortest::Child child_;
};

class Agents : public ::testing::Test {
 protected:
  std::string trace() { return qortest::readFile(work.file("trace")); }
  void writeCap(const std::string& file, const std::string& content) {
    qortest::writeFile(caps.file(file), content);
  }

  qortest::TempDir caps;
  qortest::TempDir work;
  Programs programs;
};

TEST_F(Agents, ARunningProgramHasItsProcessIdAndAMissingOneNone) {
  int pid = programs.start("qore2erund");
  programs.install("qore2eidled");
  writeCap("running.xml", capFile("e2e.running", "Running program", programs.path("qore2erund")));
  writeCap("idle.xml", capFile("e2e.idle", "Idle program", programs.path("qore2eidled")));

  Host host(caps.path(), work.path(), work.file("trace"), 128, {programs.env()});
  ASSERT_TRUE(host.waitForListing(1)) << host.child().out();
  std::vector<std::string> lines = host.agentLines();
  ASSERT_EQ(2u, lines.size()) << host.child().out();
  EXPECT_EQ(
      "qorhost: agent 'Idle program' id e2e.idle managed 1 (managed) state 2 (stopped) pid 0 restarts 0/3",
      lines[0]);
  EXPECT_EQ("qorhost: agent 'Running program' id e2e.running managed 1 (managed) state 4 (running) pid " +
                std::to_string(pid) + " restarts 0/3",
            lines[1]);
  EXPECT_EQ(0, host.stop());
}

TEST_F(Agents, SigusrOneListsTheAgentsAgain) {
  programs.start("qore2eusrd");
  writeCap("usr.xml", capFile("e2e.usr", "Listed program", programs.path("qore2eusrd")));
  Host host(caps.path(), work.path(), work.file("trace"), 128, {programs.env()});
  ASSERT_TRUE(host.waitForListing(1)) << host.child().out();
  host.child().signal(SIGUSR1);
  ASSERT_TRUE(host.waitForListing(2)) << host.child().out();
  EXPECT_EQ(2u, host.agentLines().size());
  EXPECT_EQ(0, host.stop());
}

// The lines of the state file, and a field of the record of `id`: `line` is
// the line's number within the record (1 is its opening "*", 3 its id).
std::vector<std::string> lines(const std::string& text) { return qortest::linesWith(text, ""); }
void setField(std::vector<std::string>& file, const std::string& id, int line, const std::string& value) {
  for (size_t i = 3; i < file.size(); ++i) {
    if (file[i] == id && file[i - 2] == "*") {
      file[i - 3 + line] = value;
      return;
    }
  }
  ADD_FAILURE() << "no record of " << id;
}
std::string join(const std::vector<std::string>& file) {
  std::string text;
  for (const std::string& line : file) text += line + "\n";
  return text;
}

TEST_F(Agents, ASecondStartReadsTheStateFileBackAndShowsTheSameAgents) {
  int pid = programs.start("qore2ekeepd");
  programs.install("qore2erestd");
  writeCap("keep.xml", capFile("e2e.keep", "Kept program", programs.path("qore2ekeepd")));
  writeCap("rest.xml", capFile("e2e.rest", "Resting program", programs.path("qore2erestd")));

  {
    Host first(caps.path(), work.path(), work.file("trace"), 128, {programs.env()});
    ASSERT_TRUE(first.waitForListing(1)) << first.child().out();
    ASSERT_EQ(0, first.stop());
  }
  std::vector<std::string> file = lines(qortest::readFile(caps.file("teo.dat")));
  ASSERT_EQ(1u + 2 * 18, file.size());
  EXPECT_EQ("2", file[0]);
  // Records in list order: the files' names sort "keep.xml" first.
  const std::vector<std::string> keep(file.begin() + 1, file.begin() + 19);
  EXPECT_EQ((std::vector<std::string>{"*", "6.2.2.2", "e2e.keep", "qore2ekeepd", "", "", "1", "Kept program",
                                      "4", "qore2ekeepd", std::to_string(pid), "0",
                                      programs.path("qore2ekeepd"), "1", "", "", "0", "*"}),
            keep);
  EXPECT_FALSE(qortest::fileExists(caps.file("teo.dat.tmp")));

  // What a day of the service would have left: two restarts of the kept
  // program, and the resting one taken out of management by an operator.
  setField(file, "e2e.keep", 12, "2");
  setField(file, "e2e.rest", 7, "0");
  qortest::writeFile(caps.file("teo.dat"), join(file));

  Host second(caps.path(), work.path(), work.file("trace"), 128, {programs.env()});
  ASSERT_TRUE(second.waitForListing(1)) << second.child().out();
  std::vector<std::string> agents = second.agentLines();
  ASSERT_EQ(2u, agents.size()) << second.child().out();
  EXPECT_EQ("qorhost: agent 'Kept program' id e2e.keep managed 1 (managed) state 4 (running) pid " +
                std::to_string(pid) + " restarts 2/3",
            agents[0]);
  EXPECT_EQ(
      "qorhost: agent 'Resting program' id e2e.rest managed 0 (unmanaged) state 0 (unknown) pid 0 restarts "
      "0/3",
      agents[1]);
  EXPECT_EQ(0, second.stop());
}

// Seconds since midnight of a trace line's time stamp ("YYYY-MM-DD HH:MM:SS.mmm ...").
double stampOf(const std::string& line) {
  int hours = 0, minutes = 0, seconds = 0, millis = 0;
  if (std::sscanf(line.c_str(), "%*d-%*d-%*d %d:%d:%d.%d", &hours, &minutes, &seconds, &millis) != 4)
    return -1;
  return hours * 3600.0 + minutes * 60.0 + seconds + millis / 1000.0;
}

TEST_F(Agents, AManagedAgentIsCheckedEveryFiveSecondsAndItsDeathIsHeardWithinOnePeriod) {
  int pid = programs.start("qore2echeckd");
  writeCap("check.xml", capFile("e2e.check", "Checked program", programs.path("qore2echeckd"), "5"));
  Host host(caps.path(), work.path(), work.file("trace"), 1 | 256, {programs.env()});
  ASSERT_TRUE(host.waitForListing(1)) << host.child().out();

  const std::string checked = "Agent e2e.check checked at ";
  ASSERT_TRUE(qortest::waitFor([&] { return qortest::linesWith(trace(), checked).size() >= 3; }, 20000))
      << trace();
  std::vector<std::string> checks = qortest::linesWith(trace(), checked);
  for (size_t i = 1; i < 3; ++i) {
    double gap = stampOf(checks[i]) - stampOf(checks[i - 1]);
    EXPECT_GT(gap, 4.5) << checks[i - 1] << "\n" << checks[i];
    EXPECT_LT(gap, 6.0) << checks[i - 1] << "\n" << checks[i];
  }

  long long killed = qortest::nowMs();
  kill(pid, SIGKILL);
  ASSERT_TRUE(host.child().waitForOutput("[ 8] ALERT agent 'Checked program'", 12000)) << host.child().out();
  EXPECT_LT(qortest::nowMs() - killed, 5000 + 1500);
  EXPECT_EQ(1u, qortest::linesWith(host.child().out(),
                                   "[ 8] Checked program Operational Event: Agent stopped "
                                   "abnormally.")
                    .size())
      << host.child().out();
  // The check reported the agent down with the state it found, 2.
  std::vector<std::string> story = qortest::linesWith(trace(), "agent event ");
  bool reported = false;
  for (size_t i = 0; i + 1 < story.size(); ++i) {
    reported = reported || (story[i].find("agent event op state = 2.") != std::string::npos &&
                            story[i + 1].find("agent event id = 8.") != std::string::npos);
  }
  EXPECT_TRUE(reported) << trace();
  EXPECT_EQ(1u, qortest::linesWith(trace(), "Availability script failed and agent e2e.check is down").size());
  EXPECT_EQ(0, host.stop());
}

TEST_F(Agents, AStatusScriptsReturnCodeMapGivesTheEventItsMessage) {
  programs.start("qore2estatusd");
  qortest::writeFile(work.file("healthy"), "");
  std::string status =
      "    <availabilityStatusScript>\n"
      "      <command>test -e " +
      work.file("healthy") +
      "</command>\n"
      "      <returnCodeList>\n"
      "        <returnCode type=\"OK\" msg_id=\"E2E_HEALTHY\">0</returnCode>\n"
      "        <returnCode type=\"Error\" msg_id=\"E2E_SICK\">1</returnCode>\n"
      "      </returnCodeList>\n"
      "    </availabilityStatusScript>\n";
  writeCap("status.xml",
           capFile("e2e.status", "Scripted program", programs.path("qore2estatusd"), "5", status));
  Host host(caps.path(), work.path(), work.file("trace"), 1 | 256, {programs.env()});
  ASSERT_TRUE(host.waitForListing(1)) << host.child().out();
  ASSERT_TRUE(qortest::waitFor(
      [&] { return !qortest::linesWith(trace(), "Agent e2e.status checked at").empty(); }, 12000));
  EXPECT_EQ(std::string::npos, host.child().out().find("[ 8]"));

  std::remove(work.file("healthy").c_str());
  ASSERT_TRUE(host.child().waitForOutput("Details: E2E_SICK.\n", 12000)) << host.child().out();
  EXPECT_EQ(1u,
            qortest::linesWith(host.child().out(),
                               "[ 8] Scripted program Operational Event: Agent stopped abnormally. Details: "
                               "E2E_SICK.")
                .size())
      << host.child().out();
  // The alert shows the agent as the state machine left it: being stopped,
  // so that it can be restarted.
  ASSERT_TRUE(host.child().waitForOutput("[ 8] ALERT agent 'Scripted program' state 6", 2000))
      << host.child().out();
  EXPECT_FALSE(qortest::linesWith(host.child().out(), "[ 8] ALERT agent 'Scripted program' state 6").empty());
  EXPECT_NE(std::string::npos, host.child().out().find(": E2E_SICK\n"));
  // The program still runs: the script failed but the process is there.
  EXPECT_EQ(1u,
            qortest::linesWith(trace(), "Availability script failed but agent e2e.status is still up, rc = 1")
                .size());
  EXPECT_EQ(0, host.stop());
}

}  // namespace
