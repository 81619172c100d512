// Agents restarted after they died, as a host operator sees it: what the
// listeners hear, how the daily limit ends the restarts and survives a restart
// of the service, dependents that a restart waits for, the back-off of a
// failing start, many agents at once, and a shutdown in the middle of a start.
// Real programs (copies of sleep started by the example script through a
// start script that keeps a run log), real CAP files, the real qorhost.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "e2e/e2ehelp.h"
#include "e2e/embedded.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

using e2e::agentFor;
using e2e::fieldOf;
using e2e::Host;
using e2e::Programs;
using e2e::Seen;
using e2e::StartScript;

// The trace levels the tests read: detail, errors and availability.
constexpr unsigned kTraceLevel = 1 | 128 | 256;

// qorhost on a CAP directory that holds the OS agent's file and the files of
// the test; the programs are stopped and qorhost is killed at the end.
class Restarts : public ::testing::Test {
 protected:
  Restarts() : start(programs) { writeCap("host.xml", e2e::osAgentCapFile()); }

  void writeCap(const std::string& file, const std::string& content) {
    qortest::writeFile(caps.file(file), content);
  }
  void writeAgent(const std::string& file, const captest::Subagent& agent) {
    writeCap(file, captest::document(agent));
  }
  // Starts qorhost, with its traces in `traceFile` of the work folder, and
  // waits for its first listing.
  void startHost(unsigned level = kTraceLevel, const std::string& traceFile = "trace") {
    traceName = traceFile;
    host.reset(new Host(caps.path(), work.path(), work.file(traceFile), level, {programs.env()}));
    ASSERT_TRUE(host->waitForListing(1)) << host->child().out() << host->child().err();
  }
  std::string trace() { return qortest::readFile(work.file(traceName)); }
  // Waits until the trace shows `more` further checks of the agent `id`.
  bool waitForChecks(const std::string& id, size_t more, int timeoutMs) {
    const std::string checked = "Agent " + id + " checked at ";
    const size_t before = qortest::linesWith(trace(), checked).size();
    return qortest::waitFor([&] { return qortest::linesWith(trace(), checked).size() >= before + more; },
                            timeoutMs);
  }
  // Waits until `count` events "[ID] NAME ..." have been printed.
  bool waitForEvents(const std::string& name, const std::string& id, size_t count, int timeoutMs) {
    const std::string event = "[" + id + "] " + name + " Operational Event: ";
    return qortest::waitFor([&] { return qortest::linesWith(out(), event).size() >= count; }, timeoutMs);
  }
  std::vector<std::string> stateFile() { return e2e::lines(qortest::readFile(caps.file("teo.dat"))); }
  std::string out() { return host->child().out(); }

  qortest::TempDir caps;
  qortest::TempDir work;
  Programs programs;
  StartScript start;
  std::string traceName = "trace";
  // Last, so that qorhost is gone before the programs are stopped.
  std::unique_ptr<Host> host;
};

TEST_F(Restarts, AKilledAgentIsRestartedByItsStartScriptAndHeardAsEightTwentyFourSeven) {
  const int killed = programs.start("qore2ekilld");
  writeAgent("killed.xml", agentFor("e2e.killed", "Killed program", programs, "qore2ekilld", start, 3));
  startHost();
  EXPECT_EQ("qorhost: agent 'Killed program' id e2e.killed managed 1 (managed) state 4 (running) pid " +
                std::to_string(killed) + " restarts 0/3",
            host->listingOf("e2e.killed"));

  kill(killed, SIGKILL);
  ASSERT_TRUE(host->child().waitForOutput("[ 7] Killed program Operational Event: ", 12000)) << out();
  EXPECT_EQ((std::vector<std::string>{
                "[ 8] Killed program Operational Event: Agent stopped abnormally.",
                "[24] Killed program Operational Event: Agent start after failure",
                "[ 7] Killed program Operational Event: Agent started successfully.",
            }),
            host->events("Killed program"));
  EXPECT_EQ((std::vector<std::string>{"[ 8] ALERT agent 'Killed program' state 4 managed 1 pid " +
                                      std::to_string(killed) + ": N/A"}),
            host->alerts("Killed program"));

  const int restarted = programs.pid("qore2ekilld");
  EXPECT_GT(restarted, 0);
  EXPECT_NE(killed, restarted);
  EXPECT_EQ("qorhost: agent 'Killed program' id e2e.killed managed 1 (managed) state 4 (running) pid " +
                std::to_string(restarted) + " restarts 1/3",
            host->listingOf("e2e.killed"));
  EXPECT_EQ(1u, start.log("begin", "qore2ekilld").size());
  EXPECT_EQ(1u, start.log("end", "qore2ekilld").size());
  EXPECT_EQ(0, host->stop());
}

