// Helpers of the socket tests: a client that sends raw bytes and reads every
// byte of the answer until the server closes, a server's run() on a thread of
// its own with the one way to stop it between connections, agents of a
// product code in the live lists, and the process's open descriptors. Used on
// the test's main thread (clients also on threads the test starts).
#ifndef QOR_TESTS_INTERFACES_SOCKTEST_H
#define QOR_TESTS_INTERFACES_SOCKTEST_H

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorcmdhand.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qormsghand.h"
#include "interfaces/qorsockserv.h"
#include "support/controlleraccess.h"
#include "support/qortest.h"
#include "support/queues.h"

namespace socktest {

// A connected socket to `path`, or -1 with errno set.
inline int connectTo(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  struct sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

// Every byte until the peer closes, or until `timeoutMs` passes without one;
// `closed` tells which.
inline std::string readAll(int fd, int timeoutMs, bool* closed = nullptr) {
  std::string bytes;
  char buffer[4096];
  for (;;) {
    struct pollfd wait = {fd, POLLIN, 0};
    if (poll(&wait, 1, timeoutMs) <= 0) break;
    ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0) {
      if (closed != nullptr) *closed = true;
      return bytes;
    }
    bytes.append(buffer, static_cast<size_t>(got));
  }
  if (closed != nullptr) *closed = false;
  return bytes;
}

// One exchange as any client may do it: connect, send the bytes, read the
// whole answer up to the close.
struct Exchange {
  bool connected = false;
  bool closed = false;  // the server closed the connection
  std::string answer;
};

inline Exchange exchange(const std::string& path, const std::string& request, int timeoutMs = 10000) {
  Exchange result;
  int fd = connectTo(path);
  if (fd < 0) return result;
  result.connected = true;
  if (request.empty()) {
    shutdown(fd, SHUT_WR);  // connects and says nothing
  } else {
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  }
  result.answer = readAll(fd, timeoutMs, &result.closed);
  close(fd);
  return result;
}

// The answer's bytes, or a note that the server never closed.
inline std::string answerTo(const std::string& path, const std::string& request) {
  Exchange result = exchange(path, request);
  if (!result.connected) return "<not connected>";
  if (!result.closed) return "<not closed: " + result.answer + ">";
  return result.answer;
}

using RequestTokensList = std::vector<std::string>;

// Every token of `request`, cut in place.
inline RequestTokensList allTokens(char* request) {
  RequestTokens tokens(request);
  RequestTokensList all;
  while (const char* token = tokens.next()) all.push_back(token);
  return all;
}

// How many sockets listen on `path` now, as the kernel lists them.
inline int listening(const std::string& path) {
  int count = 0;
  for (const std::string& line : qortest::linesWith(qortest::readFile("/proc/net/unix"), path)) {
    // "Num: RefCount Protocol Flags Type St Inode Path"; 00010000 is a listener.
    char flags[16] = {0};
    char name[256] = {0};
    if (sscanf(line.c_str(), "%*s %*s %*s %15s %*s %*s %*s %255s", flags, name) == 2 &&
        std::string(flags) == "00010000" && path == name) {
      ++count;
    }
  }
  return count;
}

inline int openDescriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (struct dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(dir);
  return count - 1;  // the directory's own descriptor
}

// A server's run() on a thread of its own. start() waits until it listens
// (or has returned); stop() sets the shutdown flag and connects once, which
// is the only way the loop sees it, and gives run()'s result.
class ServerThread {
 public:
  explicit ServerThread(SocketServer& server) : server_(server) {}
  ~ServerThread() { stop(); }
  ServerThread(const ServerThread&) = delete;
  ServerThread& operator=(const ServerThread&) = delete;

  // false when the server ended without listening.
  bool start() {
    const int before = listening(server_.getSocketPath());
    thread_ = std::thread([this] {
      tid_.store(static_cast<long>(syscall(SYS_gettid)));
      result_.store(server_.run(Controller::getController()));
      done_.store(true);
    });
    return qortest::waitFor([&] { return done_.load() || listening(server_.getSocketPath()) > before; },
                            10000) &&
           !done_.load();
  }
  // `via` is another name of the socket file, for a server whose own name
  // was taken over meanwhile.
  int stop(const std::string& via = std::string()) {
    if (!thread_.joinable()) return result_.load();
    // Set while the server waits in accept, the flag is seen only after one
    // more connection; set a moment earlier, at once.
    waitInAccept();
    ControllerTestAccess::setShuttingDown(true);
    if (!done_.load()) {
      int fd = connectTo(via.empty() ? server_.getSocketPath() : via);
      if (fd >= 0) close(fd);
    }
    thread_.join();
    ControllerTestAccess::setShuttingDown(false);
    return result_.load();
  }
  bool done() const { return done_.load(); }
  // Whether the server's thread waits for a client now, as the kernel says:
  // in poll, between its looks at the socket file, or in accept.
  bool inAccept() const {
    const std::string call = qortest::readFile("/proc/self/task/" + std::to_string(tid_.load()) + "/syscall");
    const int number = std::atoi(call.c_str());
#ifdef SYS_poll
    if (number == SYS_poll) return true;
#endif
    return number == SYS_accept4 || number == SYS_ppoll;
  }
  // Waits until the server is back in accept or has ended.
  bool waitInAccept() const {
    return qortest::waitFor([&] { return done_.load() || inAccept(); }, 10000);
  }
  int result() const { return result_.load(); }

