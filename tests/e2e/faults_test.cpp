// Restarts that go wrong, end to end: a start script that starts nothing, one
// that cannot run, one that hangs, a stop script that leaves the program up,
// an agent killed again while it is being restarted, and a CAP file removed
// while its agent's start runs. The service is embedded in the test process,
// so that its constants can be shortened and its worker threads seen; real
// programs, real scripts and real CAP files.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "core/qorctrl.h"
#include "core/qorworkers.h"
#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "include/qorapi.h"
#include "support/qortest.h"
#include "watchdog/qorcmd.h"
#include "watchdog/qorcmdunx.h"

namespace {

using e2e::agentFor;
using e2e::fieldOf;
using e2e::Programs;
using e2e::Seen;
using e2e::StartScript;

// Whether a process still runs: gone, or a zombie, is not running.
bool running(int pid) {
  const std::string stat = qortest::readFile("/proc/" + std::to_string(pid) + "/stat");
  if (stat.empty()) return false;
  const size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

class Faults : public e2e::EmbeddedService {
 protected:
  // Stops the service as an embedder does, within a few seconds, and
  // returns the state file that it wrote.
  std::vector<std::string> stopCleanly() {
    const long long begun = qortest::nowMs();
    stopService();
    EXPECT_LT(qortest::nowMs() - begun, 5000);
    return e2e::lines(qortest::readFile(caps.file("teo.dat")));
  }
};

// A start script's exit code is all a start goes by: a script that ends well
// having started nothing is a success, and only the next check finds the
// agent down. Each such round is charged, so the day's limit ends it.
TEST_F(Faults,
       AStartScriptThatStartsNothingIsHeardAsStartedUntilTheNextCheckAndTheLimitEndsItWithTwelveOnce) {
  const int pid = programs.start("qorfhollowd");
  writeAgent("hollow.xml", agentFor("e2e.hollow", "Hollow program", programs, "qorfhollowd", start, 2));
  start.hollow("qorfhollowd");
  startService();
  kill(pid, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Hollow program", 12) == 1; }, 30000)) << trace();
  // Two more checks find it down and start nothing.
  ASSERT_TRUE(waitForChecks("e2e.hollow", 2, 15000)) << trace();

  const std::string text = "] Hollow program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
                "[ 7" + text + "Agent started successfully.",
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
                "[ 7" + text + "Agent started successfully.",
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
                "[12" + text + "Agent exceeded restart tries.",
                "[22" + text + "Agent initial start",
            }),
            heard.of("Hollow program"));
  EXPECT_EQ((Seen{2, 0, 2}), seen("e2e.hollow"));
  EXPECT_EQ(2u, start.log("begin", "qorfhollowd").size());
  EXPECT_EQ(2u, start.log("end", "qorfhollowd").size());
  // The pid file is still that of the killed program: nothing was started.
  EXPECT_EQ(pid, programs.pid("qorfhollowd"));
  EXPECT_FALSE(running(pid));
  EXPECT_EQ(1, traced("Agent id e2e.hollow restart count exceeded and will not be restarted."));
  EXPECT_TRUE(noWorkerLeft());

  std::vector<std::string> file = stopCleanly();
  EXPECT_EQ("2", fieldOf(file, "e2e.hollow", 9));
  EXPECT_EQ("0", fieldOf(file, "e2e.hollow", 11));
  EXPECT_EQ("2", fieldOf(file, "e2e.hollow", 12));
}

// The shell answers 126 for a command it finds but cannot execute; every
// attempt fails alike, and each failed restart is charged when retried.
TEST_F(Faults, AStartScriptWithoutTheExecuteBitFailsEveryAttemptWithStatusSevenUntilTheLimit) {
  WD_START_RETRY_INTERVAL = 1;
  const std::string script = work.file("start-noexec.sh");
  qortest::writeFile(script, "#!/bin/sh\nexit 0\n");
  const int pid = programs.start("qorfnoexecd");
  captest::Subagent agent = agentFor("e2e.noexec", "Noexec program", programs, "qorfnoexecd", start, 1);
  agent.startScript = captest::script("startScript", script);
  writeAgent("noexec.xml", agent);
  startService();
  kill(pid, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Noexec program", 12) == 1; }, 35000)) << trace();

  const std::string text = "] Noexec program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
                "[ 6" + text + "Agent restart failed - Agent start script failed.",
                "[12" + text + "Agent exceeded restart tries.",
            }),
            heard.of("Noexec program"));
  EXPECT_EQ((Seen{2, 0, 1}), seen("e2e.noexec"));
  // Two starts of four attempts each.
  // The raw wait status of a shell that ended with 126.
  EXPECT_EQ(8, traced("qor_pclose returned 32256\n"));
  EXPECT_EQ(6, traced("Start command attempt "));
  EXPECT_EQ(2, traced("Failed to start agent id e2e.noexec.\n"));
  EXPECT_TRUE(noWorkerLeft());

  std::vector<std::string> file = stopCleanly();
  EXPECT_EQ("2", fieldOf(file, "e2e.noexec", 9));
  EXPECT_EQ("1", fieldOf(file, "e2e.noexec", 12));
}