TEST_F(Restarts, AnAgentThatDiesAfterEveryStartIsRestartedThreeTimesThenHeardAsTwelveOnceAndLeftDown) {
  int pid = programs.start("qore2edyingd");
  writeAgent("dying.xml", agentFor("e2e.dying", "Dying program", programs, "qore2edyingd", start, 3));
  startHost();
  for (int restarts = 1; restarts <= 3; ++restarts) {
    kill(pid, SIGKILL);
    ASSERT_TRUE(waitForEvents("Dying program", " 7", restarts, 12000)) << out();
    const int restarted = programs.pid("qore2edyingd");
    EXPECT_NE(pid, restarted);
    pid = restarted;
    EXPECT_EQ("qorhost: agent 'Dying program' id e2e.dying managed 1 (managed) state 4 (running) pid " +
                  std::to_string(pid) + " restarts " + std::to_string(restarts) + "/3",
              host->listingOf("e2e.dying"));
  }

  kill(pid, SIGKILL);
  ASSERT_TRUE(host->child().waitForOutput("[12] ALERT agent 'Dying program'", 12000)) << out();
  // Three more checks find it down; none starts it again.
  ASSERT_TRUE(waitForChecks("e2e.dying", 3, 20000));

  EXPECT_EQ(3u, start.log("begin", "qore2edyingd").size());
  const std::string dying = "] Dying program Operational Event: ";
  std::vector<std::string> expected;
  for (int restarts = 1; restarts <= 3; ++restarts) {
    expected.push_back("[ 8" + dying + "Agent stopped abnormally.");
    expected.push_back("[24" + dying + "Agent start after failure");
    expected.push_back("[ 7" + dying + "Agent started successfully.");
  }
  expected.push_back("[ 8" + dying + "Agent stopped abnormally.");
  expected.push_back("[24" + dying + "Agent start after failure");
  expected.push_back("[12" + dying + "Agent exceeded restart tries.");
  // One more message after the limit, then silence.
  expected.push_back("[22" + dying + "Agent initial start");
  EXPECT_EQ(expected, host->events("Dying program"));
  std::vector<std::string> alerts = host->alerts("Dying program");
  ASSERT_EQ(5u, alerts.size()) << out();
  EXPECT_EQ("[12] ALERT agent 'Dying program' state 2 managed 1 pid 0: N/A", alerts.back());
  EXPECT_EQ(1u, qortest::linesWith(out(), "[12] ALERT ").size());
  EXPECT_EQ(
      "qorhost: agent 'Dying program' id e2e.dying managed 1 (managed) state 2 (stopped) pid 0 restarts 3/3",
      host->listingOf("e2e.dying"));
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace(), "Agent id e2e.dying restart count exceeded and will not be restarted."));
  EXPECT_EQ(0, host->stop());
}

// ---- The service embedded in the test process ----------------------------------
// For what needs the exported interface or shorter constants: the test is the
// embedder, with listeners that note what qorhost would print.

// The ids of events as qorhost prints them.
std::vector<int> idsOf(const std::vector<std::string>& events) {
  std::vector<int> ids;
  for (const std::string& event : events) ids.push_back(std::atoi(event.c_str() + 1));
  return ids;
}

class EmbeddedRestarts : public e2e::EmbeddedService {};

