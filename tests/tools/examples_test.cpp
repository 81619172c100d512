#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unicode/regex.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include "cap/qorxmlproc.h"
#include "support/qortest.h"
#include "watchdog/proctest.h"

namespace {

const char kXmllint[] = "/usr/bin/xmllint";

std::string examplesDir() { return qortest::sourceDir() + "/examples"; }
std::string schemaFile() { return examplesDir() + "/mdhcap.xsd"; }

std::vector<std::string> exampleFiles() {
  std::vector<std::string> files;
  std::string dir = examplesDir() + "/cap";
  DIR* stream = opendir(dir.c_str());
  if (stream == nullptr) return files;
  while (dirent* entry = readdir(stream)) {
    std::string name = entry->d_name;
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".xml") == 0) files.push_back(dir + "/" + name);
  }
  closedir(stream);
  std::sort(files.begin(), files.end());
  return files;
}

qortest::RunResult xmllint(const std::vector<std::string>& files) {
  std::vector<std::string> args = {kXmllint, "--noout", "--schema", schemaFile()};
  args.insert(args.end(), files.begin(), files.end());
  return qortest::runProgram(args);
}

qortest::RunResult validate(const std::vector<std::string>& files) {
  std::vector<std::string> args = {qortest::binaryDir() + "/tools/qorctl", "validate"};
  args.insert(args.end(), files.begin(), files.end());
  return qortest::runProgram(args);
}

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::wstring wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

TEST(ExampleCapFiles, ThereIsOneOfEachKind) {
  std::vector<std::string> names;
  for (const std::string& file : exampleFiles()) names.push_back(baseName(file));
  EXPECT_EQ(
      std::vector<std::string>({"multi.xml", "pattern.xml", "qorhost.xml", "sleeper.xml", "watched.xml"}),
      names);
}

TEST(ExampleCapFiles, PassTheSchemaForEditors) {
  ASSERT_TRUE(qortest::fileExists(kXmllint)) << "xmllint comes with the Debian package libxml2-utils";
  std::vector<std::string> files = exampleFiles();
  ASSERT_FALSE(files.empty());
  qortest::RunResult run = xmllint(files);
  EXPECT_EQ(0, run.exitCode) << run.err;
  for (const std::string& file : files)
    EXPECT_NE(std::string::npos, run.err.find(file + " validates")) << run.err;
}

TEST(ExampleCapFiles, PassQorctlValidate) {
  std::vector<std::string> files = exampleFiles();
  ASSERT_FALSE(files.empty());
  qortest::RunResult run = validate(files);
  EXPECT_EQ(0, run.exitCode) << run.out;
  std::string expected;
  for (const std::string& file : files) {
    expected += file + ": ok, subagent example." + baseName(file).substr(0, baseName(file).size() - 4) + "\n";
  }
  EXPECT_EQ(expected, run.out);
  EXPECT_EQ("", run.err);
}

class ExamplePolicies : public ::testing::Test {
 protected:
  int parse(const std::string& name) { return processor.parse(wide(examplesDir() + "/cap/" + name), policy); }

  XMLprocessor processor;
  Policy policy;
};

TEST_F(ExamplePolicies, SleeperHasStartAndStopScripts) {
  ASSERT_EQ(XML_OK, parse("sleeper.xml"));
  EXPECT_EQ(L"example.sleeper", policy.getSubagentID());
  EXPECT_EQ(Console, policy.getAgentTypeElement());
  EXPECT_EQ(L"qor-sleeper", policy.getProcName());
  EXPECT_EQ(L"/tmp/qor-examples/bin/qor-sleeper", policy.getAgentPath());
  EXPECT_EQ(L"$QOR_EXAMPLES/scripts/example-daemon.sh start qor-sleeper", policy.getStartCommand());
  EXPECT_EQ(L"$QOR_EXAMPLES/scripts/example-daemon.sh stop qor-sleeper", policy.getStopCommand());
  EXPECT_TRUE(policy.getStartScript()->emptyRCs());
  EXPECT_TRUE(policy.getAvailabilityStatusScript()->empty());
}

