#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "cap/capfiles.h"
#include "cap/qorxmlproc.h"
#include "interfaces/socktest.h"
#include "support/qortest.h"

namespace {

// The start of qorctl's line for a file that failed with `code`.
std::string errorCode(int code) { return ": error " + std::to_string(code); }

class QorctlValidate : public ::testing::Test {
 protected:
  QorctlValidate() {
    unsetenv("QOR_TRACE_LEVEL");
    unsetenv("QOR_TRACE_FILE");
    unsetenv("PROCESSOR_ARCHITECTURE");
  }

  // Writes a CAP file of the temporary directory and gives its path.
  std::string capFile(const std::string& name, const std::string& content) {
    qortest::writeFile(dir.file(name), content);
    return dir.file(name);
  }
  std::string capFile(const std::string& name, const captest::Subagent& subagent) {
    return capFile(name, captest::document(subagent));
  }

  qortest::RunResult qorctl(std::vector<std::string> args) {
    args.insert(args.begin(), qortest::binaryDir() + "/tools/qorctl");
    return qortest::runProgram(args);
  }

  qortest::TempDir dir;
  captest::Subagent agent;
};

TEST_F(QorctlValidate, HelpExplainsValidateItsCodesAndItsEnvironment) {
  qortest::RunResult run = qorctl({"--help"});
  EXPECT_EQ(0, run.exitCode);
  EXPECT_NE(std::string::npos, run.out.find("validate [-q] FILE..."));
  EXPECT_NE(std::string::npos, run.out.find("FILE: error CODE at line L, column C: WHAT IS WRONG"));
  EXPECT_NE(std::string::npos, run.out.find("no subagent for this platform"));
  EXPECT_NE(std::string::npos, run.out.find("    60    a value is not allowed"));
  EXPECT_NE(std::string::npos, run.out.find("PROCESSOR_ARCHITECTURE"));
  EXPECT_NE(std::string::npos, run.out.find("Exit status: 0 when every file is ok, 1 when any is not"));
}

TEST_F(QorctlValidate, NoCommandPrintsUsageAndFails) {
  qortest::RunResult run = qorctl({});
  EXPECT_EQ(2, run.exitCode);
  EXPECT_NE(std::string::npos, run.err.find("Usage: qorctl COMMAND"));
}

TEST_F(QorctlValidate, NoFileIsAUsageError) {
  qortest::RunResult run = qorctl({"validate"});
  EXPECT_EQ(2, run.exitCode);
  EXPECT_EQ("qorctl validate: no FILE given (try qorctl --help)\n", run.err);
}

TEST_F(QorctlValidate, UnknownOptionIsAUsageError) {
  qortest::RunResult run = qorctl({"validate", "-x", capFile("a.xml", agent)});
  EXPECT_EQ(2, run.exitCode);
  EXPECT_EQ("qorctl validate: unknown option '-x' (try qorctl --help)\n", run.err);
  EXPECT_EQ("", run.out);
}

TEST_F(QorctlValidate, ValidFileIsOkWithItsSubagent) {
  std::string file = capFile("a.xml", agent);
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(0, run.exitCode);
  EXPECT_EQ(file + ": ok, subagent test.agent\n", run.out);
  EXPECT_EQ("", run.err);
}

TEST_F(QorctlValidate, BadValueGivesCodeLineColumnAndExplanation) {
  agent.checkFrequency = "<checkFrequency>12</checkFrequency>";
  std::string file = capFile("a.xml", agent);
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(file + errorCode(XML_VALUE_NOT_ALLOWED) +
                " at line 8, column 19: The constraint for checkFrequency does not allow a value of :12.\n",
            run.out);
  EXPECT_EQ("", run.err);
}

TEST_F(QorctlValidate, MissingElementIsNamed) {
  agent.agentPath = "";
  std::string file = capFile("a.xml", agent);
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(file + errorCode(XML_MIN_OCCURS_NOT_MET) +
                " at line 6, column 1: The minimum occurrences constraint for agentPath has not been met.\n",
            run.out);
}

TEST_F(QorctlValidate, ElementOutOfPlaceIsNamed) {
  agent.configScript = "<agentName>late</agentName>";
  std::string file = capFile("a.xml", agent);
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(
      file + errorCode(XML_UNEXPECTED_TAG) + " at line 10, column 1: The tag agentName is unexpected.\n",
      run.out);
}

TEST_F(QorctlValidate, SyntaxErrorGivesExpatsCodeAndMessage) {
  agent.agentName = "<agentName>Test</agentNam>";
  std::string file = capFile("a.xml", agent);
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(file + errorCode(XML_ERROR_TAG_MISMATCH) + " at line 4, column 18: mismatched tag\n", run.out);
}

TEST_F(QorctlValidate, BadRegularExpressionPointsAtTheCommandLine) {
  agent.process = "<process><commandLine regex=\"true\">sleep (</commandLine></process>";
  std::string file = capFile("a.xml", agent);
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(file + errorCode(XML_BAD_REGEX) +
                " at line 5, column 10: Regular Expression Error: sleep (, 66310, "
                "U_REGEX_MISMATCHED_PAREN at offset 7.\n",
            run.out);
}

TEST_F(QorctlValidate, FileForOtherPlatformsSaysWhatThisHostIs) {
  agent.platform = "<platform xsi:type=\"PlatformUnix\"/>";
  std::string file = capFile("a.xml", agent);
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(1, run.exitCode);
  std::string expected =
      file + ": no subagent for this platform (this host: xsi:type PlatformLinux, name Linux, ";
  EXPECT_EQ(expected, run.out.substr(0, expected.size()));
  EXPECT_NE(std::string::npos, run.out.find("arch none (PROCESSOR_ARCHITECTURE is unset))\n"));
}

TEST_F(QorctlValidate, ArchIsComparedWithTheVariableOfTheCaller) {
  agent.platform = "<platform xsi:type=\"PlatformLinux\" arch=\"AMD64\"/>";
  std::string file = capFile("a.xml", agent);
  EXPECT_EQ(1, qorctl({"validate", file}).exitCode);
  setenv("PROCESSOR_ARCHITECTURE", "AMD64", 1);
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(0, run.exitCode);
  EXPECT_EQ(file + ": ok, subagent test.agent\n", run.out);
}

TEST_F(QorctlValidate, MissingFileIsReportedWithoutWaiting) {
  std::string file = dir.file("absent.xml");
  qortest::RunResult run = qorctl({"validate", file});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(file + errorCode(XML_OPEN_FAILED) + ": cannot be opened: No such file or directory\n", run.out);
}

TEST_F(QorctlValidate, DirectoryIsNoCapFile) {
  qortest::RunResult run = qorctl({"validate", dir.path()});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(dir.path() + errorCode(XML_OPEN_FAILED) + ": cannot be opened: is a directory\n", run.out);
}

TEST_F(QorctlValidate, DeviceIsNoCapFile) {
  qortest::RunResult run = qorctl({"validate", "/dev/null"});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ("/dev/null" + errorCode(XML_OPEN_FAILED) + ": cannot be opened: is not a regular file\n",
            run.out);
}

TEST_F(QorctlValidate, EveryFileIsReportedAndOneFailureFailsThemAll) {
  std::string good = capFile("good.xml", agent);
  captest::Subagent broken = agent;
  broken.maxRestarts = "<maxRestarts>-1</maxRestarts>";
  std::string bad = capFile("bad.xml", broken);
  std::string other = capFile("other.xml", agent);
  qortest::RunResult run = qorctl({"validate", good, bad, other});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(good + ": ok, subagent test.agent\n" + bad + errorCode(XML_VALUE_NOT_ALLOWED) +
                " at line 9, column 16: The constraint for maxRestarts does not allow a value of :-1.\n" +
                other + ": ok, subagent test.agent\n",
            run.out);
}

TEST_F(QorctlValidate, QuietPrintsOnlyTheFilesThatAreNotOk) {
  std::string good = capFile("good.xml", agent);
  std::string bad = capFile("bad.xml", "<subagents>");
  qortest::RunResult run = qorctl({"validate", "-q", good, bad});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(bad + errorCode(XML_ATTRIBUTE_MISSING) +
                " at line 1, column 1: The required attribute xmlns is missing.\n",
            run.out);
  run = qorctl({"validate", "-q", good});
  EXPECT_EQ(0, run.exitCode);
  EXPECT_EQ("", run.out);
}

TEST_F(QorctlValidate, DoubleDashEndsTheOptions) {
  qortest::writeFile(dir.file("-q"), captest::document(agent));
  ASSERT_EQ(0, chdir(dir.path().c_str()));
  qortest::RunResult run = qorctl({"validate", "--", "-q"});
  EXPECT_EQ(0, run.exitCode);
  EXPECT_EQ("-q: ok, subagent test.agent\n", run.out);
}

TEST_F(QorctlValidate, TracesOnlyWhenAskedFor) {
  agent.checkFrequency = "<checkFrequency>12</checkFrequency>";
  std::string file = capFile("a.xml", agent);
  setenv("QOR_TRACE_LEVEL", "128", 1);
  setenv("QOR_TRACE_FILE", dir.file("trace").c_str(), 1);
  EXPECT_EQ(1, qorctl({"validate", file}).exitCode);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Error " + std::to_string(XML_VALUE_NOT_ALLOWED) +
                                                    " parsing xml file " + file + "."));
  EXPECT_EQ(1, qortest::countOccurrences(trace,
                                         "The constraint for checkFrequency does not allow a value of :12."));
}

}  // namespace