TEST_F(EmbeddedRestarts, AnEmbedderThatResetsTheCountAfterTheLimitHasTheAgentStartedAtTheNextCheck) {
  int pid = programs.start("qore2eresetd");
  writeAgent("reset.xml", agentFor("e2e.reset", "Reset program", programs, "qore2eresetd", start, 1));
  startService();
  EXPECT_EQ(603, service->resetRestartCount(L"Reset program", L"qore2eresetd", L""));
  kill(pid, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Reset program", 7) == 1; }, 12000));
  pid = programs.pid("qore2eresetd");
  kill(pid, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Reset program", 12) == 1; }, 12000));
  EXPECT_EQ((Seen{2, 0, 1}), seen("e2e.reset"));

  EXPECT_EQ(0, service->resetRestartCount(L"Reset program", L"qore2eresetd", L""));
  EXPECT_EQ((Seen{2, 0, 0}), seen("e2e.reset"));
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Reset program", 7) == 2; }, 12000));
  const std::string reset = "] Reset program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + reset + "Agent stopped abnormally.",
                "[24" + reset + "Agent start after failure",
                "[ 7" + reset + "Agent started successfully.",
                "[ 8" + reset + "Agent stopped abnormally.",
                "[24" + reset + "Agent start after failure",
                "[12" + reset + "Agent exceeded restart tries.",
                "[26" + reset + "Agent daily restart count reset",
                // The count is gone, so the agent stands as never started today.
                "[22" + reset + "Agent initial start",
                "[ 7" + reset + "Agent started successfully.",
            }),
            heard.of("Reset program"));
  // A first start is not charged.
  EXPECT_EQ((Seen{4, programs.pid("qore2eresetd"), 0}), seen("e2e.reset"));
  EXPECT_EQ(2u, start.log("begin", "qore2eresetd").size());
  EXPECT_EQ(603, service->resetRestartCount(L"Reset program", L"qore2eresetd", L""));
  EXPECT_EQ(3, traced("Reset agent restart count Reset program\n"));
}

// The dependents of the tests below, and the agent that needs them. The
// files' names put the dependents first in the list, so that one cycle
// checks them before the agent.
class EmbeddedDependents : public EmbeddedRestarts {
 protected:
  void writeAgents(int maxRestarts) {
    writeAgent("a-first.xml", agentFor("e2e.first", "First dependent", programs, "qore2efirstd", start, 3));
    writeAgent("b-second.xml",
               agentFor("e2e.second", "Second dependent", programs, "qore2esecondd", start, 3));
    captest::Subagent main =
        agentFor("e2e.main", "Main program", programs, "qore2emaind", start, maxRestarts);
    main.dependentAgent =
        "<dependentAgent>e2e.first</dependentAgent><dependentAgent>e2e.second</dependentAgent>";
    writeAgent("c-main.xml", main);
  }
  // Kills all three between two cycles, once the last check of the agent
  // has looked at its process, so that the next cycle finds all three down.
  void killAllBetweenCycles() {
    const int mainPid = programs.pid("qore2emaind");
    const std::string measured = "Agent pid " + std::to_string(mainPid) + ", memory ";
    const int before = traced(measured);
    ASSERT_TRUE(qortest::waitFor([&] { return traced(measured) > before; }, 12000)) << trace();
    for (const char* name : {"qore2efirstd", "qore2esecondd", "qore2emaind"})
      kill(programs.pid(name), SIGKILL);
  }
};

