#include "cap/qorplatform.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include "cap/qorxml.h"
#include "platform/log1.h"
#include "support/qortest.h"

namespace {

std::wstring widen(const char* text) { return std::wstring(text, text + strlen(text)); }

std::wstring kernelRelease() {
  struct utsname names;
  uname(&names);
  return widen(names.release).substr(0, 32);
}

// A platform element with an xsi:type and the given children.
struct PlatformElement {
  explicit PlatformElement(const wchar_t* type = L"PlatformLinux") : element(nullptr, L"platform") {
    element.addAttribute(L"xsi:type", type);
  }
  PlatformElement& child(const wchar_t* name, const std::wstring& value) {
    element.getChildren().emplace_back(&element, name);
    element.getChildren().back().setValue(value.c_str(), static_cast<int>(value.size()));
    return *this;
  }
  bool matches() { return isPlatformMatch(element, L"ignored.xml"); }
  XMLElement element;
};

bool releaseFileExists() {
  return qortest::fileExists("/etc/SuSE-release") || qortest::fileExists("/etc/redhat-release");
}

}  // namespace

TEST(PlatformDescription, ThisMachineIsLinuxWithItsKernelRelease) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL | QOR_TL_ERROR);
  setenv("MARLOWHOME", "/opt/suite", 1);
  OSinfo_struct_t* info = QOR_getOSinfo();
  ASSERT_NE(nullptr, info);
  EXPECT_STREQ("Linux", info->osType);
  EXPECT_EQ(kernelRelease(), widen(info->osVers));
  EXPECT_STREQ("/opt/suite", info->zelHome);
  EXPECT_STREQ("qor_cap_tests", info->zelProcess);
  EXPECT_EQ(L"PlatformLinux", info->xsiPlatformType);
  EXPECT_EQ(L"Linux", info->platformName);
  EXPECT_EQ(kernelRelease(), info->platformKernelRelease);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "QOR_getOSinfo:OSinfoData->xsiPlatformType:PlatformLinux:"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "QOR_getOSinfo:OSinfoData->platformName:Linux:"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "QOR_getOSinfo:OSinfoData->platformKernelRelease:" +
                                                    std::string(info->osVers) + ":"));
  if (!releaseFileExists()) {
    EXPECT_EQ(L"UNKNOWN", info->platformVersion);
    EXPECT_EQ(1, qortest::countOccurrences(trace,
                                           "A Linux release file was not found.  The detection of platform "
                                           "version is now disabled."));
    EXPECT_EQ(1, qortest::countOccurrences(trace, "QOR_getOSinfo:OSinfoData->platformVersion:UNKNOWN:"));
  }
}

TEST(PlatformDescription, IsBuiltOnceForTheProcess) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_DETAIL);
  OSinfo_struct_t* first = QOR_getOSinfo();
  EXPECT_EQ(first, QOR_getOSinfo());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "QOR_getOSinfo:OSinfoData->platformName"));
}

TEST(PlatformMatch, TypeAloneMatchesEveryLinuxMachine) { EXPECT_TRUE(PlatformElement().matches()); }

TEST(PlatformMatch, OtherTypesDoNotMatch) {
  EXPECT_FALSE(PlatformElement(L"PlatformUnix").matches());
  EXPECT_FALSE(PlatformElement(L"PlatformWindows").matches());
}

TEST(PlatformMatch, NameMustBeLinux) {
  EXPECT_TRUE(PlatformElement().child(L"name", L"Linux").matches());
  EXPECT_FALSE(PlatformElement().child(L"name", L"AIX").matches());
}

TEST(PlatformMatch, KernelReleaseMustBeThisOneExactly) {
  EXPECT_TRUE(PlatformElement().child(L"kernelRelease", kernelRelease()).matches());
  EXPECT_FALSE(PlatformElement().child(L"kernelRelease", kernelRelease() + L" ").matches());
  EXPECT_FALSE(PlatformElement().child(L"kernelRelease", L"2.6").matches());
}

TEST(PlatformMatch, VersionStringMustBeTheWholeReleaseText) {
  std::wstring version = QOR_getOSinfo()->platformVersion;
  EXPECT_TRUE(PlatformElement().child(L"versionString", version).matches());
  EXPECT_FALSE(PlatformElement().child(L"versionString", version.substr(0, 3)).matches());
}

TEST(PlatformMatch, EveryChildMustMatch) {
  EXPECT_FALSE(PlatformElement().child(L"name", L"Linux").child(L"kernelRelease", L"0.0").matches());
}

TEST(PlatformMatch, OtherElementIsNoPlatform) {
  XMLElement element(nullptr, L"agentName");
  EXPECT_FALSE(isPlatformMatch(element, L""));
}

TEST(PlatformMatch, SubagentIsJudgedByItsFirstPlatform) {
  XMLElement subagent(nullptr, L"subagent");
  EXPECT_FALSE(isSubagentPlatformMatch(subagent, L""));
  subagent.getChildren().emplace_back(&subagent, L"agentName");
  subagent.getChildren().push_back(PlatformElement().element);
  EXPECT_TRUE(isSubagentPlatformMatch(subagent, L""));
  XMLElement other(nullptr, L"subagent");
  other.getChildren().push_back(PlatformElement(L"PlatformUnix").element);
  other.getChildren().push_back(PlatformElement().element);
  EXPECT_FALSE(isSubagentPlatformMatch(other, L""));
}

TEST(PlatformMatch, ArchNeedsProcessorArchitecture) {
  unsetenv("PROCESSOR_ARCHITECTURE");
  PlatformElement platform;
  platform.element.addAttribute(L"arch", L"x86");
  EXPECT_FALSE(platform.matches());
}

TEST(PlatformMatch, ArchIsComparedWithTheRawVariable) {
  setenv("PROCESSOR_ARCHITECTURE", "x86", 1);
  PlatformElement platform;
  platform.element.addAttribute(L"arch", L"x86");
  EXPECT_TRUE(platform.matches());
  PlatformElement other;
  other.element.addAttribute(L"arch", L"AMD64");
  EXPECT_FALSE(other.matches());
}
