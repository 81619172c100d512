#include "watchdog/qormatch.h"

#include <gtest/gtest.h>
#include <unicode/regex.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"
#include "watchdog/qorcmdlnx.h"
#include "watchdog/qorlnx.h"

namespace {

QorCmdLinux* manager() {
  MIN_CMD_TIMEOUT = 3;
  unsetenv("QOR_CMD_TIMEOUT");
  return static_cast<QorCmdLinux*>(GetCmdManager());
}

std::wstring wide(const std::string& text) { return qor_mbstowcs(text.c_str()); }

// Processes of our own executables in a directory of their own: a copy of
// sleep under a chosen name, or a copy of the shell running a script with
// arguments of our choosing.
class Lab {
 public:
  std::string dir() const { return dir_.path(); }
  std::string path(const std::string& name) const { return dir_.file(name); }

  int sleeper(const std::string& name) {
    std::string exe = path(name);
    if (!qortest::fileExists(exe)) proctest::copyProgram("/bin/sleep", exe);
    return start({exe, "20"}, exe);
  }
  int shell(const std::string& name, const std::string& body, const std::vector<std::string>& args = {}) {
    std::string exe = path(name);
    if (!qortest::fileExists(exe)) proctest::copyProgram("/bin/sh", exe);
    std::string script = path(name + std::to_string(processes_.size()) + ".sh");
    qortest::writeFile(script, body);
    std::vector<std::string> argv{exe, script};
    argv.insert(argv.end(), args.begin(), args.end());
    return start(argv, exe);
  }

 private:
  int start(const std::vector<std::string>& argv, const std::string& exe) {
    processes_.emplace_back(new proctest::Process(argv));
    int pid = processes_.back()->pid();
    EXPECT_TRUE(qortest::waitFor([&] { return proctest::runsExecutable(pid, exe); }, 5000)) << exe;
    return pid;
  }

  qortest::TempDir dir_;
  std::vector<std::unique_ptr<proctest::Process>> processes_;
};

// A policy of a plain daemon (so that no suite tool is asked) with the path
// of its executable; `code` is set on a policy that names its instances, so
// that no tool is asked to list them.
Policy* daemonPolicy(const std::string& exe, const std::string& code = "") {
  Policy* policy = new Policy();
  policy->setAgentTypeElement(UnixDaemon);
  policy->setAgentPathElement(wide(exe));
  if (!code.empty()) {
    policy->setGeneric(false);
    policy->setProductCode(wide(code));
  }
  return policy;
}

void setPattern(Policy* policy, const std::wstring& pattern) {
  policy->setCommandLine(pattern);
  policy->setProcRegEx(true);
  UErrorCode status = U_ZERO_ERROR;
  std::string utf8 = qor_narrow(pattern);
  policy->setRegexMatcher(new icu::RegexMatcher(icu::UnicodeString::fromUTF8(utf8), 0, status));
  ASSERT_TRUE(U_SUCCESS(status));
}

struct MatchResult {
  bool match;
  std::wstring appName;
  std::wstring instance;
};

MatchResult applicationMatch(int pid, const std::wstring& appName, const std::wstring& instance,
                             const std::string& path, Policy* policy) {
  MatchResult result{false, appName, instance};
  result.match = manager()->applicationMatch(pid, GetCommandLine(pid), result.appName, result.instance,
                                             wide(path), false, policy);
  return result;
}

// An agent in the managed list with process id `pid`; the list owns nothing,
// so the agent is the caller's.
Agent* manage(int pid) {
  Agent* agent = new Agent();
  agent->setProcID(pid);
  ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
  list->lockList();
  list->push_back(agent);
  list->unlockList();
  return agent;
}

struct OpenResult {
  bool found;
  int pid;
  std::wstring processName;
  std::wstring instance;
  std::wstring commandLine;
};

OpenResult openApplication(const std::wstring& name, const std::string& path, const std::wstring& instance,
                           int pid, Policy* policy) {
  OpenResult result{false, pid, name, instance, L""};
  QorAppHandle handle = manager()->openApplication(result.processName, wide(path), result.instance,
                                                   result.pid, result.commandLine, policy);
  result.found = handle != nullptr;
  if (handle != nullptr) manager()->closeApplication(handle);
  return result;
}

}  // namespace