TEST_F(EmbeddedDependents, ARestartWaitsUntilItsDependentsRunSoTheirStartScriptsEndBeforeItsOwnBegins) {
  // Two seconds between the sweeps that look at the dependents. A start
  // script takes a second at least, as any command does, so the first sweep
  // finds both still starting.
  WD_START_RETRY_INTERVAL = 2;
  programs.startAll({"qore2efirstd", "qore2esecondd", "qore2emaind"});
  writeAgents(3);
  startService();
  killAllBetweenCycles();
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Main program", 7) == 1; }, 20000)) << trace();

  std::vector<std::string> log = start.log();
  ASSERT_EQ(6u, log.size());
  EXPECT_EQ(0u, log[4].rfind("begin qore2emaind ", 0)) << log[4];
  EXPECT_EQ(0u, log[5].rfind("end qore2emaind ", 0)) << log[5];
  const double mainBegins = StartScript::timeOf(log[4]);
  for (const char* name : {"qore2efirstd", "qore2esecondd"}) {
    ASSERT_EQ(1u, start.log("end", name).size()) << name;
    EXPECT_LT(StartScript::timeOf(start.log("end", name)[0]), mainBegins) << name;
  }
  for (const char* name : {"First dependent", "Second dependent", "Main program"}) {
    const std::string text = std::string("] ") + name + " Operational Event: ";
    EXPECT_EQ((std::vector<std::string>{"[ 8" + text + "Agent stopped abnormally.",
                                        "[24" + text + "Agent start after failure",
                                        "[ 7" + text + "Agent started successfully."}),
              heard.of(name));
  }
  EXPECT_EQ((Seen{4, programs.pid("qore2efirstd"), 1}), seen("e2e.first"));
  EXPECT_EQ((Seen{4, programs.pid("qore2esecondd"), 1}), seen("e2e.second"));
  EXPECT_EQ((Seen{4, programs.pid("qore2emaind"), 1}), seen("e2e.main"));
  // The restart found both starting, and its worker waited for them.
  EXPECT_EQ(1, traced("Agent id e2e.first was already started or starting.\n"));
  EXPECT_EQ(1, traced("Agent id e2e.second was already started or starting.\n"));
  EXPECT_LE(1, traced("Dependent agent is in startup mode, need to wait e2e.first.\n"));
  EXPECT_LE(1, traced("Dependent agent is in startup mode, need to wait e2e.second.\n"));
  EXPECT_LE(1, traced("Agent id e2e.first was started.\n"));
  EXPECT_LE(1, traced("Agent id e2e.second was started.\n"));
  EXPECT_EQ(0, traced("Failed to start agent id e2e.main"));
}

TEST_F(EmbeddedDependents, ARestartWhoseDependentsNeverComeUpFailsWithTheStartScriptMessageUntilTheLimit) {
  WD_START_RETRY_INTERVAL = 1;
  programs.startAll({"qore2efirstd", "qore2esecondd", "qore2emaind"});
  writeAgents(1);
  start.hang("qore2efirstd", 30);
  start.hang("qore2esecondd", 30);
  startService();
  killAllBetweenCycles();
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Main program", 12) == 1; }, 25000)) << trace();

  const std::string text = "] Main program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + text + "Agent stopped abnormally.",
                "[24" + text + "Agent start after failure",
                "[ 6" + text + "Agent restart failed - Agent start script failed.",
                "[12" + text + "Agent exceeded restart tries.",
            }),
            heard.of("Main program"));
  std::vector<std::string> heardAlerts = alerts.of("Main program");
  ASSERT_EQ(3u, heardAlerts.size());
  EXPECT_EQ("[ 6] ALERT agent 'Main program' state 3 managed 1 pid 0: N/A", heardAlerts[1]);
  EXPECT_EQ("[12] ALERT agent 'Main program' state 2 managed 1 pid 0: N/A", heardAlerts[2]);
  EXPECT_EQ((Seen{2, 0, 1}), seen("e2e.main"));
  EXPECT_TRUE(start.log("begin", "qore2emaind").empty());
  // Two starts, the restart and its retry, each of three sweeps over both
  // dependents still starting.
  EXPECT_EQ(2, traced("Failed to start agent id e2e.main due to dependent agent error (7).\n"));
  EXPECT_EQ(6, traced("Dependent agent is in startup mode, need to wait e2e.first.\n"));
  EXPECT_EQ(6, traced("Dependent agent is in startup mode, need to wait e2e.second.\n"));

  // The dependents come up at last, and no worker is left when the service stops.
  start.release("qore2efirstd");
  start.release("qore2esecondd");
  EXPECT_TRUE(waitForState("e2e.first", 4, 10000));
  EXPECT_TRUE(waitForState("e2e.second", 4, 10000));
  EXPECT_EQ((Seen{2, 0, 1}), seen("e2e.main"));
}

