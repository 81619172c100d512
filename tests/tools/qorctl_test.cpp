#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "cap/capfiles.h"
#include "cap/qorxmlproc.h"
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
