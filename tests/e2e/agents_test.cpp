// Agents come alive, as a host operator sees them through qorhost: a CAP file
// for a running program yields an agent with its process id, one for a
// program that does not run an agent with none, managed agents are checked
// on their schedule, a killed program is reported, and the state survives a
// restart of the service. Real programs (copies of sleep started by the
// example script), real CAP files, the real qorhost.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "support/qortest.h"

namespace {

using e2e::capFile;
using e2e::Host;
using e2e::Programs;

// The CAP directory holds the OS agent's file: without it the service comes
// up disarmed and manages none of the agents (tests/e2e/disarm_test.cpp).
class Agents : public ::testing::Test {
 protected:
  Agents() { writeCap("host.xml", e2e::osAgentCapFile()); }
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
  ASSERT_EQ(3u, lines.size()) << host.child().out();
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
  // Two listings of the program and the OS agent.
  EXPECT_EQ(4u, host.agentLines().size());
  EXPECT_EQ(0, host.stop());
}

using e2e::join;
using e2e::lines;
using e2e::setField;

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
  // The two programs' records and the OS agent's.
  ASSERT_EQ(1u + 3 * 18, file.size());
  EXPECT_EQ("3", file[0]);
  const auto id = std::find(file.begin(), file.end(), "e2e.keep");
  ASSERT_NE(file.end(), id);
  const std::vector<std::string> keep(id - 2, id + 16);
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
  ASSERT_EQ(3u, agents.size()) << second.child().out();
  EXPECT_EQ("qorhost: agent 'Kept program' id e2e.keep managed 1 (managed) state 4 (running) pid " +
                std::to_string(pid) + " restarts 2/3",
            agents[0]);
  EXPECT_EQ(
      "qorhost: agent 'Resting program' id e2e.rest managed 0 (unmanaged) state 0 (unknown) pid 0 restarts "
      "0/3",
      agents[1]);
  EXPECT_EQ(0, second.stop());
}

using e2e::stampOf;

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
  // The frequency test compares whole seconds: a cycle that comes round a
  // moment early, as on a loaded machine, skips the agent until the next one.
  EXPECT_LT(qortest::nowMs() - killed, 2 * 5000 + 1500);
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