TEST(ApplicationMatch, AStemOfTheExecutablesNameWithoutInstanceIsNoMatch) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  Lab lab;
  int pid = lab.sleeper("qoragentd");
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qoragentd")));
  EXPECT_FALSE(applicationMatch(pid, L"qoragent", L"", lab.path("qoragentd"), policy.get()).match);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(trace.file("trace")),
                                         "This is only a partial match.\n"));
  EXPECT_TRUE(applicationMatch(pid, L"qoragentd", L"", lab.path("qoragentd"), policy.get()).match);
}

TEST(ApplicationMatch, AnotherDirectoryIsNoMatchAndAnEmptyPathIsAny) {
  Lab lab;
  int pid = lab.sleeper("qordird");
  std::unique_ptr<Policy> policy(daemonPolicy("/elsewhere/qordird"));
  EXPECT_FALSE(applicationMatch(pid, L"qordird", L"", "/elsewhere/qordird", policy.get()).match);
  EXPECT_TRUE(applicationMatch(pid, L"qordird", L"", "", policy.get()).match);
}

TEST(ApplicationMatch, ADatabaseAgentMatchesInAnotherDirectory) {
  Lab lab;
  int pid = lab.sleeper("qordbd");
  std::unique_ptr<Policy> qf(daemonPolicy("/elsewhere/qordbd", "qf"));
  std::unique_ptr<Policy> qa(daemonPolicy("/elsewhere/qordbd", "qa"));
  EXPECT_TRUE(applicationMatch(pid, L"qordbd", L"", "/elsewhere/qordbd", qf.get()).match);
  EXPECT_FALSE(applicationMatch(pid, L"qordbd", L"", "/elsewhere/qordbd", qa.get()).match);
}

TEST(ApplicationMatch, AnInstanceBeforeAFullStopMatches) {
  Lab lab;
  int pid = lab.shell("qorinstd", "sleep 20; :\n", {"--config", "/etc/db1.cfg"});
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorinstd")));
  EXPECT_TRUE(applicationMatch(pid, L"qorinstd", L"db1", lab.path("qorinstd"), policy.get()).match);
  EXPECT_TRUE(applicationMatch(pid, L"qorinstd", L"etc", lab.path("qorinstd"), policy.get()).match);
  EXPECT_TRUE(applicationMatch(pid, L"qorinstd", L"db1.cfg", lab.path("qorinstd"), policy.get()).match);
}

TEST(ApplicationMatch, AnInstanceThatOnlyBeginsALongerWordIsNoMatch) {
  Lab lab;
  int pid = lab.shell("qorprefixd", "sleep 20; :\n", {"/etc/db1.cfg", "db10"});
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorprefixd")));
  // Only the last place is looked at, and there it is the start of db10.
  EXPECT_FALSE(applicationMatch(pid, L"qorprefixd", L"db1", lab.path("qorprefixd"), policy.get()).match);
  EXPECT_TRUE(applicationMatch(pid, L"qorprefixd", L"db10", lab.path("qorprefixd"), policy.get()).match);
  EXPECT_FALSE(applicationMatch(pid, L"qorprefixd", L"db2", lab.path("qorprefixd"), policy.get()).match);
}

TEST(ApplicationMatch, InstanceNoneTestsOnlyTheCommandLinePattern) {
  Lab lab;
  int pid = lab.sleeper("qornoned");
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qornoned")));
  // A stem is enough here, since the executable's name is not compared.
  EXPECT_TRUE(applicationMatch(pid, L"qornone", L"None", lab.path("qornoned"), policy.get()).match);
  setPattern(policy.get(), L"qornoned 20$");
  EXPECT_TRUE(applicationMatch(pid, L"qornone", L"None", lab.path("qornoned"), policy.get()).match);
  setPattern(policy.get(), L"--never");
  EXPECT_FALSE(applicationMatch(pid, L"qornone", L"None", lab.path("qornoned"), policy.get()).match);
}

TEST(ApplicationMatch, AnAgentWithoutInstanceTakesItFromThePatternsGroup) {
  Lab lab;
  int pid = lab.shell("qorgroupd", "sleep 20; :\n", {"--config", "/etc/db1.cfg"});
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorgroupd")));
  setPattern(policy.get(), L"--config /etc/(\\w+)\\.cfg");
  MatchResult result = applicationMatch(pid, L"qorgroupd", L"", lab.path("qorgroupd"), policy.get());
  EXPECT_TRUE(result.match);
  EXPECT_EQ(L"db1", result.instance);
}

