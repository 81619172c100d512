// The Controller's view of the OS agent: whether its record is managed, and
// the remote deploy markers in the CAP directories. Real files, real policies.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <memory>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "support/qortest.h"

namespace {

std::wstring wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

class OSAgent : public ::testing::Test {
 protected:
  Controller* controller() { return Controller::getController(); }

  // A record of the watchdog list with a policy of the product code.
  Agent* watchedRecord(const std::wstring& code, ManagedStates state) {
    Policy* policy = new Policy();
    policy->setProductCode(code);
    Agent* agent = new Agent();
    agent->setPolicy(policy);
    agent->setManagedState(state);
    ManagedProcessList* list = controller()->getWatchdogList();
    list->lockList();
    list->push_back(agent);
    list->unlockList();
    return agent;
  }

  Policy* policyOf(const std::wstring& code) {
    policies.emplace_back(new Policy());
    policies.back()->setProductCode(code);
    return policies.back().get();
  }

  std::vector<std::unique_ptr<Policy>> policies;
};

TEST_F(OSAgent, IsNotManagedWithAnEmptyWatchdogList) { EXPECT_FALSE(controller()->isOSAgentManaged()); }

TEST_F(OSAgent, IsManagedWhenItsRecordIsManagedByTheWatchdogProcess) {
  watchedRecord(L"qa", WatchdogManaged);
  EXPECT_TRUE(controller()->isOSAgentManaged());
}

TEST_F(OSAgent, IsManagedWhenAnyOSAgentRecordIsManaged) {
  watchedRecord(L"qb", Unmanaged);
  watchedRecord(L"zz", Managed);  // not an OS agent's code
  EXPECT_FALSE(controller()->isOSAgentManaged());
  watchedRecord(L"qc", Managed);
  EXPECT_TRUE(controller()->isOSAgentManaged());
}

TEST_F(OSAgent, ARemoteDeployMarkerIsFoundAndKeptWhenNotToBeRemoved) {
  qortest::TempDir cap;
  controller()->setCAPDirPaths({wide(cap.path() + "/")});
  qortest::writeFile(cap.file("zz.dy"), "");
  EXPECT_TRUE(controller()->checkRemoteDeploy(policyOf(L"zz"), false));
  EXPECT_TRUE(qortest::fileExists(cap.file("zz.dy")));
  EXPECT_FALSE(controller()->checkRemoteDeploy(policyOf(L"zy"), false));
}

TEST_F(OSAgent, RemovingTakesTheFirstDirectorysMarkerAndTheNextCallFindsTheLaterOne) {
  qortest::TempDir first;
  qortest::TempDir second;
  controller()->setCAPDirPaths({wide(first.path() + "/"), wide(second.path() + "/")});
  qortest::writeFile(first.file("zz.dy"), "");
  qortest::writeFile(second.file("zz.dy"), "");
  Policy* policy = policyOf(L"zz");

  EXPECT_TRUE(controller()->checkRemoteDeploy(policy, true));
  EXPECT_FALSE(qortest::fileExists(first.file("zz.dy")));
  EXPECT_TRUE(qortest::fileExists(second.file("zz.dy")));
  EXPECT_TRUE(controller()->checkRemoteDeploy(policy, true));
  EXPECT_FALSE(qortest::fileExists(second.file("zz.dy")));
  EXPECT_FALSE(controller()->checkRemoteDeploy(policy, true));
}

TEST_F(OSAgent, NoCapDirectoryMeansNoRemoteDeploy) {
  controller()->setCAPDirPaths({});
  EXPECT_FALSE(controller()->checkRemoteDeploy(policyOf(L"zz"), true));
}

}  // namespace
