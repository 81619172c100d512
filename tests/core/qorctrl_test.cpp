#include "core/qorctrl.h"

#include <gtest/gtest.h>

#include "core/qorcmdhand.h"
#include "core/qormsghand.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace {

// Starts the whole service on an empty CAP directory with traces in `trace`.
QOR_QueryService* startService(const qortest::TempDir& dir, unsigned traceMask) {
  setenv("QOR_CAP_DIR", dir.path().c_str(), 1);
  qortest::traceTo(dir.file("trace"), traceMask);
  QOR_QueryService* service = QOR_QueryService::initQueryService();
  service->startQueryService();
  return service;
}

// Positions of the lines in `trace` that hold each text, in the order given;
// -1 for a text that is missing.
std::vector<long> positionsOf(const std::string& trace, const std::vector<std::string>& texts) {
  std::vector<long> positions;
  for (const std::string& text : texts) {
    size_t at = trace.find(text);
    positions.push_back(at == std::string::npos ? -1 : static_cast<long>(at));
  }
  return positions;
}

void expectInOrder(const std::string& trace, const std::vector<std::string>& texts) {
  std::vector<long> positions = positionsOf(trace, texts);
  for (size_t i = 0; i < texts.size(); ++i) {
    EXPECT_NE(-1, positions[i]) << "missing: " << texts[i];
    if (i > 0) {
      EXPECT_LT(positions[i - 1], positions[i]) << texts[i - 1] << " before " << texts[i];
    }
  }
}

}  // namespace

// The request code is traced as a number ("Request received: 1"), so the
// numbers are part of what an operator reads.
TEST(ControllerThreadRequests, KeepTheirNumbers) {
  EXPECT_EQ(0, Controller::NO_THREAD_REQUEST);
  EXPECT_EQ(1, Controller::SHUTDOWN_REQUEST);
}

TEST(ControllerIntervals, DefaultsAreNoDiscoveryAndTenMinutes) {
  unsetenv("QOR_DISCOVERY_INTERVAL");
  unsetenv("QOR_ZEL_DISCOVERY_INTERVAL");
  Controller* controller = Controller::getController();
  EXPECT_EQ(0, controller->getDiscoveryInterval());
  EXPECT_EQ(600, controller->getZelDiscoveryInterval());
}

TEST(ControllerIntervals, InstanceIntervalBelowTheDiscoveryIntervalLeaves600) {
  setenv("QOR_DISCOVERY_INTERVAL", "100", 1);
  setenv("QOR_ZEL_DISCOVERY_INTERVAL", "50", 1);
  Controller* controller = Controller::getController();
  EXPECT_EQ(100, controller->getDiscoveryInterval());
  EXPECT_EQ(600, controller->getZelDiscoveryInterval());
}

TEST(ControllerIntervals, InstanceIntervalEqualToTheDiscoveryIntervalIsTaken) {
  setenv("QOR_DISCOVERY_INTERVAL", "100", 1);
  setenv("QOR_ZEL_DISCOVERY_INTERVAL", "100", 1);
  EXPECT_EQ(100, Controller::getController()->getZelDiscoveryInterval());
}

TEST(ControllerIntervals, InstanceIntervalMayBeShorterThan600WithoutDiscovery) {
  unsetenv("QOR_DISCOVERY_INTERVAL");
  setenv("QOR_ZEL_DISCOVERY_INTERVAL", "30", 1);
  EXPECT_EQ(30, Controller::getController()->getZelDiscoveryInterval());
}

TEST(ControllerIntervals, SignsAndLettersCountAsUnset) {
  setenv("QOR_DISCOVERY_INTERVAL", "-5", 1);
  setenv("QOR_ZEL_DISCOVERY_INTERVAL", "1m", 1);
  Controller* controller = Controller::getController();
  EXPECT_EQ(0, controller->getDiscoveryInterval());
  EXPECT_EQ(600, controller->getZelDiscoveryInterval());
}

TEST(ControllerSpine, NoDiscoveryThreadWhenTheIntervalIsUnset) {
  unsetenv("QOR_DISCOVERY_INTERVAL");
  qortest::TempDir dir;
  QOR_QueryService* service = startService(dir, 1 | 146);
  service->releaseQueryService(false);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "Discovery interval:"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "discovery thread cancelled."));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "Enter wait for discovery shutdown complete."));
}

TEST(ControllerSpine, NoDiscoveryThreadWhenTheIntervalIsZero) {
  setenv("QOR_DISCOVERY_INTERVAL", "0", 1);
  qortest::TempDir dir;
  QOR_QueryService* service = startService(dir, 1 | 146);
  EXPECT_EQ(0, Controller::getController()->getDiscoveryInterval());
  service->releaseQueryService(false);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "Discovery interval:"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "discovery thread cancelled."));
}