TEST_F(ExamplePolicies, WatchedHasAStatusScriptWithReturnCodesAndLimits) {
  ASSERT_EQ(XML_OK, parse("watched.xml"));
  QorScript* status = policy.getAvailabilityStatusScript();
  EXPECT_EQ(L"$QOR_EXAMPLES/scripts/example-daemon.sh status qor-watched",
            policy.getAvailabilityStatusCommand());
  EXPECT_EQ(L"WATCHED_RUNNING", status->getSuccessRCMsg(0));
  EXPECT_EQ(L"WATCHED_NOT_RUNNING", status->getErrorRCMsg(1));
  EXPECT_EQ(L"WATCHED_STALE_PID_FILE", status->getErrorRCMsg(2));
  EXPECT_EQ(5, policy.getCheckFrequencyElement());
  EXPECT_EQ(50, policy.getCPUThreshold());
  EXPECT_EQ(64.0 * 1024 * 1024, policy.getMemoryThreshold());
  EXPECT_EQ(5, policy.getMaxRestartElement());
}

// The demo's programs all start down, so none of them waits for another.
TEST_F(ExamplePolicies, PatternHasACompiledCommandLineAndNeedsNoOtherAgent) {
  ASSERT_EQ(XML_OK, parse("pattern.xml"));
  EXPECT_EQ(L"qor-pattern", policy.getProcName());
  EXPECT_EQ(L"^/tmp/qor-examples/bin/qor-pattern [0-9]+$", policy.getCommandLine());
  EXPECT_TRUE(policy.getProcRegEx());
  ASSERT_NE(nullptr, policy.getRegexMatcher());
  EXPECT_TRUE(policy.getDependentAgents().empty());
}

// The demo shows a death and its restart within seconds, not minutes.
TEST_F(ExamplePolicies, EveryProgramIsCheckedEveryFiveSeconds) {
  for (const char* name : {"sleeper.xml", "watched.xml", "pattern.xml", "multi.xml"}) {
    Policy each;
    ASSERT_EQ(XML_OK, processor.parse(wide(examplesDir() + "/cap/" + name), each)) << name;
    EXPECT_EQ(5, each.getCheckFrequencyElement()) << name;
  }
}

// A suite agent without instances of its own: the suite's tool names them,
// and each instance's scripts get its name.
TEST_F(ExamplePolicies, MultiIsASuiteAgentWhoseScriptsTakeTheInstance) {
  ASSERT_EQ(XML_OK, parse("multi.xml"));
  EXPECT_EQ(L"example.multi", policy.getSubagentID());
  EXPECT_EQ(ZEL_UNIX, policy.getAgentTypeElement());
  EXPECT_TRUE(policy.isZELAgent());
  EXPECT_TRUE(policy.isGeneric());
  EXPECT_EQ(L"qm", policy.getProductCode());
  EXPECT_EQ(L"qor-multi", policy.getProcName());
  EXPECT_EQ(L"/tmp/qor-examples/bin/qor-multi", policy.getAgentPath());
  EXPECT_EQ(L"$QOR_EXAMPLES/scripts/example-daemon.sh start qor-multi.##INSTANCE##",
            policy.getStartCommand());
  EXPECT_EQ(L"$QOR_EXAMPLES/scripts/example-daemon.sh stop qor-multi.##INSTANCE##", policy.getStopCommand());
  EXPECT_EQ(3, policy.getMaxRestartElement());
}

// The demo's copy gets the built qorhost as agentPath; the file in the tree
// names an installed one. The watchdog process starts and stops it by the
// example script.
TEST_F(ExamplePolicies, QorhostIsTheOsAgentLeftToTheWatchdogProcess) {
  ASSERT_EQ(XML_OK, parse("qorhost.xml"));
  EXPECT_EQ(L"example.qorhost", policy.getSubagentID());
  EXPECT_EQ(L"qorhost OS agent", policy.getAgentNameElement());
  EXPECT_EQ(WatchDog, policy.getManagerTypeElement());
  EXPECT_EQ(Console, policy.getAgentTypeElement());
  EXPECT_EQ(L"qorhost", policy.getProcName());
  EXPECT_EQ(L"/usr/local/bin/qorhost", policy.getAgentPath());
  EXPECT_EQ(PlatformLinux, policy.getOsTypeAsEnum());
  EXPECT_EQ(3, policy.getMaxRestartElement());
  EXPECT_EQ(5, policy.getCheckFrequencyElement());
  EXPECT_EQ(L"$QOR_EXAMPLES/scripts/qorhost-daemon.sh start", policy.getStartCommand());
  EXPECT_EQ(L"$QOR_EXAMPLES/scripts/qorhost-daemon.sh stop", policy.getStopCommand());
}

