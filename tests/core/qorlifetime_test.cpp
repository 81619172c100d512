#include "core/qorlifetime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "agents/qorfst.h"
#include "core/qorctrl.h"
#include "core/qorutil.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

using Paths = std::vector<std::wstring>;

std::wstring wide(const std::string& text) { return qor_mbstowcs(text.c_str()); }

// Each test runs in its own process, so the environment and the Controller
// start fresh in every one of them.
void initializeWith(const char* capDir) {
  if (capDir == nullptr) {
    unsetenv("QOR_CAP_DIR");
  } else {
    setenv("QOR_CAP_DIR", capDir, 1);
  }
  InitializeTEO();
}

}  // namespace

TEST(CapDirectories, UnsetGivesDotCapAndNoStateDirectory) {
  initializeWith(nullptr);
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({L"./CAP"}), controller->getCAPDirPaths());
  EXPECT_EQ(L"", controller->getTEODirPath());
  EXPECT_EQ("/teo.dat", GetTeoDatPath());
}

TEST(CapDirectories, OneExistingDirectoryIsListAndStateDirectory) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({wide(a.path() + "/")}), controller->getCAPDirPaths());
  EXPECT_EQ(wide(a.path() + "/"), controller->getTEODirPath());
  // The joined path keeps the directory's own slash and adds one.
  EXPECT_EQ(a.path() + "//teo.dat", GetTeoDatPath());
}

TEST(CapDirectories, MissingThenExistingKeepsBothAndTakesTheExistingForState) {
  qortest::TempDir a;
  std::string missing = a.path() + "-missing";
  std::string value = missing + ":" + a.path();
  initializeWith(value.c_str());
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({wide(missing + "/"), wide(a.path() + "/")}), controller->getCAPDirPaths());
  EXPECT_EQ(wide(a.path() + "/"), controller->getTEODirPath());
}

TEST(CapDirectories, MissingAloneFallsBackToDotCap) {
  qortest::TempDir a;
  std::string missing = a.path() + "/missing";
  initializeWith(missing.c_str());
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({wide(missing + "/"), L"./CAP"}), controller->getCAPDirPaths());
  EXPECT_EQ(L"./CAP", controller->getTEODirPath());
}

TEST(CapDirectories, TrailingColonAddsTheRootEntry) {
  qortest::TempDir a;
  std::string value = a.path() + ":";
  initializeWith(value.c_str());
  Controller* controller = Controller::getController();
  EXPECT_EQ(Paths({wide(a.path() + "/"), L"/"}), controller->getCAPDirPaths());
  EXPECT_EQ(wide(a.path() + "/"), controller->getTEODirPath());
}

TEST(CapDirectories, TheValueIsReadOnceAndNotAgain) {
  qortest::TempDir a;
  qortest::TempDir b;
  initializeWith(a.path().c_str());
  setenv("QOR_CAP_DIR", b.path().c_str(), 1);
  EXPECT_EQ(wide(a.path()), QOR_GetEnvironment(L"QOR_CAP_DIR"));
}

TEST(StateFile, PersistWritesTheCountLine) {
  qortest::TempDir a;
  initializeWith(a.path().c_str());
  PersistTEO();
  EXPECT_EQ("0\n", qortest::readFile(a.file("teo.dat")));
}

TEST(StateFile, PersistInWatchdogModeLeavesTheFileUntouched) {
  qortest::TempDir a;
  qortest::writeFile(a.file("teo.dat"), "3\nkept\n");
  Controller::setWatchDogMode();
  initializeWith(a.path().c_str());
  PersistTEO();
  EXPECT_EQ("3\nkept\n", qortest::readFile(a.file("teo.dat")));
}

// A host that keeps the pointer after its last release reaches the service
// with a count of 0: the lifetime calls only look at the class's own state.
TEST(QueryServiceLifetime, ReleaseWithACountOfZeroReturnsFalseAndChangesNothing) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  EXPECT_TRUE(service->releaseQueryService(true));
  EXPECT_FALSE(service->releaseQueryService(true));
  EXPECT_FALSE(QOR_QueryService::isInitialized());
  EXPECT_FALSE(QOR_QueryService::isStarted());
}

TEST(QueryServiceLifetime, TwoInitsNeedTwoReleasesAndTheThirdIsRefused) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  setenv("QOR_TRACE_LEVEL", "146", 1);
  QOR_QueryService* first = QOR_QueryService::initQueryService();
  QOR_QueryService* second = QOR_QueryService::initQueryService();
  EXPECT_EQ(first, second);
  first->startQueryService();
  EXPECT_TRUE(QOR_QueryService::isStarted());

  EXPECT_TRUE(first->releaseQueryService(false));
  EXPECT_TRUE(QOR_QueryService::isStarted());
  EXPECT_FALSE(Controller::getController()->isShuttingDown());

  EXPECT_TRUE(first->releaseQueryService(false));
  EXPECT_FALSE(QOR_QueryService::isStarted());
  EXPECT_FALSE(QOR_QueryService::isInitialized());
  EXPECT_TRUE(Controller::getController()->isShuttingDown());
  EXPECT_EQ("0\n", qortest::readFile(a.file("teo.dat")));
}

TEST(QueryServiceLifetime, StartingTwiceStartsOnce) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  qortest::traceTo(a.file("trace"), 146);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  service->startQueryService();
  time_t startup = Controller::getController()->getStartup();
  service->startQueryService();
  EXPECT_EQ(startup, Controller::getController()->getStartup());
  service->releaseQueryService(false);
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(a.file("trace")), "starting TEO thread."));
}

TEST(QueryServiceLifetime, StartAfterTheLastReleaseDoesNothing) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  EXPECT_TRUE(service->releaseQueryService(true));
  service->startQueryService();
  EXPECT_FALSE(QOR_QueryService::isStarted());
  EXPECT_EQ(0, Controller::getController()->getStartup());
}

TEST(QueryServiceLifetime, PersistOnlyReleaseLeavesTheThreadsRunning) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  service->startQueryService();
  EXPECT_TRUE(service->releaseQueryService(true));
  EXPECT_FALSE(QOR_QueryService::isStarted());
  EXPECT_FALSE(Controller::getController()->isShuttingDown());
  EXPECT_EQ("0\n", qortest::readFile(a.file("teo.dat")));
}

TEST(QueryServiceLifetime, TerminateWithoutStartBlocksForGood) {
  qortest::TempDir a;
  setenv("QOR_CAP_DIR", a.path().c_str(), 1);
  InitializeTEO();
  static std::atomic<bool> returned{false};
  std::thread([] {
    TerminateTEO();
    returned = true;
  }).detach();
  // No TEO thread answers the request: the call stays blocked.
  EXPECT_FALSE(qortest::waitFor([] { return returned.load(); }, 1500));
}
