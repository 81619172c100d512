// Instances of a multi-instance suite agent that start while the service
// runs, as a host operator sees them: the real qorhost on a real CAP
// directory, the suite's status tool a shell script under a temporary
// $MARLOWHOME that reports the instances that really run, and real programs
// started and killed by hand.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cap/capfiles.h"
#include "e2e/e2ehelp.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"

namespace {

// Detail, errors and availability.
constexpr unsigned kTraceLevel = 1 | 128 | 256;
const char kId[] = "e2e.multi";

// One record of the multi-instance agent in a listing.
struct Record {
  int state = -1;
  int pid = -1;
};

Record recordOf(const std::string& line) {
  Record record;
  const size_t state = line.find(" state ");
  const size_t pid = line.find(" pid ");
  if (state != std::string::npos) record.state = std::atoi(line.c_str() + state + 7);
  if (pid != std::string::npos) record.pid = std::atoi(line.c_str() + pid + 5);
  return record;
}

// Whether `pid` runs one of the instance programs: a process that is gone,
// or a zombie, has no executable.
bool runsProgramOf(int pid, const std::string& binDir) {
  char exe[4096] = {0};
  if (pid <= 0 || readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), exe, sizeof exe - 1) <= 0)
    return false;
  return std::string(exe).rfind(binDir + "/qormulti.", 0) == 0;
}

// qorhost on a CAP directory with the OS agent's file and one suite agent,
// product code "qt", whose instance NAME is the program qormulti.NAME of
// `programs`. The suite's tool lists as configured the names in the file
// `configured` of $MARLOWHOME, and as running each instance whose pid file
// names a live process. The start script is e2e::StartScript's, given the
// record's instance, so its log tells which instance was started.
class DiscoveryHost : public ::testing::Test {
 protected:
  DiscoveryHost() : start(programs) {
    // The intervals reach qorhost only as each test gives them.
    unsetenv("QOR_DISCOVERY_INTERVAL");
    unsetenv("QOR_ZEL_DISCOVERY_INTERVAL");
    qortest::runProgram({"/bin/mkdir", "-p", home.file("bin")});
    qortest::writeFile(
        home.file("bin/vexinf"),
        "#!/bin/sh\n"
        "run='" +
            programs.dir() +
            "'\n"
            "home='" +
            home.path() +
            "'\n"
            "echo 'Suite status'\necho 'Version 9.1'\necho 'Host testhost'\necho\n"
            "echo 'Product Host PID Kind State Instance'\necho '------- ---- --- ---- ----- --------'\n"
            "case \"$1\" in\n"
            "  -r)\n"
            "    for f in \"$run\"/qormulti.*.pid; do\n"
            "      [ -f \"$f\" ] || continue\n"
            "      name=${f##*/qormulti.}; name=${name%.pid}; pid=$(cat \"$f\")\n"
            "      [ -n \"$pid\" ] && [ -e \"/proc/$pid/exe\" ] && echo \"qt testhost $pid agent qt.running "
            "$name\"\n"
            "    done ;;\n"
            "  -o) [ \"$2\" = qt ] && sed 's/^/qt /' \"$home/configured\" ;;\n"
            "esac\n"
            "exit 0\n");
    qortest::makeExecutable(home.file("bin/vexinf"));
    qortest::writeFile(home.file("configured"), "alpha\n");
    qortest::writeFile(caps.file("host.xml"), e2e::osAgentCapFile());
    programs.install("qormulti");
    captest::Subagent multi;
    multi.id = kId;
    multi.agentName = "<agentName>Multi agent</agentName>";
    multi.procName = "<procName>qormulti</procName>";
    multi.productCode = "<productCode>qt</productCode>";
    multi.agentType = "<agentType>ZEL_UNIX</agentType>";
    multi.agentPath = "<agentPath>" + programs.path("qormulti") + "</agentPath>";
    multi.checkFrequency = "<checkFrequency>5</checkFrequency>";
    multi.maxRestarts = "<maxRestarts>3</maxRestarts>";
    multi.startScript = start.element("qormulti.##INSTANCE##");
    agent = multi;
  }
  void startHost(const std::vector<std::string>& env) {
    qortest::writeFile(caps.file("multi.xml"), captest::document(agent));
    std::vector<std::string> all = {"MARLOWHOME=" + home.path()};
    all.insert(all.end(), env.begin(), env.end());
    host.reset(new e2e::Host(caps.path(), work.path(), work.file("trace"), kTraceLevel, all));
    ASSERT_TRUE(host->waitForListing(1)) << host->child().out() << host->child().err();
  }
  // The records of the multi-instance agent in a new listing.
  std::vector<Record> records() {
    std::vector<Record> found;
    for (const std::string& line : host->list()) {
      if (line.find(std::string("' id ") + kId + " managed ") != std::string::npos)
        found.push_back(recordOf(line));
    }
    return found;
  }
  bool hasRecordWithPid(int pid) {
    for (const Record& record : records()) {
      if (record.pid == pid) return true;
    }
    return false;
  }
  std::string trace() { return qortest::readFile(work.file("trace")); }
  // The "New instance discovered" traces, from that text on.
  std::vector<std::string> discovered() {
    std::vector<std::string> found;
    for (const std::string& line : qortest::linesWith(trace(), "New instance discovered "))
      found.push_back(line.substr(line.find("New instance discovered ")));
    return found;
  }
  std::string bin() const { return programs.dir() + "/bin"; }