TEST(ApplicationMatch, AnInstanceThatContradictsThePatternsGroupIsNoMatch) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  Lab lab;
  int pid = lab.shell("qorgroupd", "sleep 20; :\n", {"--config", "/etc/db1.cfg", "db2"});
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorgroupd")));
  setPattern(policy.get(), L"--config /etc/(\\w+)\\.cfg");
  MatchResult result = applicationMatch(pid, L"qorgroupd", L"db2", lab.path("qorgroupd"), policy.get());
  EXPECT_FALSE(result.match);
  EXPECT_EQ(L"db2", result.instance);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(trace.file("trace")),
                                         "Instance name does not match this agent.\n"));
}

TEST(ApplicationMatch, TheFullNameOfTheExecutableComesBack) {
  Lab lab;
  int pid = lab.shell("qorfullnamed", "sleep 20; :\n", {"db1"});
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorfullnamed")));
  MatchResult result = applicationMatch(pid, L"qorfull", L"db1", lab.path("qorfullnamed"), policy.get());
  EXPECT_TRUE(result.match);
  EXPECT_EQ(L"qorfullnamed", result.appName);
}

TEST(ApplicationMatch, AnApplicationAgentAsksTheSuiteToolForTheInstance) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  manager();
  proctest::FakeSuite suite;
  Lab lab;
  int pid = lab.sleeper("qorsapd");
  suite.answer("r", "qh host " + std::to_string(pid) + " agent qh.running SAP01\n");
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorsapd"), "qh"));
  EXPECT_TRUE(applicationMatch(pid, L"qorsapd", L"SAP01", lab.path("qorsapd"), policy.get()).match);
  EXPECT_EQ(1, suite.runs());
  EXPECT_FALSE(applicationMatch(pid, L"qorsapd", L"SAP02", lab.path("qorsapd"), policy.get()).match);
  EXPECT_EQ(1, suite.runs());  // answered from the cache
  EXPECT_EQ(2, qortest::countOccurrences(qortest::readFile(trace.file("trace")),
                                         "SAP agent - run vexinf to get instance name.\n"));
}

TEST(OpenApplication, AScanSkipsACandidateThatAnotherRecordManages) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  Lab lab;
  int first = lab.sleeper("qorscand");
  int second = lab.sleeper("qorscand");
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorscand")));
  // The lower process id comes first in /proc: that one is taken.
  std::unique_ptr<Agent> other(manage(std::min(first, second)));
  ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
  ASSERT_TRUE(list->lockList());
  OpenResult found = openApplication(L"qorscand", lab.path("qorscand"), L"", 0, policy.get());
  list->unlockList();
  EXPECT_TRUE(found.found);
  EXPECT_EQ(std::max(first, second), found.pid);
  EXPECT_EQ(1, qortest::countOccurrences(
                   qortest::readFile(trace.file("trace")),
                   "(pid " + std::to_string(std::min(first, second)) + ") already managed.\n"));
  // A caller without the list gets the same answer: the list is read under its lock.
  EXPECT_EQ(std::max(first, second),
            openApplication(L"qorscand", lab.path("qorscand"), L"", 0, policy.get()).pid);
  EXPECT_FALSE(list->isLockedByCaller());
  list->lockList();
  list->clear();
  list->unlockList();
}

TEST(OpenApplication, AKnownProcessIdFindsItselfEvenWhenManaged) {
  Lab lab;
  int pid = lab.sleeper("qorselfd");
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorselfd")));
  std::unique_ptr<Agent> self(manage(pid));
  OpenResult found = openApplication(L"qorselfd", lab.path("qorselfd"), L"", pid, policy.get());
  EXPECT_TRUE(found.found);
  EXPECT_EQ(pid, found.pid);
  EXPECT_EQ(GetCommandLine(pid), found.commandLine);
  ManagedProcessList* list = Controller::getController()->getManagedEndpointProcesses();
  list->lockList();
  list->clear();
  list->unlockList();
}

TEST(OpenApplication, AParentIsFoundAndItsOldStyleThreadsAreSkipped) {
  Lab lab;
  int parent = lab.shell("qorthreadd", "{ sleep 20; :; } &\n{ sleep 20; :; } &\nwait\n");
  ASSERT_TRUE(qortest::waitFor([&] { return proctest::childrenOf(parent).size() == 2; }, 3000));
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorthreadd")));
  OpenResult found = openApplication(L"qorthreadd", lab.path("qorthreadd"), L"", 0, policy.get());
  EXPECT_TRUE(found.found);
  EXPECT_EQ(parent, found.pid);
  for (int thread : proctest::childrenOf(parent)) {
    OpenResult asked = openApplication(L"qorthreadd", lab.path("qorthreadd"), L"", thread, policy.get());
    EXPECT_FALSE(asked.found);
    EXPECT_EQ(L"qorthreadd", asked.processName);
  }
  // The process table gives the parent alone as well.
  std::vector<QorProcess*> all;
  manager()->getRunningProcesses(all);
  std::vector<QorProcess*> matched;
  policy->setProcName(L"qorthreadd");
  manager()->getPolicyProcesses(policy.get(), all, matched);
  ASSERT_EQ(1u, matched.size());
  EXPECT_EQ(parent, matched[0]->getProcID());
  for (QorProcess* process : all) delete process;
}