// Changes of a valid file that the service refuses must fail the schema for
// editors too: both know the same order, occurrences and values.
struct Mutation {
  const char* what;
  const char* from;
  const char* to;
};

void PrintTo(const Mutation& mutation, std::ostream* out) { *out << mutation.what; }

// "element order" becomes "ElementOrder": test names that read as the change.
std::string mutationName(const ::testing::TestParamInfo<Mutation>& info) {
  std::string name;
  bool upper = true;
  for (const char* c = info.param.what; *c != '\0'; ++c) {
    if (*c == ' ') {
      upper = true;
    } else {
      name += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(*c))) : *c;
      upper = false;
    }
  }
  return name;
}

class SchemaAgreement : public ::testing::TestWithParam<Mutation> {};

std::string exampleText() { return qortest::readFile(examplesDir() + "/cap/watched.xml"); }

TEST_P(SchemaAgreement, BothRefuseTheChangedFile) {
  const Mutation& mutation = GetParam();
  std::string content = exampleText();
  size_t at = content.find(mutation.from);
  ASSERT_NE(std::string::npos, at) << mutation.from;
  content.replace(at, std::string(mutation.from).size(), mutation.to);
  qortest::TempDir dir;
  std::string file = dir.file("changed.xml");
  qortest::writeFile(file, content);
  qortest::RunResult lint = xmllint({file});
  EXPECT_NE(0, lint.exitCode) << mutation.what;
  qortest::RunResult ours = validate({file});
  EXPECT_EQ(1, ours.exitCode) << mutation.what;
  EXPECT_NE(std::string::npos, ours.out.find(": error ")) << mutation.what << ": " << ours.out;
}

std::string repeated(const std::string& text, int count) {
  std::string result;
  for (int i = 0; i < count; ++i) result += text;
  return result;
}

const std::string kReturnCode = "<returnCode type=\"OK\">0</returnCode>";
const std::string kReturnCodes21 = repeated(kReturnCode, 21);

INSTANTIATE_TEST_SUITE_P(
    RefusedChanges, SchemaAgreement,
    ::testing::Values(
        Mutation{"element order",
                 "<agentName>Example watched program</agentName>\n    <procName>qor-watched</procName>",
                 "<procName>qor-watched</procName>\n    <agentName>Example watched program</agentName>"},
        Mutation{"missing required element", "<agentPath>/tmp/qor-examples/bin/qor-watched</agentPath>", ""},
        Mutation{"repeated element", "<cpuThreshold>50</cpuThreshold>",
                 "<cpuThreshold>50</cpuThreshold><cpuThreshold>50</cpuThreshold>"},
        Mutation{"unknown element", "<cpuThreshold>50</cpuThreshold>", "<cpu>50</cpu>"},
        Mutation{"kernelRelease on another platform", "<platform xsi:type=\"PlatformLinux\"/>",
                 "<platform xsi:type=\"PlatformUnix\"><kernelRelease>1</kernelRelease></platform>"},
        Mutation{"platform without type", "<platform xsi:type=\"PlatformLinux\"/>", "<platform/>"},
        Mutation{"unknown platform type", "xsi:type=\"PlatformLinux\"", "xsi:type=\"PlatformMac\""},
        Mutation{"unknown arch", "xsi:type=\"PlatformLinux\"", "xsi:type=\"PlatformLinux\" arch=\"arm\""},
        Mutation{"agent type with blank", "<agentType>Console</agentType>",
                 "<agentType>Console </agentType>"},
        Mutation{"unknown manager type", "<managerType>TeoServices</managerType>",
                 "<managerType>Teo</managerType>"},
        Mutation{"check frequency not a multiple of five", "<checkFrequency>5</checkFrequency>",
                 "<checkFrequency>12</checkFrequency>"},
        Mutation{"cpu threshold zero", "<cpuThreshold>50</cpuThreshold>", "<cpuThreshold>0</cpuThreshold>"},
        Mutation{"memory suffix in lower case", "<memoryThreshold>64 MB</memoryThreshold>",
                 "<memoryThreshold>64 mb</memoryThreshold>"},
        Mutation{"negative restarts", "<maxRestarts>5</maxRestarts>", "<maxRestarts>-5</maxRestarts>"},
        Mutation{"script without command",
                 "<command>$QOR_EXAMPLES/scripts/example-daemon.sh stop qor-watched</command>", ""},
        Mutation{"empty return code list",
                 "<returnCode type=\"OK\" msg_id=\"WATCHED_STOPPED\">0</returnCode>", ""},
        Mutation{"21 return codes", "<returnCode type=\"OK\" msg_id=\"WATCHED_STOPPED\">0</returnCode>",
                 kReturnCodes21.c_str()},
        Mutation{"return code without type", "<returnCode type=\"OK\" msg_id=\"WATCHED_STOPPED\">",
                 "<returnCode msg_id=\"WATCHED_STOPPED\">"},
        Mutation{"unknown return code type", "type=\"OK\" msg_id=\"WATCHED_STOPPED\"",
                 "type=\"Fine\" msg_id=\"WATCHED_STOPPED\""},
        Mutation{"subagent without id", " id=\"example.watched\"", ""},
        Mutation{"unknown attribute", "<agentName>", "<agentName lang=\"en\">"},
        Mutation{"other namespace", "xmlns=\"urn:qor:cap\"", "xmlns=\"urn:other\""}),
    mutationName);