// ---- notify ---------------------------------------------------------------------------
// qorctl as a child process against a server of the test on .teo_sock.

namespace {

class QorctlNotify : public ::testing::Test {
 protected:
  QorctlNotify() {
    unsetenv("QOR_TRACE_LEVEL");
    unsetenv("QOR_TRACE_FILE");
    unsetenv("QOR_SOCKET_ANSWER_WAIT");
    setenv("QOR_IP_DIR", dir.path().c_str(), 1);
  }
  qortest::RunResult qorctl(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    args.insert(args.begin(), qortest::binaryDir() + "/tools/qorctl");
    return qortest::runProgram(args, env);
  }
  // qorctl run as the user nobody, with `groups` as its groups.
  qortest::RunResult asNobody(std::vector<std::string> args, const std::string& groups) {
    std::vector<std::string> command = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534"};
    command.push_back(groups.empty() ? "--clear-groups" : "--groups=" + groups);
    command.push_back(qortest::binaryDir() + "/tools/qorctl");
    command.insert(command.end(), args.begin(), args.end());
    return qortest::runProgram(command);
  }
  std::string socketPath() { return dir.file(".teo_sock"); }

  qortest::TempDir dir;
};

// The line of standard error for wrong usage.
std::string usage(const std::string& text) { return "qorctl notify: " + text + " (try qorctl --help)\n"; }

}  // namespace