// A start script's success is all a start goes by: a dependent whose script
// ends well without starting anything counts as running, and the agent that
// needs it starts. The check after finds the dependent down.
TEST_F(EmbeddedDependents, ADependentWhoseStartScriptStartsNothingCountsAsRunningAndTheRestartGoesAhead) {
  WD_START_RETRY_INTERVAL = 1;
  programs.startAll({"qore2efirstd", "qore2esecondd", "qore2emaind"});
  writeAgents(3);
  start.hollow("qore2esecondd");
  startService();
  killAllBetweenCycles();
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Main program", 7) == 1; }, 20000)) << trace();
  ASSERT_EQ(1u, start.log("end", "qore2esecondd").size());
  ASSERT_EQ(1u, start.log("begin", "qore2emaind").size());
  EXPECT_LT(StartScript::timeOf(start.log("end", "qore2esecondd")[0]),
            StartScript::timeOf(start.log("begin", "qore2emaind")[0]));
  const std::string text = "] Main program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{"[ 8" + text + "Agent stopped abnormally.",
                                      "[24" + text + "Agent start after failure",
                                      "[ 7" + text + "Agent started successfully."}),
            heard.of("Main program"));
  EXPECT_EQ((Seen{4, programs.pid("qore2emaind"), 1}), seen("e2e.main"));

  // The next check of the hollow dependent finds nothing and restarts it;
  // this time its script starts the program.
  start.plain("qore2esecondd");
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Second dependent", 7) == 2; }, 12000)) << trace();
  EXPECT_EQ((std::vector<int>{8, 24, 7, 8, 24, 7}), idsOf(heard.of("Second dependent")));
  EXPECT_EQ((Seen{4, programs.pid("qore2esecondd"), 2}), seen("e2e.second"));
  EXPECT_EQ((Seen{4, programs.pid("qore2emaind"), 1}), seen("e2e.main"));
}

TEST_F(EmbeddedRestarts, AStartThatFailsThreeTimesIsTriedFourTimesWithALinearlyGrowingPause) {
  WD_START_RETRY_INTERVAL = 1;
  const int pid = programs.start("qore2eretryd");
  writeAgent("retry.xml", agentFor("e2e.retry", "Retried program", programs, "qore2eretryd", start, 3));
  start.failNext("qore2eretryd", 3);
  startService();
  kill(pid, SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return heard.count("Retried program", 7) == 1; }, 20000)) << trace();

  std::vector<std::string> begins = start.log("begin", "qore2eretryd");
  ASSERT_EQ(4u, begins.size());
  EXPECT_EQ(3u, start.log("failed", "qore2eretryd").size());
  EXPECT_EQ(1u, start.log("end", "qore2eretryd").size());
  // The pause before attempt k+1 is k times the interval, as the worker's
  // trace shows, and so is the gap between the runs in the run log: a failed
  // run that ends at once costs next to nothing.
  std::vector<std::string> failed = qortest::linesWith(trace(), "Start command attempt ");
  std::vector<std::string> woken = qortest::linesWith(trace(), "Waking from sleep for start retry");
  ASSERT_EQ(3u, failed.size());
  ASSERT_EQ(4u, woken.size());
  for (size_t k = 1; k < begins.size(); ++k) {
    EXPECT_NE(std::string::npos, failed[k - 1].find("Start command attempt " + std::to_string(k) +
                                                    " failed for agent id e2e.retry. Will retry in " +
                                                    std::to_string(k) + " seconds"))
        << failed[k - 1];
    const double pause = e2e::stampOf(woken[k]) - e2e::stampOf(failed[k - 1]);
    EXPECT_GE(pause, k - 0.05) << failed[k - 1] << "\n" << woken[k];
    EXPECT_LT(pause, k + 0.3) << failed[k - 1] << "\n" << woken[k];
    const double gap = StartScript::timeOf(begins[k]) - StartScript::timeOf(begins[k - 1]);
    EXPECT_GE(gap, k - 0.05) << begins[k - 1] << "\n" << begins[k];
    EXPECT_LT(gap, k + 0.6) << begins[k - 1] << "\n" << begins[k];
  }
  const std::string text = "] Retried program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{"[ 8" + text + "Agent stopped abnormally.",
                                      "[24" + text + "Agent start after failure",
                                      "[ 7" + text + "Agent started successfully."}),
            heard.of("Retried program"));
  // One restart, however many attempts it took.
  EXPECT_EQ((Seen{4, programs.pid("qore2eretryd"), 1}), seen("e2e.retry"));
  EXPECT_EQ(0, traced("Failed to start agent id e2e.retry.\n"));
}