TEST(SchemaAgreementOnCounts, TwentySubagentsPassAndTwentyOneFailBoth) {
  std::string content = exampleText();
  size_t begin = content.find("  <subagent ");
  size_t end = content.find("</subagents>");
  std::string subagent = content.substr(begin, end - begin);
  qortest::TempDir dir;
  std::string twenty = content.substr(0, begin) + repeated(subagent, 20) + content.substr(end);
  qortest::writeFile(dir.file("twenty.xml"), twenty);
  EXPECT_EQ(0, xmllint({dir.file("twenty.xml")}).exitCode);
  EXPECT_EQ(0, validate({dir.file("twenty.xml")}).exitCode);
  std::string more = content.substr(0, begin) + repeated(subagent, 21) + content.substr(end);
  qortest::writeFile(dir.file("more.xml"), more);
  EXPECT_NE(0, xmllint({dir.file("more.xml")}).exitCode);
  qortest::RunResult run = validate({dir.file("more.xml")});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_NE(std::string::npos, run.out.find("error " + std::to_string(XML_MAX_OCCURS_EXCEEDED))) << run.out;
}

// The script that the example CAP files name, run in a directory of its own.
class ExampleDaemon : public ::testing::Test {
 protected:
  ExampleDaemon() { setenv("QOR_EXAMPLES_RUN", dir.path().c_str(), 1); }
  ~ExampleDaemon() override { run("stop", "qor-test"); }

  qortest::RunResult run(const std::string& action, const std::string& name) {
    return qortest::runProgram({"/bin/sh", examplesDir() + "/scripts/example-daemon.sh", action, name});
  }
  int pid() { return std::atoi(qortest::readFile(dir.file("qor-test.pid")).c_str()); }

  qortest::TempDir dir;
};

TEST_F(ExampleDaemon, StartsAProgramOfItsOwnNameAndStopsIt) {
  EXPECT_EQ(1, run("status", "qor-test").exitCode);
  qortest::RunResult started = run("start", "qor-test");
  ASSERT_EQ(0, started.exitCode) << started.err;
  int process = pid();
  ASSERT_GT(process, 0);
  EXPECT_EQ("qor-test started, pid " + std::to_string(process) + "\n", started.out);
  char exe[4096] = {0};
  ASSERT_GT(readlink(("/proc/" + std::to_string(process) + "/exe").c_str(), exe, sizeof exe - 1), 0);
  EXPECT_EQ(dir.file("bin/qor-test"), std::string(exe));
  EXPECT_EQ(0, run("status", "qor-test").exitCode);
  EXPECT_EQ(0, run("start", "qor-test").exitCode);
  EXPECT_EQ(process, pid());
  qortest::RunResult stopped = run("stop", "qor-test");
  EXPECT_EQ(0, stopped.exitCode);
  EXPECT_EQ("qor-test stopped\n", stopped.out);
  EXPECT_TRUE(qortest::waitFor([&] { return kill(process, 0) != 0; }, 5000));
  EXPECT_EQ(1, run("status", "qor-test").exitCode);
  EXPECT_EQ("qor-test was not running\n", run("stop", "qor-test").out);
}