TEST(OpenApplication, AProcessOfAnotherNameOrAGoneProcessIsNotFound) {
  Lab lab;
  int pid = lab.sleeper("qorwrongd");
  std::unique_ptr<Policy> policy(daemonPolicy(lab.path("qorotherd")));
  EXPECT_FALSE(openApplication(L"qorotherd", lab.path("qorotherd"), L"", pid, policy.get()).found);
  int state =
      manager()->getAppOperatingState(L"qorwrongd", L"", wide(lab.path("qorwrongd")), pid, policy.get());
  EXPECT_EQ(OpRunning, state);
  proctest::killProcess(pid);
  ASSERT_TRUE(qortest::waitFor([&] { return GetCommandLine(pid).empty(); }, 3000));
  EXPECT_EQ(OpStopped, manager()->getAppOperatingState(L"qorwrongd", L"", wide(lab.path("qorwrongd")), pid,
                                                       policy.get()));
}

TEST(CollectProcessData, AnAgentIsTiedToItsProcessAndLetGoWhenItEnds) {
  Lab lab;
  int pid = lab.sleeper("qorcollectd");
  Agent agent;
  agent.setPolicy(daemonPolicy(lab.path("qorcollectd")));
  agent.setProcName(L"qorcollectd");
  agent.setPath(wide(lab.path("qorcollectd")));
  agent.setUserName(L"someone");
  EXPECT_TRUE(manager()->isAppRunning(&agent));
  EXPECT_EQ(pid, agent.getProcID());
  EXPECT_EQ(L"qorcollectd", agent.getInstanceProcName());
  EXPECT_EQ(GetCommandLine(pid), agent.getCmdLine());
  EXPECT_EQ(manager()->getUserID(pid, nullptr), agent.getUserName());  // not a suite agent: the real owner
  proctest::killProcess(pid);
  ASSERT_TRUE(qortest::waitFor([&] { return GetCommandLine(pid).empty(); }, 3000));
  EXPECT_FALSE(manager()->isAppRunning(&agent));
  EXPECT_EQ(0, agent.getProcID());
}

TEST(CollectProcessData, ASuiteAgentIsFoundThroughTheToolAndKeepsItsUser) {
  manager();
  proctest::FakeSuite suite;
  Lab lab;
  int pid = lab.shell("qorsuited", "sleep 20; :\n", {"-i", "db7"});
  suite.answer("r", "qz host " + std::to_string(pid) + " agent qz.running db7\n");
  Policy* policy = new Policy();  // a suite agent
  policy->setAgentPathElement(wide(lab.path("qorsuited")));
  policy->setGeneric(false);
  policy->addInstance(L"db7");
  policy->setProductCode(L"qz");
  Agent agent;
  agent.setPolicy(policy);
  agent.setProcName(L"qorsuited");
  agent.setInstanceName(L"db7");
  agent.setPath(wide(lab.path("qorsuited")));
  agent.setUserName(L"dbadmin");
  manager()->collectProcessData(&agent);
  EXPECT_EQ(pid, agent.getProcID());
  EXPECT_EQ(L"db7", agent.getInstanceName());
  EXPECT_EQ(L"dbadmin", agent.getUserName());
  EXPECT_EQ(1, suite.runs());
}

TEST(ZELInstanceProcID, TheLaterOfTwoLinesForOneInstanceWins) {
  manager();
  proctest::FakeSuite suite;
  suite.answer("r", "qz h 111 a qz.running db1\nqz h 333 a qz.running db2\nqz h 222 a qz.running db1\n");
  Policy* policy = new Policy();
  policy->setGeneric(false);
  policy->setProductCode(L"qz");
  Agent agent;
  agent.setPolicy(policy);
  agent.setInstanceName(L"db1");
  EXPECT_EQ(222, GetZELInstanceProcID(&agent));
  agent.setInstanceName(L"db3");
  EXPECT_EQ(0, GetZELInstanceProcID(&agent));
}