TEST_F(QorctlNotify, HelpTellsTheStatesTheAnswersAndWhoMayUseTheSocket) {
  qortest::RunResult run = qorctl({"--help"});
  EXPECT_EQ(0, run.exitCode);
  EXPECT_NE(std::string::npos, run.out.find("notify STATE [-o INSTANCE] PRODUCT_CODE [--ip-dir DIR]"));
  EXPECT_NE(std::string::npos, run.out.find("    started    the agent has come up\n"));
  EXPECT_NE(std::string::npos, run.out.find("    0    accepted: the event is queued for the agent"));
  EXPECT_NE(std::string::npos, run.out.find("    202  no agent has this product code (and instance)"));
  EXPECT_NE(std::string::npos, run.out.find("    3    the service's socket could not be reached\n"));
  EXPECT_NE(std::string::npos, run.out.find("Only the owner and the group of the service's process"));
  EXPECT_NE(std::string::npos, run.out.find("Exit status: 0 when the answer is 0, 1 for any other answer"));
}

TEST_F(QorctlNotify, WrongUsageIsRefusedBeforeAnythingIsSent) {
  const struct {
    std::vector<std::string> args;
    std::string error;
  } cases[] = {
      {{"notify"}, "no STATE given"},
      {{"notify", "restart", "qg"},
       "unknown STATE 'restart': starting, stopping, started, stopped or recycle"},
      {{"notify", "Started", "qg"},
       "unknown STATE 'Started': starting, stopping, started, stopped or recycle"},
      {{"notify", "started"}, "no PRODUCT_CODE given"},
      {{"notify", "started", "-o", "db1"}, "no PRODUCT_CODE given"},
      {{"notify", "started", "qg", "qh"}, "one PRODUCT_CODE only, 'qh' is one too many"},
      {{"notify", "started", "qg", "-o"}, "-o needs an INSTANCE"},
      {{"notify", "started", "-o", "db 1", "qg"}, "INSTANCE 'db 1' may hold no blank and no QUERY"},
      {{"notify", "started", "-o", "", "qg"}, "INSTANCE '' may hold no blank and no QUERY"},
      {{"notify", "started", "myQUERY"}, "PRODUCT_CODE 'myQUERY' may hold no blank and no QUERY"},
      {{"notify", "started", "-p", "db1", "qg"}, "unknown option '-p'"},
      {{"notify", "started", "qg", "--ip-dir"}, "--ip-dir needs a DIR"},
  };
  for (const auto& each : cases) {
    qortest::RunResult run = qorctl(each.args);
    EXPECT_EQ(2, run.exitCode) << each.error;
    EXPECT_EQ(usage(each.error), run.err);
    EXPECT_EQ("", run.out);
  }
  unsetenv("QOR_IP_DIR");
  qortest::RunResult run = qorctl({"notify", "started", "qg"});
  EXPECT_EQ(2, run.exitCode);
  EXPECT_EQ(usage("no socket directory: set QOR_IP_DIR or give --ip-dir DIR"), run.err);
}