  qortest::TempDir home;
  qortest::TempDir caps;
  qortest::TempDir work;
  e2e::Programs programs;
  e2e::StartScript start;
  captest::Subagent agent;
  // Last, so that qorhost is gone before the folders and the programs.
  std::unique_ptr<e2e::Host> host;
};

TEST_F(DiscoveryHost, AnInstanceStartedByHandGetsARecordWithinTenSecondsAndKilledIsRestartedAsItself) {
  const int alpha = programs.start("qormulti.alpha");
  ASSERT_GT(alpha, 0);
  startHost({"QOR_DISCOVERY_INTERVAL=5"});
  ASSERT_TRUE(qortest::waitFor([&] { return hasRecordWithPid(alpha); }, 10000)) << trace();
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Discovery interval: 5 seconds\n")) << trace();

  const long long begun = qortest::nowMs();
  const int beta = programs.start("qormulti.beta");
  ASSERT_GT(beta, 0);
  ASSERT_TRUE(qortest::waitFor([&] { return hasRecordWithPid(beta); }, 10000)) << trace();
  EXPECT_LT(qortest::nowMs() - begun, 10000);
  EXPECT_EQ(std::vector<std::string>{"New instance discovered " + std::string(kId) + ", pid " +
                                     std::to_string(beta)},
            discovered())
      << trace();
  EXPECT_EQ(1, qortest::countOccurrences(trace(), "Creating new instance for process qormulti.beta, pid " +
                                                      std::to_string(beta) + " \n"))
      << trace();

  // Killed, it is started again by its own start script, for its instance,
  // and its record follows the new process: no third record.
  ASSERT_EQ(0, kill(beta, SIGKILL));
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        const int now = programs.pid("qormulti.beta");
        return now != beta && runsProgramOf(now, bin()) && hasRecordWithPid(now);
      },
      20000))
      << trace();
  EXPECT_EQ(1u, start.log("begin", "qormulti.beta").size());
  EXPECT_TRUE(start.log("begin", "qormulti.alpha").empty());
  std::vector<Record> now = records();
  ASSERT_EQ(2u, now.size());
  std::set<int> pids = {now[0].pid, now[1].pid};
  EXPECT_EQ(std::set<int>({alpha, programs.pid("qormulti.beta")}), pids);
  EXPECT_EQ(4, now[0].state);
  EXPECT_EQ(4, now[1].state);
  EXPECT_EQ(0, host->stop());
}