 private:
  SocketServer& server_;
  std::thread thread_;
  std::atomic<int> result_{-1};
  std::atomic<bool> done_{false};
  std::atomic<long> tid_{0};
};

// Agents in the live list for one test, each with a policy of its own product
// code; taken out and freed at the end, with what they left on the queues.
class ListedAgents {
 public:
  ListedAgents() : list_(Controller::getController()->getManagedEndpointProcesses()) {}
  ~ListedAgents() {
    list_->lockList();
    list_->clear();
    list_->unlockList();
    drainQueues();
  }
  Agent* add(const std::wstring& name, const std::wstring& productCode, const std::wstring& instance,
             ManagedStates managed = Managed, OperatingStates state = OpRunning) {
    agents_.emplace_back(new Agent());
    Agent* agent = agents_.back().get();
    Policy* policy = new Policy();  // the agent frees it
    // A specific policy, which names its instances: setting its code lists none.
    policy->setGeneric(false);
    policy->setProductCode(productCode);
    agent->setPolicy(policy);
    agent->setName(name);
    agent->setInstanceName(instance);
    agent->setManagedState(managed);
    agent->setOperatingState(state);
    list_->lockList();
    list_->push_back(agent);
    list_->unlockList();
    return agent;
  }
  // The record of the OS agent: its policy is managed by the watchdog.
  Agent* addOSAgent(const std::wstring& name, const std::wstring& productCode, int restarts) {
    Agent* agent = add(name, productCode, L"");
    list_->lockList();
    agent->getPolicy()->setManagerTypeElement(WatchDog);
    agent->setDailyRestartCount(restarts);
    list_->unlockList();
    return agent;
  }
  ManagedProcessList* list() { return list_; }

  // The events queued for the state machine as (id, opState, action, agent), freed.
  struct Queued {
    int id;
    int opState;
    bool action;
    Agent* agent;
    bool operator==(const Queued& other) const {
      return id == other.id && opState == other.opState && action == other.action && agent == other.agent;
    }
  };
  static std::vector<Queued> commandsQueued() {
    std::vector<Queued> queued;
    for (Event* event : qortest::takeEvents(Controller::getController()->getCommandHandler())) {
      AgentOpEvent* op = dynamic_cast<AgentOpEvent*>(event);
      if (op != nullptr)
        queued.push_back({op->getEventTypeID(), op->getOpState(), op->getActionFlag(), op->getAgent()});
      delete event;
    }
    return queued;
  }
  static void drainQueues() {
    commandsQueued();
    for (Event* event : qortest::takeEvents(Controller::getController()->getMessageHandler())) delete event;
  }

 private:
  ManagedProcessList* list_;
  std::vector<std::unique_ptr<Agent>> agents_;
};

// The OS agent's record as the embedded service keeps it: apart, in the
// watchdog list; taken out again at the end.
class WatchedOSAgent {
 public:
  WatchedOSAgent(const std::wstring& name, const std::wstring& productCode, ManagedStates state)
      : agent_(new Agent()), list_(Controller::getController()->getWatchdogList()) {
    Policy* policy = new Policy();
    policy->setGeneric(false);
    policy->setProductCode(productCode);
    policy->setManagerTypeElement(WatchDog);
    agent_->setPolicy(policy);
    agent_->setName(name);
    agent_->setManagedState(state);
    list_->lockList();
    list_->push_back(agent_.get());
    list_->unlockList();
  }
  ~WatchedOSAgent() {
    list_->lockList();
    list_->clear();
    list_->unlockList();
  }

 private:
  std::unique_ptr<Agent> agent_;
  ManagedProcessList* list_;
};

// A server of either socket whose answers the test sets: every command gets
// `code`, every query `text`. It keeps the requests it was given, and with
// the gate closed it holds each one until the test opens it.
class ScriptedServer : public SocketServer {
 public:
  explicit ScriptedServer(const char* tail, int code = 0, const std::string& text = std::string())
      : SocketServer(tail), code_(code), text_(text) {}
  int executeCommand(char* request, Controller* /*controller*/) override {
    note(request);
    return code_;
  }
  std::string executeQuery(char* request, Controller* /*controller*/) override {
    note(request);
    return text_;
  }
  void closeGate() { gateOpen_.store(false); }
  void openGate() { gateOpen_.store(true); }
  // Whether a request is held at the closed gate.
  bool waiting() const { return waiting_.load(); }
  std::vector<std::string> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  void note(const char* request) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
    }
    waiting_.store(true);
    while (!gateOpen_.load()) usleep(1000);
    waiting_.store(false);
  }

  const int code_;
  const std::string text_;
  std::atomic<bool> gateOpen_{true};
  std::atomic<bool> waiting_{false};
  std::mutex mutex_;
  std::vector<std::string> requests_;
};

inline std::ostream& operator<<(std::ostream& out, const ListedAgents::Queued& queued) {
  return out << "{id " << queued.id << ", opState " << queued.opState << ", action " << queued.action << ", "
             << queued.agent << "}";
}

}  // namespace socktest

#endif  // QOR_TESTS_INTERFACES_SOCKTEST_H