TEST(CompareProcess, ASuiteAgentAcceptsAPrefixAndOtherAgentsNeedTheWholeName) {
  Policy suite;
  Policy daemon;
  daemon.setAgentTypeElement(UnixDaemon);
  QorProcess process;
  process.setPath(L"/opt/agent/bin");
  process.setInstanceProcName(L"qoragentd_64");
  EXPECT_TRUE(manager()->compareProcess(&suite, L"/opt/agent/bin", L"qoragentd", &process));
  EXPECT_FALSE(manager()->compareProcess(&daemon, L"/opt/agent/bin", L"qoragentd", &process));
  EXPECT_TRUE(manager()->compareProcess(&daemon, L"/opt/agent/bin", L"qoragentd_64", &process));
  EXPECT_FALSE(manager()->compareProcess(&suite, L"/opt/other/bin", L"qoragentd", &process));
}

TEST(CompareProcess, APatternsGroupNamesTheProcessInstance) {
  Policy policy;
  policy.setAgentTypeElement(UnixDaemon);
  setPattern(&policy, L"-sid (\\w+)");
  QorProcess process;
  process.setPath(L"/opt/db/bin");
  process.setCmdLine(L"/opt/db/bin/dbd -sid PROD");
  EXPECT_TRUE(manager()->compareProcess(&policy, L"/opt/db/bin", L"dbd", &process));
  EXPECT_EQ(L"PROD", process.getInstanceName());
}

TEST(PolicyProcesses, AnAgentPathWithoutASlashMatchesNothing) {
  Lab lab;
  int pid = lab.sleeper("qorpathd");
  std::vector<QorProcess*> all;
  manager()->getRunningProcesses(all);
  Policy policy;
  policy.setAgentTypeElement(UnixDaemon);
  policy.setProcName(L"qorpathd");
  policy.setAgentPathElement(L"qorpathd");
  std::vector<QorProcess*> matched;
  manager()->getPolicyProcesses(&policy, all, matched);
  EXPECT_TRUE(matched.empty());

  policy.setAgentPathElement(wide(lab.path("qorpathd")));
  manager()->getPolicyProcesses(&policy, all, matched);
  ASSERT_EQ(1u, matched.size());
  EXPECT_EQ(pid, matched[0]->getProcID());
  EXPECT_EQ(GetCommandLine(pid), matched[0]->getCmdLine());
  for (QorProcess* process : all) delete process;
}

TEST(CommandLinePattern, APlainCommandLineMustBeEqual) {
  Policy policy;
  policy.setCommandLine(L"/opt/a/agentd -x");
  std::wstring instance;
  EXPECT_TRUE(manager()->compareCommandLine(L"/opt/a/agentd -x", &policy, instance));
  EXPECT_FALSE(manager()->compareCommandLine(L"/opt/a/agentd -x -y", &policy, instance));
}

TEST(CommandLinePattern, APatternWithoutAGroupOrWithAnEmptyGroupMatchesWithoutAnInstance) {
  qortest::TempDir trace;
  qortest::traceTo(trace.file("trace"), QOR_TL_DETAIL);
  Policy policy;
  setPattern(&policy, L"agentd -x");
  std::wstring instance;
  EXPECT_TRUE(manager()->compareCommandLine(L"/opt/a/agentd -x", &policy, instance));
  EXPECT_EQ(L"", instance);
  setPattern(&policy, L"agentd(\\d*) -x");
  EXPECT_TRUE(manager()->compareCommandLine(L"/opt/a/agentd -x", &policy, instance));
  EXPECT_EQ(L"", instance);
  EXPECT_FALSE(manager()->compareCommandLine(L"/opt/a/other", &policy, instance));
  std::string text = qortest::readFile(trace.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(text, "Failure retrieving instance name from command line.\n"));
  EXPECT_EQ(1, qortest::countOccurrences(text, "No instance name available.\n"));
}

TEST(CommandLinePattern, TwoThreadsMatchingOnePolicyEachGetTheirOwnAnswer) {
  Policy policy;
  setPattern(&policy, L"-sid (\\w+)");
  std::atomic<int> wrong{0};
  // manager() sets the time-out and the environment: once, before the threads.
  QorCmdLinux* commands = manager();
  auto work = [&](const std::wstring& sid) {
    for (int i = 0; i < 2000; ++i) {
      std::wstring instance;
      if (!commands->compareCommandLine(L"dbd -sid " + sid, &policy, instance) || instance != sid) ++wrong;
    }
  };
  std::thread first(work, L"ALPHA");
  std::thread second(work, L"BETA");
  first.join();
  second.join();
  EXPECT_EQ(0, wrong.load());
}
