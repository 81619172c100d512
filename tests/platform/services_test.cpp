#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/utsname.h>

#include <atomic>

#include "platform/hlx.h"
#include "platform/int1.h"
#include "platform/osv1.h"
#include "support/qortest.h"

namespace {

std::string utf8(const HLX::String& text) { return static_cast<char*>(text.c_str()); }

}  // namespace

TEST(BaseServices, GetEnvGivesTheValueOrNull) {
  setenv("QOR_TEST_VALUE", "abc", 1);
  EXPECT_STREQ("abc", OSV1_GetEnv("QOR_TEST_VALUE", 0));
  unsetenv("QOR_TEST_VALUE");
  EXPECT_EQ(nullptr, OSV1_GetEnv("QOR_TEST_VALUE", 0));
}

TEST(BaseServices, InfoGivesTheSystemTheInstallRootAndTheProgram) {
  struct utsname names;
  ASSERT_EQ(0, uname(&names));
  char buffer[1024];
  EXPECT_NE(0, OSV1_Info(OSV1_INFO_OSTYPE, buffer, sizeof buffer));
  EXPECT_STREQ(names.sysname, buffer);
  EXPECT_NE(0, OSV1_Info(OSV1_INFO_OSVERS, buffer, sizeof buffer));
  EXPECT_STREQ(names.release, buffer);
  setenv("MARLOWHOME", "/opt/suite", 1);
  EXPECT_NE(0, OSV1_Info(OSV1_INFO_ZELHOME, buffer, sizeof buffer));
  EXPECT_STREQ("/opt/suite", buffer);
  unsetenv("MARLOWHOME");
  EXPECT_EQ(0, OSV1_Info(OSV1_INFO_ZELHOME, buffer, sizeof buffer));
  EXPECT_NE(0, OSV1_Info(OSV1_INFO_ZELPROCESS, buffer, sizeof buffer));
  EXPECT_STREQ("qor_platform_tests", buffer);
  EXPECT_EQ(0, OSV1_Info(3, buffer, sizeof buffer));
}

TEST(BaseServices, InfoCutsToTheBuffer) {
  setenv("MARLOWHOME", "/a/long/path", 1);
  char buffer[5];
  EXPECT_NE(0, OSV1_Info(OSV1_INFO_ZELHOME, buffer, sizeof buffer));
  EXPECT_STREQ("/a/l", buffer);
}

TEST(BaseServices, SleepLastsWholeSeconds) {
  long long before = qortest::nowMs();
  OSV1_Sleep(1);
  long long took = qortest::nowMs() - before;
  EXPECT_GE(took, 990);
  EXPECT_LT(took, 2000);
}

TEST(BaseServices, AThreadCancelledInItsSleepEndsAtOnce) {
  static std::atomic<bool> sleeping{false};
  static std::atomic<bool> cleanedUp{false};
  struct Guard {
    ~Guard() { cleanedUp = true; }
  };
  pthread_t thread;
  ASSERT_EQ(0, pthread_create(
                   &thread, nullptr,
                   [](void*) -> void* {
                     Guard guard;
                     sleeping = true;
                     OSV1_Sleep(60);
                     return nullptr;
                   },
                   nullptr));
  ASSERT_TRUE(qortest::waitFor([] { return sleeping.load(); }, 2000));
  long long before = qortest::nowMs();
  pthread_cancel(thread);
  void* result = nullptr;
  pthread_join(thread, &result);
  EXPECT_LT(qortest::nowMs() - before, 1000);
  EXPECT_EQ(PTHREAD_CANCELED, result);
  EXPECT_TRUE(cleanedUp);  // the unwinding ran the destructors of the thread's frames
}

TEST(SignalServices, ActionInstallsTheHandlerByTheLibrarysNumbers) {
  static std::atomic<int> caught{0};
  INT1_Record record = {[](int number) { caught = number; }, nullptr, nullptr};
  ASSERT_EQ(0, INT1_Action(INT1_SIGTERM, &record, 0));
  raise(SIGTERM);
  EXPECT_EQ(SIGTERM, caught.load());
  ASSERT_EQ(0, INT1_Action(INT1_SIGILL, &record, 0));
  raise(SIGILL);
  EXPECT_EQ(SIGILL, caught.load());
  ASSERT_EQ(0, INT1_Action(INT1_SIGINT, &record, 0));
  raise(SIGINT);
  EXPECT_EQ(SIGINT, caught.load());
}