TEST_F(QorctlNotify, TheRequestGoesOutAsTheServiceReadsItAndZeroExitsZero) {
  socktest::ScriptedServer server("/.teo_sock", 0);
  socktest::ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  qortest::RunResult run = qorctl({"notify", "started", "-o", "db1", "qg"});
  EXPECT_EQ(0, run.exitCode) << run.err;
  EXPECT_EQ(
      "qorctl notify: started qg: 0 (accepted: the event is queued for the agent (for the OS agent: the "
      "watchdog process will recycle it))\n",
      run.out);
  EXPECT_EQ("", run.err);
  // --ip-dir wins over the variable, in either form.
  unsetenv("QOR_IP_DIR");
  EXPECT_EQ(0, qorctl({"notify", "recycle", "qg", "--ip-dir", dir.path()}).exitCode);
  EXPECT_EQ(0, qorctl({"notify", "stopping", "--ip-dir=" + dir.path(), "qg"}).exitCode);
  EXPECT_EQ((std::vector<std::string>{"622 started -o db1 qg", "622 recycle qg", "622 stopping qg"}),
            server.requests());
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(QorctlNotify, AnyOtherAnswerExitsOneWithItsMeaning) {
  for (int code : {202, 1, -1, 200, 120, 77}) {
    socktest::ScriptedServer server("/.teo_sock", code);
    socktest::ServerThread thread(server);
    ASSERT_TRUE(thread.start());
    qortest::RunResult run = qorctl({"notify", "stopped", "qz"});
    EXPECT_EQ(1, run.exitCode) << code;
    EXPECT_EQ(0u, run.out.find("qorctl notify: stopped qz: " + std::to_string(code) + " (")) << run.out;
    EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
  }
  socktest::ScriptedServer server("/.teo_sock", 202);
  socktest::ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  EXPECT_EQ(
      "qorctl notify: stopped qz: 202 (no agent has this product code (and instance), and it is not the OS "
      "agent's)\n",
      qorctl({"notify", "stopped", "qz"}).out);
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}

TEST_F(QorctlNotify, WithoutASocketFileItAsksWhetherTheServiceRuns) {
  qortest::RunResult run = qorctl({"notify", "started", "qg"});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ(
      "qorctl notify: started qg: 3 (the service's socket could not be reached: there is no socket file " +
          socketPath() +
          ": is qorhost (or the program that embeds the service) running with this socket directory?)\n",
      run.out);
}

TEST_F(QorctlNotify, ASocketFileNobodyListensOnIsALeftOver) {
  {
    socktest::ScriptedServer server("/.teo_sock", 0);
    socktest::ServerThread thread(server);
    ASSERT_TRUE(thread.start());
    EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
  }
  qortest::RunResult run = qorctl({"notify", "started", "qg"});
  EXPECT_EQ(1, run.exitCode);
  EXPECT_EQ("qorctl notify: started qg: 3 (the service's socket could not be reached: nobody answers on " +
                socketPath() +
                ": is qorhost running? The file may be left over from a service that has stopped.)\n",
            run.out);
}

TEST_F(QorctlNotify, OthersMayNotUseTheSocketButTheGroupMay) {
  if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "needs root and setpriv";
  socktest::ScriptedServer server("/.teo_sock", 0);
  socktest::ServerThread thread(server);
  ASSERT_TRUE(thread.start());
  const std::string group = std::to_string(getegid());
  // The directory closed to others: nobody cannot even look.
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0750));
  qortest::RunResult shut = asNobody({"notify", "started", "qg"}, "");
  EXPECT_EQ(1, shut.exitCode) << shut.err;
  EXPECT_NE(std::string::npos,
            shut.out.find(": 3 (the service's socket could not be reached: you may not enter the "
                          "socket directory of " +
                          socketPath() + ": you need to be in the group"))
      << shut.out;
  // The directory open, the socket file as the server made it: no rights for others.
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  qortest::RunResult refused = asNobody({"notify", "started", "qg"}, "");
  EXPECT_EQ(1, refused.exitCode) << refused.err;
  struct group* owner = getgrgid(getegid());
  ASSERT_NE(nullptr, owner);
  EXPECT_NE(
      std::string::npos,
      refused.out.find(": 3 (the service's socket could not be reached: you may not use " + socketPath() +
                       ": you need to be in the group of the service's "
                       "process (" +
                       std::string(owner->gr_name) + "), or be its owner)"))
      << refused.out;
  // A member of the process's group may.
  qortest::RunResult member = asNobody({"notify", "started", "qg"}, group);
  EXPECT_EQ(0, member.exitCode) << member.out << member.err;
  EXPECT_EQ((std::vector<std::string>{"622 started qg"}), server.requests());
  chmod(dir.path().c_str(), 0700);
  EXPECT_EQ(SOCKET_SERVER_SHUT_DOWN, thread.stop());
}