TEST_F(ExampleDaemon, CommandLineMatchesThePatternOfTheExample) {
  ASSERT_EQ(0, run("start", "qor-test").exitCode);
  std::string cmdline = qortest::readFile("/proc/" + std::to_string(pid()) + "/cmdline");
  std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
  while (!cmdline.empty() && cmdline.back() == ' ') cmdline.pop_back();
  UErrorCode status = U_ZERO_ERROR;
  icu::RegexMatcher matcher(icu::UnicodeString(("^" + dir.file("bin/qor-test") + " [0-9]+$").c_str()), 0,
                            status);
  ASSERT_FALSE(U_FAILURE(status));
  // The matcher keeps a reference to its input, which must outlive the search.
  icu::UnicodeString input(cmdline.c_str());
  matcher.reset(input);
  EXPECT_TRUE(matcher.find(status)) << cmdline;
}

TEST_F(ExampleDaemon, StalePidFileIsStatusTwo) {
  qortest::writeFile(dir.file("qor-test.pid"), "999999999\n");
  qortest::RunResult status = run("status", "qor-test");
  EXPECT_EQ(2, status.exitCode);
  EXPECT_EQ("qor-test is gone; stale pid file " + dir.file("qor-test.pid") + "\n", status.out);
}

// The service's check finds a killed program gone at once, while its parent
// may not have reaped it yet: the script must then start it again, not take
// the zombie for the program.
TEST_F(ExampleDaemon, AZombieIsGoneAndAStartIsNotRefusedForIt) {
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    pause();
    _exit(0);
  }
  ASSERT_EQ(0, kill(child, SIGKILL));
  // Not reaped yet: a zombie, which kill(pid, 0) still reaches.
  ASSERT_TRUE(qortest::waitFor(
      [&] {
        std::string stat = qortest::readFile("/proc/" + std::to_string(child) + "/stat");
        size_t close = stat.rfind(") ");
        return close != std::string::npos && stat.compare(close + 2, 1, "Z") == 0;
      },
      5000));
  qortest::writeFile(dir.file("qor-test.pid"), std::to_string(child) + "\n");
  qortest::RunResult status = run("status", "qor-test");
  EXPECT_EQ(2, status.exitCode);
  EXPECT_EQ("qor-test is gone; stale pid file " + dir.file("qor-test.pid") + "\n", status.out);
  qortest::RunResult started = run("start", "qor-test");
  EXPECT_EQ(0, started.exitCode);
  EXPECT_NE(child, pid());
  EXPECT_EQ("qor-test started, pid " + std::to_string(pid()) + "\n", started.out);
  EXPECT_EQ(child, waitpid(child, nullptr, 0));
}

// The processes whose executable is `path`.
std::vector<int> processesOf(const std::string& path) {
  std::vector<int> found;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return found;
  while (dirent* entry = readdir(proc)) {
    int pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    char exe[4096] = {0};
    ssize_t length = readlink(("/proc/" + std::string(entry->d_name) + "/exe").c_str(), exe, sizeof exe - 1);
    if (length > 0 && path == std::string(exe, static_cast<size_t>(length))) found.push_back(pid);
  }
  closedir(proc);
  return found;
}

