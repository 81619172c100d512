#include "cap/qorunx.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/qorutil.h"
#include "support/qortest.h"

namespace {

using Names = std::vector<std::wstring>;

std::wstring wide(const std::string& text) { return qor_mbstowcs(text.c_str()); }

}  // namespace

TEST(CapDirectoryListing, OnlyVisibleXmlFilesSorted) {
  qortest::TempDir dir;
  for (const char* name : {"b.c.xml", ".hidden.xml", "a.XML", "a.xml.bak", "a", "z.xml", "m.xml"}) {
    qortest::writeFile(dir.file(name), "<x/>");
  }
  EXPECT_EQ(Names({L"b.c.xml", L"m.xml", L"z.xml"}), GetCAPDirFiles(wide(dir.path() + "/")));
}

TEST(CapDirectoryListing, SubdirectoriesWithAnXmlNameAreNotToldApart) {
  qortest::TempDir dir;
  mkdir(dir.file("folder.xml").c_str(), 0755);
  mkdir(dir.file("plain").c_str(), 0755);
  EXPECT_EQ(Names({L"folder.xml"}), GetCAPDirFiles(wide(dir.path() + "/")));
}

TEST(CapDirectoryListing, AMissingDirectoryCountsAsEmptyWithATrace) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 146);
  EXPECT_TRUE(GetCAPDirFiles(wide(dir.path() + "/missing/")).empty());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")),
                                         "No CAP files in <" + dir.path() +
                                             "/missing/>, or directory does not exist. Error code (2).\n"));
}

TEST(CapDirectoryListing, SkippedNamesAreTracedOnTheQueueLevel) {
  qortest::TempDir dir;
  qortest::TempDir traces;
  qortest::traceTo(traces.file("trace"), 16);
  qortest::writeFile(dir.file("a.XML"), "");
  qortest::writeFile(dir.file(".hidden.xml"), "");
  GetCAPDirFiles(wide(dir.path()));
  std::string trace = qortest::readFile(traces.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Skipping file <a.XML>. Invalid extension"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Skipping directory <.hidden.xml>"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Skipping directory <.>"));
}

TEST(CapDirectoryListing, MatchIsExactAndCaseSensitive) {
  EXPECT_TRUE(Match(L"xml", L"xml"));
  EXPECT_FALSE(Match(L"XML", L"xml"));
  EXPECT_FALSE(Match(L"xm", L"xml"));
  EXPECT_FALSE(Match(L"xmll", L"xml"));
  EXPECT_TRUE(Match(L"", L""));
}

TEST(CapDiscoveryInterval, ThreeLeavesFive) {
  setenv("QOR_CAP_DISCOVERY_INTERVAL", "3", 1);
  EXPECT_EQ(5, CapDiscoveryInterval());
}

TEST(CapDiscoveryInterval, SixtyGivesSixty) {
  setenv("QOR_CAP_DISCOVERY_INTERVAL", "60", 1);
  EXPECT_EQ(60, CapDiscoveryInterval());
}

TEST(CapDiscoveryInterval, OneMinuteWrittenWithALetterLeavesFive) {
  setenv("QOR_CAP_DISCOVERY_INTERVAL", "1m", 1);
  EXPECT_EQ(5, CapDiscoveryInterval());
}

TEST(CapDiscoveryInterval, UnsetAndSixGiveFiveAndSix) {
  unsetenv("QOR_CAP_DISCOVERY_INTERVAL");
  EXPECT_EQ(5, CapDiscoveryInterval());
  setenv("QOR_CAP_DISCOVERY_INTERVAL", "6", 1);
  EXPECT_EQ(6, CapDiscoveryInterval());
}