TEST(SignalServices, AnUnknownIdFailsWithEinval) {
  INT1_Record record = {[](int) {}, nullptr, nullptr};
  errno = 0;
  EXPECT_NE(0, INT1_Action(15, &record, 0));
  EXPECT_EQ(EINVAL, errno);
}

TEST(SignalServices, SignalNames) {
  EXPECT_STREQ("Terminated", INT1_SignalName(SIGTERM));
  EXPECT_STREQ("Interrupt", INT1_SignalName(SIGINT));
}

TEST(UtilityServices, StringsConvertAndTrim) {
  HLX::String text("  caf\xc3\xa9 \n");
  EXPECT_EQ(8, text.length());
  text.trim();
  EXPECT_EQ(4, text.length());
  EXPECT_EQ(u'\u00e9', text.getData()[3]);
  EXPECT_EQ("caf\xc3\xa9", utf8(text));
  HLX::String empty;
  EXPECT_EQ(0, empty.length());
  EXPECT_EQ("", utf8(empty.trim()));
}

TEST(UtilityServices, HostNameIsTheMachines) {
  char name[256] = {0};
  gethostname(name, sizeof name - 1);
  EXPECT_EQ(std::string(name), utf8(HLX::Util::getHostName()));
}

TEST(UtilityServices, ReadFileReadsAllOrNothing) {
  qortest::TempDir dir;
  std::string content(20000, 'x');
  content += "end";
  qortest::writeFile(dir.file("f"), content);
  char* data = nullptr;
  ASSERT_TRUE(HLX::Util::readFile(dir.file("f").c_str(), &data));
  EXPECT_EQ(content, std::string(data));
  delete[] data;
  data = reinterpret_cast<char*>(1);
  EXPECT_FALSE(HLX::Util::readFile(dir.file("missing").c_str(), &data));
  EXPECT_EQ(nullptr, data);
}

TEST(UtilityServices, RunCommandGivesExitCodeOutputAndErrors) {
  int exitCode = -1;
  HLX::String output;
  HLX::String errors;
  ASSERT_TRUE(
      HLX::Util::runCommand("/bin/sh", exitCode, output, errors, "echo out; echo err >&2; exit 3", false));
  EXPECT_EQ(3, exitCode);
  EXPECT_EQ("out\n", utf8(output));
  EXPECT_EQ("err\n", utf8(errors));
  ASSERT_TRUE(HLX::Util::runCommand("/bin/sh", exitCode, output, errors, "cat /nonexistent/file", false));
  EXPECT_EQ(1, exitCode);
  EXPECT_EQ("", utf8(output));
}

TEST(UtilityServices, RunCommandWithAMissingShellReports127) {
  int exitCode = -1;
  HLX::String output;
  HLX::String errors;
  ASSERT_TRUE(HLX::Util::runCommand("/nonexistent/sh", exitCode, output, errors, "true", false));
  EXPECT_EQ(127, exitCode);
}

TEST(UtilityServices, DomFindsDescendantsInDocumentOrder) {
  HLX::DOMParser parser(
      "<doc> <productCode>qg</productCode><agent><instance><user>u1</user><name>db1</name></instance>"
      "<instance><user>u2</user></instance></agent></doc>");
  ASSERT_TRUE(parser.parse());
  HLX::DOMElement* root = parser.getDocument();
  ASSERT_NE(nullptr, root);
  HLX::DOMNodeList codes = root->getElementsByTagName("productCode");
  ASSERT_EQ(1u, codes.getLength());
  EXPECT_EQ("qg", utf8(static_cast<HLX::DOMElement*>(codes.item(0))->getElementText()));
  HLX::DOMNodeList instances = root->getElementsByTagName("instance");
  ASSERT_EQ(2u, instances.getLength());
  EXPECT_EQ(1, instances.item(1)->getNodeType());
  auto* second = static_cast<HLX::DOMElement*>(instances.item(1));
  EXPECT_EQ(
      "u2",
      utf8(static_cast<HLX::DOMElement*>(second->getElementsByTagName("user").item(0))->getElementText()));
  EXPECT_EQ(0u, second->getElementsByTagName("name").getLength());
  EXPECT_EQ(nullptr, instances.item(2));
}

TEST(UtilityServices, DomRefusesTextThatIsNotWellFormed) {
  HLX::DOMParser parser("<doc><open></doc>");
  EXPECT_FALSE(parser.parse());
  EXPECT_EQ(nullptr, parser.getDocument());
}