// A start that runs out of time fails like any other (999999, status 7). The
// hung script is not killed: it is left to end by itself, and reaped by the
// command manager's clean-up, which the availability cycle runs when no
// discovery pass does.
TEST_F(Faults, AStartScriptThatHangsPastItsTimeOutFailsEachAttemptAndTheHungScriptsAreReapedOnceTheyEnd) {
  WD_START_RETRY_INTERVAL = 1;
  MIN_CMD_TIMEOUT = 2;
  const int pid = programs.start("qorfhungd");
  writeAgent("hung.xml", agentFor("e2e.hung", "Hung program", programs, "qorfhungd", start, 1));
  start.hang("qorfhungd", 3);
  startService();
  kill(pid, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Hung program", 12) == 1; }, 35000)) << trace();
  // The last attempt gave up on its script a second in; the script sleeps on.
  std::vector<int> hung = start.hangPids("qorfhungd");
  ASSERT_EQ(8u, hung.size());
  EXPECT_TRUE(running(hung.back()));

  const std::string text = "] Hung program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
                "[ 6" + text + "Agent restart failed - Agent start script failed.",
                "[12" + text + "Agent exceeded restart tries.",
            }),
            heard.of("Hung program"));
  EXPECT_EQ((Seen{2, 0, 1}), seen("e2e.hung"));
  EXPECT_EQ(8u, start.log("begin", "qorfhungd").size());
  EXPECT_EQ(8,
            traced("Command did not finish within timeout - cmd = /bin/sh " + start.path() + " qorfhungd"));
  EXPECT_EQ(2, traced("Failed to start agent id e2e.hung.\n"));
  EXPECT_TRUE(noWorkerLeft());

  // A timed-out command is not waited for: the shell that ran each attempt is
  // kept for the clean-up. Without discovery the availability cycle runs
  // that clean-up at each wake, so each shell is reaped within a cycle of its
  // end: the last one is still kept now, and none is left a zombie of this
  // process once they have all ended.
  QorCmdUNIX* commands = dynamic_cast<QorCmdUNIX*>(GetCmdManager());
  ASSERT_NE(nullptr, commands);
  const std::vector<int> kept = commands->getDefunctProcesses();
  EXPECT_FALSE(kept.empty());
  ASSERT_TRUE(qortest::waitFor([&] { return commands->getDefunctProcesses().empty(); }, 8000));
  for (int each : kept)
    EXPECT_TRUE(qortest::readFile("/proc/" + std::to_string(each) + "/stat").empty()) << each;
  for (int each : hung)
    EXPECT_TRUE(qortest::readFile("/proc/" + std::to_string(each) + "/stat").empty()) << each;
  start.ended("qorfhungd");

  std::vector<std::string> file = stopCleanly();
  EXPECT_EQ("2", fieldOf(file, "e2e.hung", 9));
  EXPECT_EQ("1", fieldOf(file, "e2e.hung", 12));
}

// A stop script is believed: the agent is taken as stopped by the operator.
// The check after finds it running and takes it back as come up by itself.
TEST_F(Faults, AStopScriptThatLeavesTheProgramRunningIsBelievedAndTheNextCheckTakesTheAgentBackToRunning) {
  const int pid = programs.start("qorfstubbornd");
  captest::Subagent agent = agentFor("e2e.stubborn", "Stubborn program", programs, "qorfstubbornd", start, 3);
  agent.stopScript = captest::script("stopScript", "/bin/true");
  writeAgent("stubborn.xml", agent);
  startService();
  ASSERT_TRUE(waitForState("e2e.stubborn", 4, 5000));
  EXPECT_EQ(0, service->stopAgent(L"Stubborn program", L"qorfstubbornd", -1));
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Stubborn program", 10) == 1; }, 10000)) << trace();
  EXPECT_EQ((Seen{5, 0, 0}), seen("e2e.stubborn"));
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Stubborn program", 7) == 1; }, 12000)) << trace();
  ASSERT_TRUE(waitForChecks("e2e.stubborn", 1, 8000));

  const std::string text = "] Stubborn program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 4" + text + "Agent stop command received.",
                "[10" + text + "Agent stopped successfully.",
                "[ 7" + text + "Agent started successfully.",
            }),
            heard.of("Stubborn program"));
  EXPECT_TRUE(running(pid));
  EXPECT_EQ((Seen{4, pid, 0}), seen("e2e.stubborn"));
  EXPECT_TRUE(start.log().empty());
  EXPECT_TRUE(noWorkerLeft());

  std::vector<std::string> file = stopCleanly();
  EXPECT_EQ("4", fieldOf(file, "e2e.stubborn", 9));
  EXPECT_EQ(std::to_string(pid), fieldOf(file, "e2e.stubborn", 11));
}

