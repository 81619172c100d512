// The service embedded in an end-to-end test's own process, for what needs
// the exported interface, shorter constants or a view of the worker threads:
// the test is the embedder, with listeners that note what qorhost would
// print, and reads its agents through the iterator. Used on the test's main
// thread; the listeners are called on the service's message thread.
#ifndef QOR_TESTS_E2E_EMBEDDED_H
#define QOR_TESTS_E2E_EMBEDDED_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "core/qorctrl.h"
#include "core/qorworkers.h"
#include "e2e/e2ehelp.h"
#include "include/qorapi.h"
#include "support/qortest.h"

namespace e2e {

// Each event as qorhost prints it, without the time: "[ID] TEXT".
class HeardEvents : public QOR_LogListener {
 public:
  void AlertMe() override {
    char* text = QOR_wcstombs(logData.logMessage);
    char id[8];
    std::snprintf(id, sizeof id, "[%2d] ", logData.eventID);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(id + std::string(text != nullptr ? text : ""));
    delete[] text;
  }
  // The operational events of the agent named `name`, in order.
  std::vector<std::string> of(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> found;
    for (const std::string& line : lines_) {
      if (line.find("] " + name + " Operational Event: ") != std::string::npos) found.push_back(line);
    }
    return found;
  }
  // Every event heard so far, in order.
  std::vector<std::string> all() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // How many events are exactly `line`.
  int exactly(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    int found = 0;
    for (const std::string& each : lines_) found += each == line ? 1 : 0;
    return found;
  }
  // How many operational events of `name` have the id `id`.
  int count(const std::string& name, int id) {
    char prefix[8];
    std::snprintf(prefix, sizeof prefix, "[%2d] ", id);
    int found = 0;
    for (const std::string& line : of(name)) {
      if (line.rfind(prefix, 0) == 0) ++found;
    }
    return found;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Each alert as qorhost prints it, without the time.
class HeardAlerts : public QOR_AlertListener {
 public:
  void AlertMe() override {
    char* name = QOR_wcstombs(alertData.agentName);
    char* message = QOR_wcstombs(alertData.userMessage);
    char line[512];
    std::snprintf(line, sizeof line, "[%2d] ALERT agent '%s' state %d managed %d pid %d: %s",
                  alertData.eventID, name != nullptr ? name : "", alertData.operatingState,
                  alertData.managedState, alertData.procID, message != nullptr ? message : "");
    delete[] name;
    delete[] message;
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> of(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> found;
    for (const std::string& line : lines_) {
      if (line.find(" ALERT agent '" + name + "' ") != std::string::npos) found.push_back(line);
    }
    return found;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// An agent as the iterator shows it.
struct Seen {
  int state = -1;
  long pid = -1;
  int restarts = -1;
  bool operator==(const Seen& other) const {
    return state == other.state && pid == other.pid && restarts == other.restarts;
  }
};

inline void PrintTo(const Seen& seen, std::ostream* out) {
  *out << "state " << seen.state << " pid " << seen.pid << " restarts " << seen.restarts;
}

// The service on a CAP directory that holds the OS agent's file and the
// files of the test, tracing detail, errors and availability; released at
// the end.
class EmbeddedService : public ::testing::Test {
 protected:
  EmbeddedService() : start(programs) {}
  void SetUp() override {
    setenv("QOR_CAP_DIR", caps.path().c_str(), 1);
    setenv("QOR_IP_DIR", work.path().c_str(), 1);
    qortest::traceTo(work.file("trace"), 1 | 128 | 256);
    writeCap("host.xml", osAgentCapFile());
  }
  void TearDown() override { stopService(); }

  void writeCap(const std::string& file, const std::string& content) {
    qortest::writeFile(caps.file(file), content);
  }
  void writeAgent(const std::string& file, const captest::Subagent& agent) {
    writeCap(file, captest::document(agent));
  }
  void startService() {
    service = QOR_QueryService::initQueryService();
    service->registerLogListener(&heard);
    service->registerAlertListener(&alerts);
    service->startQueryService();
  }
  void stopService() {
    if (service == nullptr) return;
    service->deregisterLogListener(&heard);
    service->deregisterAlertListener(&alerts);
    service->releaseQueryService(false);
    service = nullptr;
  }
  // Whether every command worker has ended within `timeoutMs`.
  bool noWorkerLeft(int timeoutMs = 5000) {
    return qortest::waitFor([] { return Controller::getController()->getWorkerThreads()->isVectorEmpty(); },
                            timeoutMs);
  }
  // The agent `id` as a snapshot shows it now.
  Seen seen(const std::string& id) { return seenAll({id}).front(); }
  // The agents `ids`, in that order, as one snapshot shows them now.
  std::vector<Seen> seenAll(const std::vector<std::string>& ids) {
    std::vector<Seen> found(ids.size());
    QOR_AgentIterator* agents = service->getAgentIterator(true);
    if (agents == nullptr) return found;
    while (agents->getNextAgentEntry()) {
      char* subagent = QOR_wcstombs(agents->getSubagentID());
      for (size_t i = 0; subagent != nullptr && i < ids.size(); ++i) {
        if (ids[i] != subagent) continue;
        found[i].state = agents->getOperationalStatus();
        found[i].pid = agents->getProcessID();
        found[i].restarts = agents->getDailyRestartCount();
      }
      delete[] subagent;
    }
    service->releaseAgentIterator(agents);
    return found;
  }
  // Waits until the agent `id` is in the operating state `state`.
  bool waitForState(const std::string& id, int state, int timeoutMs) {
    return qortest::waitFor([&] { return seen(id).state == state; }, timeoutMs);
  }
  std::string trace() { return qortest::readFile(work.file("trace")); }
  int traced(const std::string& text) { return qortest::countOccurrences(trace(), text); }
  // Waits until the trace shows `more` further checks of the agent `id`.
  bool waitForChecks(const std::string& id, int more, int timeoutMs) {
    const std::string checked = "Agent " + id + " checked at ";
    const int before = traced(checked);
    return qortest::waitFor([&] { return traced(checked) >= before + more; }, timeoutMs);
  }

  qortest::TempDir caps;
  qortest::TempDir work;
  Programs programs;
  StartScript start;
  HeardEvents heard;
  HeardAlerts alerts;
  QOR_QueryService* service = nullptr;
};

}  // namespace e2e

#endif  // QOR_TESTS_E2E_EMBEDDED_H