// The service may start a program for itself and as another's dependency at
// the same moment: one copy must come of it, the one in the pid file.
TEST_F(ExampleDaemon, TwoStartsAtOnceStartOneProgram) {
  const std::string script = examplesDir() + "/scripts/example-daemon.sh";
  for (int round = 0; round < 5; ++round) {
    {
      qortest::Child first({"/bin/sh", script, "start", "qor-test"});
      qortest::Child second({"/bin/sh", script, "start", "qor-test"});
      EXPECT_EQ(0, first.wait(10000));
      EXPECT_EQ(0, second.wait(10000));
      EXPECT_EQ(1, qortest::countOccurrences(first.out() + second.out(), "qor-test started, pid "))
          << first.out() << second.out();
      EXPECT_EQ(1, qortest::countOccurrences(first.out() + second.out(), "qor-test already runs, pid "))
          << first.out() << second.out();
    }
    EXPECT_EQ(std::vector<int>{pid()}, processesOf(dir.file("bin/qor-test")));
    ASSERT_EQ(0, run("stop", "qor-test").exitCode);
    ASSERT_TRUE(qortest::waitFor([&] { return processesOf(dir.file("bin/qor-test")).empty(); }, 5000));
  }
}

TEST_F(ExampleDaemon, NameWithASlashIsRefused) {
  qortest::RunResult refused = run("start", "../x");
  EXPECT_EQ(64, refused.exitCode);
  EXPECT_FALSE(qortest::fileExists(dir.file("bin")));
}

// The example suite's status tool, read through the very commands the
// service builds for product code qm, on instances started by the example
// script in a run folder of its own.
class ExampleVexinf : public ::testing::Test {
 protected:
  ExampleVexinf() {
    setenv("QOR_EXAMPLES_RUN", dir.path().c_str(), 1);
    setenv("MARLOWHOME", (examplesDir() + "/suite").c_str(), 1);
  }
  ~ExampleVexinf() override {
    for (const char* name : {"qor-multi.alpha", "qor-multi.beta"}) daemon("stop", name);
  }
  int daemon(const std::string& action, const std::string& name) {
    return qortest::runProgram({"/bin/sh", examplesDir() + "/scripts/example-daemon.sh", action, name})
        .exitCode;
  }
  int pid(const std::string& name) { return std::atoi(qortest::readFile(dir.file(name + ".pid")).c_str()); }
  std::string shell(const std::string& command) {
    qortest::RunResult result = qortest::runProgram({"/bin/sh", "-c", command});
    EXPECT_EQ(0, result.exitCode) << command << ": " << result.err;
    return result.out;
  }
  std::string running() {
    return shell(
        "$MARLOWHOME/bin/vexinf -r | awk 'NR > 6' | grep -iw qm | grep \"\\.running\" 2>/dev/null | "
        "awk {'print $3\" \"$6'}");
  }
  std::string configured() {
    return shell("$MARLOWHOME/bin/vexinf -o qm 2>/dev/null | awk 'NR > 6' | grep -iw qm | awk {'print $2'}");
  }

  qortest::TempDir dir;
};

TEST_F(ExampleVexinf, ListsTheInstancesThatRunWithTheirPidsAndAllThatEverStartedAsConfigured) {
  ASSERT_EQ(0, daemon("start", "qor-multi.alpha"));
  ASSERT_EQ(0, daemon("start", "qor-multi.beta"));
  const int alpha = pid("qor-multi.alpha");
  const int beta = pid("qor-multi.beta");
  ASSERT_GT(alpha, 0);
  ASSERT_GT(beta, 0);
  EXPECT_EQ(std::to_string(alpha) + " alpha\n" + std::to_string(beta) + " beta\n", running());
  EXPECT_EQ("alpha\nbeta\n", configured());
  // Stopped, an instance no longer runs, but stays configured.
  ASSERT_EQ(0, daemon("stop", "qor-multi.beta"));
  ASSERT_TRUE(qortest::waitFor([&] { return kill(beta, 0) != 0; }, 5000));
  EXPECT_EQ(std::to_string(alpha) + " alpha\n", running());
  EXPECT_EQ("alpha\nbeta\n", configured());
}

TEST_F(ExampleVexinf, PrintsSixHeaderLinesAndNothingConfiguredAsALineBeginningWithALessThanSign) {
  qortest::RunResult raw = qortest::runProgram({examplesDir() + "/suite/bin/vexinf", "-r"});
  EXPECT_EQ(0, raw.exitCode) << raw.err;
  EXPECT_EQ(6, qortest::countOccurrences(raw.out, "\n")) << raw.out;
  EXPECT_EQ("", running());
  EXPECT_EQ("<not\n", configured());
  // Another product has nothing at all.
  EXPECT_EQ(
      "", shell("$MARLOWHOME/bin/vexinf -o qx 2>/dev/null | awk 'NR > 6' | grep -iw qx | awk {'print $2'}"));
}