// While an agent is starting its checks are skipped, so a kill during the
// start is found only by the first check after it: one restart at a time.
TEST_F(Faults, AnAgentKilledAgainDuringItsOwnRestartIsRestartedOnceMoreAfterItAndEndsRunningWithTwoRestarts) {
  int pid = programs.start("qorfagaind");
  writeAgent("again.xml", agentFor("e2e.again", "Again program", programs, "qorfagaind", start, 3));
  start.delay("qorfagaind", 3);
  startService();
  kill(pid, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return programs.pid("qorfagaind") != pid; }, 15000)) << trace();
  const int restarted = programs.pid("qorfagaind");
  kill(restarted, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Again program", 7) == 2; }, 25000)) << trace();
  ASSERT_TRUE(waitForChecks("e2e.again", 1, 8000));

  const std::string text = "] Again program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
                "[ 7" + text + "Agent started successfully.",
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
                "[ 7" + text + "Agent started successfully.",
            }),
            heard.of("Again program"));
  const int last = programs.pid("qorfagaind");
  EXPECT_NE(restarted, last);
  EXPECT_TRUE(running(last));
  EXPECT_EQ((Seen{4, last, 2}), seen("e2e.again"));
  EXPECT_EQ(2u, start.log("begin", "qorfagaind").size());
  EXPECT_EQ(2u, start.log("end", "qorfagaind").size());
  EXPECT_TRUE(noWorkerLeft());

  std::vector<std::string> file = stopCleanly();
  EXPECT_EQ("4", fieldOf(file, "e2e.again", 9));
  EXPECT_EQ("2", fieldOf(file, "e2e.again", 12));
}

// A worker's result finds its agent by guid; an agent removed meanwhile is
// not found, and the result is dropped.
TEST_F(Faults, ACapFileRemovedWhileItsAgentIsRestartedDropsTheWorkersResultAndTheAgentLeavesTheStateFile) {
  const int pid = programs.start("qorfgoned");
  writeAgent("gone.xml", agentFor("e2e.gone", "Gone program", programs, "qorfgoned", start, 3));
  // The watcher looks at the directory every 5 seconds: a start of 8 seconds
  // is still running when the removal is seen, wherever the poll falls.
  start.delay("qorfgoned", 8);
  startService();
  kill(pid, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return start.log("begin", "qorfgoned").size() == 1; }, 12000))
      << trace();
  ASSERT_EQ(0, std::remove(caps.file("gone.xml").c_str()));
  const std::string removed =
      "[ 1] " + caps.file("gone.xml") + " CAP File Event: Agent removed from system - CAP file removed.";
  ASSERT_TRUE(qortest::waitFor([&] { return heard.exactly(removed) == 1; }, 10000)) << trace();
  EXPECT_EQ(Seen{}, seen("e2e.gone"));
  ASSERT_TRUE(
      qortest::waitFor([&] { return traced("No update agent required. Agent not found") == 1; }, 12000))
      << trace();
  EXPECT_EQ(1, traced("No update agent required. Agent not found / Process not found qorfgoned()\n"));
  EXPECT_TRUE(noWorkerLeft());
  // The worker is done once the program runs; the script may still be
  // writing its last line.
  EXPECT_TRUE(qortest::waitFor([&] { return start.log("end", "qorfgoned").size() == 1u; }, 10000));
  programs.adopt("qorfgoned");

  const std::string text = "] Gone program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
            }),
            heard.of("Gone program"));

  std::vector<std::string> file = stopCleanly();
  ASSERT_FALSE(file.empty());
  for (const std::string& line : file) EXPECT_NE("e2e.gone", line);
}

}  // namespace