TEST_F(Restarts, FiftyAgentsKilledAtOnceAreEachRestartedExactlyOnce) {
  std::vector<std::string> names;
  for (int i = 0; i < 50; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "qore2em%02dd", i);
    names.push_back(name);
    writeAgent(std::string(name) + ".xml",
               agentFor("e2e." + std::string(name), "Many " + std::string(name), programs, name, start, 3));
  }
  programs.startAll(names);
  startHost(128 | 256);
  std::vector<int> killed;
  for (const std::string& name : names) killed.push_back(programs.pid(name));
  for (int pid : killed) {
    ASSERT_GT(pid, 0);
    kill(pid, SIGKILL);
  }
  ASSERT_TRUE(qortest::waitFor([&] { return qortest::linesWith(out(), "[ 7] Many ").size() >= 50; }, 40000))
      << out();
  // One more check of each, which finds it running.
  size_t checks = qortest::linesWith(trace(), " checked at ").size();
  ASSERT_TRUE(qortest::waitFor(
      [&] { return qortest::linesWith(trace(), " checked at ").size() >= checks + 50; }, 15000));

  std::vector<std::string> listing = host->list();
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string& name = names[i];
    const int pid = programs.pid(name);
    EXPECT_NE(killed[i], pid) << name;
    EXPECT_EQ(1, std::count(listing.begin(), listing.end(),
                            "qorhost: agent 'Many " + name + "' id e2e." + name +
                                " managed 1 (managed) state 4 (running) pid " + std::to_string(pid) +
                                " restarts 1/3"))
        << name;
    EXPECT_EQ(1u, start.log("begin", name).size()) << name;
    EXPECT_EQ(1u, start.log("end", name).size()) << name;
    EXPECT_EQ((std::vector<int>{8, 24, 7}), host->eventIds("Many " + name)) << name;
  }
  EXPECT_EQ(0, host->stop());
}

TEST_F(Restarts, TheStateFileKeepsTheDaysCountSoARestartedServiceStillStartsNothingAtTheLimit) {
  int pid = programs.start("qore2elimitd");
  writeAgent("limit.xml", agentFor("e2e.limit", "Limited program", programs, "qore2elimitd", start, 1));
  startHost();
  kill(pid, SIGKILL);
  ASSERT_TRUE(waitForEvents("Limited program", " 7", 1, 12000)) << out();
  kill(programs.pid("qore2elimitd"), SIGKILL);
  ASSERT_TRUE(host->child().waitForOutput("[12] ALERT agent 'Limited program'", 12000)) << out();
  ASSERT_EQ(0, host->stop());
  std::vector<std::string> file = stateFile();
  EXPECT_EQ("2", fieldOf(file, "e2e.limit", 9));   // stopped
  EXPECT_EQ("0", fieldOf(file, "e2e.limit", 11));  // no process
  EXPECT_EQ("1", fieldOf(file, "e2e.limit", 12));  // the day's restarts

  // The program runs again when the service comes back, and dies again.
  const int again = programs.start("qore2elimitd");
  startHost(kTraceLevel, "trace2");
  EXPECT_EQ("qorhost: agent 'Limited program' id e2e.limit managed 1 (managed) state 4 (running) pid " +
                std::to_string(again) + " restarts 1/1",
            host->listingOf("e2e.limit"));
  kill(again, SIGKILL);
  ASSERT_TRUE(host->child().waitForOutput("[12] ALERT agent 'Limited program'", 12000)) << out();
  ASSERT_TRUE(waitForChecks("e2e.limit", 2, 15000));
  const std::string text = "] Limited program Operational Event: ";
  EXPECT_EQ((std::vector<std::string>{
                "[ 8" + text + "Agent stopped abnormally.", "[24" + text + "Agent start after failure",
                "[12" + text + "Agent exceeded restart tries.", "[22" + text + "Agent initial start"}),
            host->events("Limited program"));
  // Only the first service's restart ever ran the start script.
  EXPECT_EQ(1u, start.log("begin", "qore2elimitd").size());
  EXPECT_EQ(
      "qorhost: agent 'Limited program' id e2e.limit managed 1 (managed) state 2 (stopped) pid 0 restarts "
      "1/1",
      host->listingOf("e2e.limit"));
  EXPECT_EQ(0, host->stop());
  EXPECT_EQ("1", fieldOf(stateFile(), "e2e.limit", 12));
}