class WithoutDiscovery : public DiscoveryHost,
                         public ::testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(WithoutDiscovery, NoThreadRunsAndAnInstanceStartedByHandGetsNoRecordWithinEightSeconds) {
  const int alpha = programs.start("qormulti.alpha");
  startHost(GetParam());
  ASSERT_TRUE(qortest::waitFor([&] { return hasRecordWithPid(alpha); }, 10000)) << trace();
  const int beta = programs.start("qormulti.beta");
  ASSERT_GT(beta, 0);
  EXPECT_FALSE(qortest::waitFor([&] { return hasRecordWithPid(beta); }, 8000)) << trace();
  EXPECT_EQ(1u, records().size());
  EXPECT_EQ(0, qortest::countOccurrences(trace(), "Discovery interval:")) << trace();
  EXPECT_EQ(0, qortest::countOccurrences(trace(), "Going to sleep for:")) << trace();
  EXPECT_EQ(0, host->stop());
}

INSTANTIATE_TEST_SUITE_P(UnsetOrZero, WithoutDiscovery,
                         ::testing::Values(std::vector<std::string>{},
                                           std::vector<std::string>{"QOR_DISCOVERY_INTERVAL=0"}),
                         [](const ::testing::TestParamInfo<std::vector<std::string>>& info) {
                           return std::string(info.param.empty() ? "IntervalUnset" : "IntervalZero");
                         });

// Instances that live 0.3 s, one starting every 0.2 s among three names,
// for 5 s, against a discovery every second. No restart is allowed, so that
// a record whose process is gone ends stopped at its next check, whatever
// the moment it was made.
TEST_F(DiscoveryHost, InstancesShorterThanTheIntervalLeaveNoSharedPidAndNoRecordOfAGoneProcessRunning) {
  agent.maxRestarts = "<maxRestarts>0</maxRestarts>";
  for (const char* name : {"qormulti.c1", "qormulti.c2", "qormulti.c3"}) programs.install(name);
  const int alpha = programs.start("qormulti.alpha");
  startHost({"QOR_DISCOVERY_INTERVAL=1"});
  ASSERT_TRUE(qortest::waitFor([&] { return hasRecordWithPid(alpha); }, 10000)) << trace();

  const std::string churn = work.file("churn.sh");
  qortest::writeFile(churn, "run='" + programs.dir() +
                                "'\n"
                                "end=$(($(date +%s) + 5)); i=0\n"
                                "while [ \"$(date +%s)\" -lt \"$end\" ]; do\n"
                                "  i=$((i % 3 + 1))\n"
                                "  \"$run/bin/qormulti.c$i\" 0.3 & echo $! >\"$run/qormulti.c$i.pid\"\n"
                                "  sleep 0.2\n"
                                "done\n"
                                "wait\n");
  qortest::RunResult churned = qortest::runProgram({"/bin/sh", churn});
  ASSERT_EQ(0, churned.exitCode) << churned.err;
  // Some of them were found, or the test would prove nothing.
  EXPECT_LE(1u, discovered().size()) << trace();

  // Settled: every record that says running has its process, no two
  // records share a process, and every record of a gone instance has been
  // found down by its check and, with no restart allowed, stays stopped.
  auto consistent = [&](const std::vector<Record>& now) {
    std::set<int> pids;
    for (const Record& record : now) {
      if (record.pid != 0 && !pids.insert(record.pid).second) return false;
      if (record.state == 4 && !runsProgramOf(record.pid, bin())) return false;
    }
    return true;
  };
  auto settled = [&] {
    std::vector<Record> now = records();
    int stopped = 0;
    for (const Record& record : now) stopped += record.state == 2 ? 1 : 0;
    return consistent(now) && !now.empty() && stopped == static_cast<int>(now.size()) - 1;
  };
  EXPECT_TRUE(qortest::waitFor(settled, 15000)) << host->child().out() << trace();
  std::vector<Record> now = records();
  EXPECT_TRUE(consistent(now)) << host->child().out();
  std::map<int, int> owners;
  for (const Record& record : now) {
    if (record.pid != 0) ++owners[record.pid];
    if (record.pid != alpha) {
      EXPECT_EQ(2, record.state);
      EXPECT_EQ(0, record.pid);
    }
  }
  const std::map<int, int> onlyAlpha = {{alpha, 1}};
  EXPECT_EQ(onlyAlpha, owners);
  // No instance was started by the service.
  EXPECT_TRUE(start.log().empty()) << qortest::readFile(work.file("trace"));
  EXPECT_EQ(0, host->stop());
}

}  // namespace