// The script by which the watchdog process starts and stops qorhost, run by
// hand on an empty CAP directory with a copy of qorhost of its own.
class QorhostDaemon : public ::testing::Test {
 protected:
  QorhostDaemon() {
    mkdir(dir.file("cap").c_str(), 0755);
    mkdir(dir.file("ip").c_str(), 0700);
    proctest::copyProgram(qortest::binaryDir() + "/tools/qorhost", dir.file("qorhost"));
    setenv("QOR_EXAMPLES_RUN", dir.file("run").c_str(), 1);
    setenv("QORHOST", dir.file("qorhost").c_str(), 1);
    setenv("QOR_CAP_DIR", dir.file("cap").c_str(), 1);
    setenv("QOR_IP_DIR", dir.file("ip").c_str(), 1);
  }
  ~QorhostDaemon() override { proctest::killProcess(pid()); }

  qortest::RunResult run(const std::string& action) {
    return qortest::runProgram({"/bin/sh", examplesDir() + "/scripts/qorhost-daemon.sh", action});
  }
  int pid() { return std::atoi(qortest::readFile(dir.file("run/qorhost.pid")).c_str()); }
  std::string log() { return qortest::readFile(dir.file("run/qorhost.log")); }
  bool command(const std::string& line) {
    const int fd = open(dir.file("run/qorhost.in").c_str(), O_WRONLY | O_NONBLOCK);
    if (fd < 0) return false;
    const bool written = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    close(fd);
    return written;
  }

  qortest::TempDir dir;
};

TEST_F(QorhostDaemon, StartsQorhostInASessionOfItsOwnReadingItsFifoAndStopsItWithSigterm) {
  qortest::RunResult status = run("status");
  EXPECT_EQ(1, status.exitCode);
  EXPECT_EQ("qorhost is not running\n", status.out);
  qortest::RunResult started = run("start");
  ASSERT_EQ(0, started.exitCode) << started.err;
  const int host = pid();
  ASSERT_GT(host, 1);
  EXPECT_EQ("qorhost started, pid " + std::to_string(host) + "\n", started.out);
  // Out of the caller's session: a Ctrl-C at the caller's terminal does not reach it.
  EXPECT_EQ(host, getsid(host));
  EXPECT_EQ("qorhost already runs, pid " + std::to_string(host) + "\n", run("start").out);
  ASSERT_TRUE(
      qortest::waitFor([&] { return log().find("qorhost: service started") != std::string::npos; }, 10000))
      << log();
  // Its standard input is the FIFO: a line written there is a command.
  const int listings = qortest::countOccurrences(log(), "qorhost: 0 agents\n");
  ASSERT_TRUE(command("list\n"));
  EXPECT_TRUE(qortest::waitFor(
      [&] { return qortest::countOccurrences(log(), "qorhost: 0 agents\n") > listings; }, 5000))
      << log();
  EXPECT_EQ(0, run("status").exitCode);
  qortest::RunResult stopped = run("stop");
  EXPECT_EQ(0, stopped.exitCode);
  EXPECT_EQ("qorhost stopped\n", stopped.out);
  EXPECT_NE(std::string::npos, log().find("qorhost: SIGTERM received, stopping\n")) << log();
  EXPECT_NE(std::string::npos, log().find("qorhost: stopped\n")) << log();
  EXPECT_TRUE(qortest::fileExists(dir.file("cap/teo.dat")));
  EXPECT_FALSE(qortest::fileExists(dir.file("run/qorhost.pid")));
  EXPECT_EQ("qorhost was not running\n", run("stop").out);
  EXPECT_EQ(1, run("status").exitCode);
}

TEST_F(QorhostDaemon, WithoutAnExecutableQorhostTheStartFailsAndSaysWhatToSet) {
  setenv("QORHOST", dir.file("missing").c_str(), 1);
  qortest::RunResult started = run("start");
  EXPECT_EQ(1, started.exitCode);
  EXPECT_EQ("qorhost-daemon.sh: no qorhost to start; set QORHOST to its path\n", started.err);
  EXPECT_EQ(64, run("restart").exitCode);
}

}  // namespace