TEST_F(Restarts, AShutdownDuringALongStartEndsWithinSecondsAndTheStateFileHoldsTheCountAsItStood) {
  // The shutdown cancels the worker in its start script; the worker's copy of
  // the event is freed as it unwinds, so a sanitizer build's leak check of
  // qorhost stays clean too.
  int pid = programs.start("qore2elongd");
  writeAgent("long.xml", agentFor("e2e.long", "Long start", programs, "qore2elongd", start, 3));
  startHost();
  kill(pid, SIGKILL);
  ASSERT_TRUE(waitForEvents("Long start", " 7", 1, 12000)) << out();
  // The next start sleeps for 30 seconds.
  start.hang("qore2elongd", 30);
  kill(programs.pid("qore2elongd"), SIGKILL);
  ASSERT_TRUE(qortest::waitFor([&] { return start.hanging("qore2elongd"); }, 12000)) << out();
  EXPECT_EQ(
      "qorhost: agent 'Long start' id e2e.long managed 1 (managed) state 3 (starting) pid 0 restarts 1/3",
      host->listingOf("e2e.long"));

  const long long begun = qortest::nowMs();
  EXPECT_EQ(0, host->stop()) << host->child().err();
  EXPECT_LT(qortest::nowMs() - begun, 5000);
  EXPECT_NE(std::string::npos, out().find("qorhost: stopped\n"));
  std::vector<std::string> file = stateFile();
  EXPECT_EQ("3", fieldOf(file, "e2e.long", 9));   // starting, as it stood
  EXPECT_EQ("0", fieldOf(file, "e2e.long", 11));  // no process yet
  EXPECT_EQ("1", fieldOf(file, "e2e.long", 12));  // the restart before; this one was not charged
  EXPECT_EQ(2u, start.log("begin", "qore2elongd").size());
}

TEST_F(Restarts, TheTimeFromAKillToTheRestartOverTenKills) {
  programs.start("qore2etimedd");
  writeAgent("timed.xml", agentFor("e2e.timed", "Timed program", programs, "qore2etimedd", start, 20));
  startHost(128 | 256);
  // A failure comes at any point of the check period. The kills fall at
  // points spread over it: each a little later after the restart before.
  std::vector<long long> times;
  long long restartSeen = qortest::nowMs();
  for (int kills = 0; kills < 10; ++kills) {
    const long long killAt = restartSeen + kills * 300;
    qortest::waitFor([&] { return qortest::nowMs() >= killAt; }, 5000);
    const long long killed = qortest::nowMs();
    kill(programs.pid("qore2etimedd"), SIGKILL);
    ASSERT_TRUE(waitForEvents("Timed program", " 7", kills + 1, 12000)) << out();
    restartSeen = qortest::nowMs();
    times.push_back(restartSeen - killed);
  }
  std::vector<long long> sorted = times;
  std::sort(sorted.begin(), sorted.end());
  const long long median = (sorted[4] + sorted[5]) / 2;
  std::printf(
      "kill to restart over %zu kills, check period 5 s: median %lld ms, fastest %lld ms, slowest %lld ms\n",
      sorted.size(), median, sorted.front(), sorted.back());
  EXPECT_LT(median, 5000);
  EXPECT_EQ("qorhost: agent 'Timed program' id e2e.timed managed 1 (managed) state 4 (running) pid " +
                std::to_string(programs.pid("qore2etimedd")) + " restarts 10/20",
            host->listingOf("e2e.timed"));
  EXPECT_EQ(0, host->stop());
}

}  // namespace