TEST(ControllerSpine, DiscoveryThreadRunsAndIsCancelledInItsSleep) {
  setenv("QOR_DISCOVERY_INTERVAL", "100", 1);
  qortest::TempDir dir;
  QOR_QueryService* service = startService(dir, 1 | 146);
  Controller* controller = Controller::getController();
  ASSERT_TRUE(qortest::waitFor([&] { return controller->isDISleeping(); }, 5000));
  service->releaseQueryService(false);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Discovery interval: 100 seconds\n"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "discovery thread cancelled.\n"));
}

TEST(ControllerSpine, ShutdownWhileTheAvailabilityThreadSleepsReturnsAtOnce) {
  qortest::TempDir dir;
  QOR_QueryService* service = startService(dir, 146);
  Controller* controller = Controller::getController();
  ASSERT_TRUE(qortest::waitFor([&] { return controller->isAVSleeping(); }, 5000));
  long long before = qortest::nowMs();
  service->releaseQueryService(false);
  EXPECT_LT(qortest::nowMs() - before, 1000);
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "AV thread cancelled.\n"));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "Enter wait for AV shutdown complete."));
  EXPECT_EQ(0, qortest::countOccurrences(trace, "Shutdown AV complete message received."));
}

TEST(ControllerSpine, StartupRunsInItsOrder) {
  qortest::TempDir dir;
  QOR_QueryService* service = startService(dir, 146);
  std::string trace = qortest::readFile(dir.file("trace"));
  // The caller's thread and the command handler's thread each keep their order.
  expectInOrder(trace, {"starting TEO thread.\n", "Enter wait for TEO startup complete.\n",
                        "startup complete message received.\n"});
  expectInOrder(trace, {"cap_init_complete event \n", "startup complete message received.\n"});
  EXPECT_TRUE(qortest::waitFor(
      [&] {
        return qortest::readFile(dir.file("trace")).find("Enter loop for waiting for thread requests\n") !=
               std::string::npos;
      },
      2000));
  service->releaseQueryService(false);
}

TEST(ControllerSpine, ShutdownStopsProducersFirstAndQueuesLast) {
  qortest::TempDir dir;
  QOR_QueryService* service = startService(dir, 146);
  Controller* controller = Controller::getController();
  ASSERT_TRUE(qortest::waitFor([&] { return controller->isAVSleeping(); }, 5000));
  service->releaseQueryService(false);
  std::string trace = qortest::readFile(dir.file("trace"));
  expectInOrder(trace,
                {"Signalling shutdown request. \n", "Request received: 1 \n", "Shutdown request received \n",
                 "Processing shutdown request\n", "TEO Shutdown request.\n", "Shutdown filechange thread.\n",
                 "No worker threads to shutdown.\n", "AV thread cancelled.\n",
                 "Shutdown command handler thread.\n", "Shutdown message handler thread.\n",
                 "Signalling shutdown complete\n", "Shutdown complete message received.\n"});
  EXPECT_TRUE(qortest::waitFor(
      [&] {
        return qortest::readFile(dir.file("trace")).find("Exiting TEO execution thread\n") !=
               std::string::npos;
      },
      2000));
  EXPECT_TRUE(controller->getCommandHandler()->isShutdownRequested());
  EXPECT_TRUE(controller->getMessageHandler()->isShutdownRequested());
}

TEST(ControllerSpine, ShutdownCancelsRunningWorkers) {
  qortest::TempDir dir;
  QOR_QueryService* service = startService(dir, 146);
  Controller* controller = Controller::getController();
  pthread_t worker;
  ASSERT_TRUE(controller->startDetachedThread(
      &worker,
      [](void*) -> void* {
        for (;;) pause();
      },
      nullptr));
  WorkerThreadVector* workers = controller->getWorkerThreads();
  ASSERT_TRUE(workers->lockWorkerThreads());
  workers->addThread(worker);
  workers->unlockWorkerThreads();
  service->releaseQueryService(false);
  EXPECT_TRUE(workers->isVectorEmpty());
  EXPECT_EQ(
      0, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "No worker threads to shutdown."));
}

TEST(ControllerSpine, DiscoveryLockTakesAndGivesBack) {
  Controller* controller = Controller::getController();
  EXPECT_TRUE(controller->lockDiscovery());
  EXPECT_FALSE(controller->tryLockDiscovery());
  EXPECT_TRUE(controller->unlockDiscovery());
  EXPECT_TRUE(controller->tryLockDiscovery());
  EXPECT_TRUE(controller->unlockDiscovery());
}
