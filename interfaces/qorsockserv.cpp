// The server loop shared by both sockets, the handlers of each, and the wire
// format's writers. One connection carries one request and one answer.
#include "interfaces/qorsockserv.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "agents/qoragt.h"
#include "cap/qorpol.h"
#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorevthand.h"
#include "core/qorutil.h"
#include "interfaces/qormsgcache.h"
#include "interfaces/qorsockclient.h"
#include "platform/log1.h"
#include "platform/osv1.h"

QOR_TRACE_UNIT();

int32_t SOCKET_RECEIVE_TIMEOUT_MS = 5000;
int32_t SOCKET_FILE_CHECK_MS = 1000;

char* RequestTokens::next() {
  while (*next_ == separator_) ++next_;
  if (*next_ == '\0') return nullptr;
  char* token = next_;
  while (*next_ != '\0' && *next_ != separator_) ++next_;
  if (*next_ == separator_) *next_++ = '\0';
  return token;
}

SocketServer::SocketServer(const char* tail) {
  QOR_TRACE_FUNCTION();
  const char* ipDir = OSV1_GetEnv("QOR_IP_DIR", 0);
  if (ipDir == nullptr || *ipDir == '\0') {
    QOR_TRACE_ERROR("Error QOR_IP_DIR not defined.\n");
    return;
  }
  socketPath = std::string(ipDir) + tail;
}

SocketServer::~SocketServer() {}

TEOSocketServer::TEOSocketServer() : SocketServer("/.teo_sock") {}

WatchdogSocketServer::WatchdogSocketServer() : SocketServer("/.teo_wd_sock") {}

WatchdogSocketServer::~WatchdogSocketServer() { delete handedOver; }

namespace {

// The address of the socket file at `path`, whose length refusePath checked.
struct sockaddr_un addressOf(const std::string& path) {
  struct sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// The directory that holds the socket file.
std::string directoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

// Two paths are refused before anything is created. One that does not fit a
// socket address would be cut to another name. A directory that everybody
// may write to lets anybody remove the socket file and put his own in its
// place, which every client would then trust; the sticky bit does not help,
// since it cannot keep a stranger from creating the file while this server
// is down. The owner and the group of the directory are trusted.
int SocketServer::refusePath() {
  QOR_TRACE_FUNCTION();
  struct sockaddr_un address;
  if (socketPath.size() >= sizeof address.sun_path) {
    QOR_TRACE_ERROR("Socket path too long: %s has %d bytes, at most %d fit.\n", socketPath.c_str(),
                    static_cast<int>(socketPath.size()), static_cast<int>(sizeof address.sun_path - 1));
    return SOCKET_SERVER_NO_BIND;
  }
  const std::string directory = directoryOf(socketPath);
  struct stat status;
  // A directory that cannot be looked at fails at bind, with its reason.
  if (stat(directory.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) != 0) {
    QOR_TRACE_ERROR(
        "Socket directory %s is writable by everyone (mode %04o): anyone could replace the socket, so it is "
        "refused. Use a directory writable by the owner and group only.\n",
        directory.c_str(), static_cast<unsigned>(status.st_mode & 07777));
    return SOCKET_SERVER_NO_BIND;
  }
  return 0;
}

int SocketServer::listenOn(int& result) {
  QOR_TRACE_FUNCTION();
  // The descriptors of the server are not handed to the scripts it runs.
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    QOR_TRACE_ERROR("Error executing socket - errno = %d, %s\n", errno, socketErrorText(errno).c_str());
    result = SOCKET_SERVER_NO_SOCKET;
    return -1;
  }
  QOR_TRACE_DETAIL("Establishing local socket server.\n");
  struct sockaddr_un address = addressOf(socketPath);
  QOR_TRACE_ERROR("Socket path = %s\n", socketPath.c_str());
  // The file of an earlier run, or of a peer that still runs: unlink does
  // not ask whether anybody listens.
  if (unlink(socketPath.c_str()) != 0) {
    QOR_TRACE_STORY("unlink - errno = %d, %s\n", errno, socketErrorText(errno).c_str());
  }
  // No rights for others on the socket file: only the owner and the group of
  // this process may connect.
  const mode_t oldMask = umask(7);
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&address), static_cast<socklen_t>(socketPath.size() + 3)) !=
      0) {
    QOR_TRACE_ERROR("Error executing bind - errno = %d, %s\n", errno, socketErrorText(errno).c_str());
    // Kept: on this path the old umask is not put back and the socket is not
    // closed; the process keeps umask 007 and one descriptor more.
    result = SOCKET_SERVER_NO_BIND;
    return -1;
  }
  umask(oldMask);
  QOR_TRACE_DETAIL("Establishing listening mode.\n");
  if (listen(fd, 10) != 0) {
    QOR_TRACE_ERROR("Error executing listen - errno = %d, %s\n", errno, socketErrorText(errno).c_str());
    close(fd);
    result = SOCKET_SERVER_NO_LISTEN;
    return -1;
  }
  QOR_TRACE_ERROR("Established socket server.\n");
  return fd;
}

int SocketServer::run(Controller* controller) {
  QOR_TRACE_FUNCTION();
  const char* ipDir = OSV1_GetEnv("QOR_IP_DIR", 0);
  if (ipDir == nullptr || *ipDir == '\0' || socketPath.empty()) {
    QOR_TRACE_ERROR("Error QOR_IP_DIR not defined.\n");
    return QOR_TRACE_RETURN(SOCKET_SERVER_NO_IP_DIR);
  }
  int result = refusePath();
  if (result != 0) return QOR_TRACE_RETURN(result);
  int listener = listenOn(result);  // replaced when its file is bound again
  if (listener < 0) return QOR_TRACE_RETURN(result);
  for (;;) {
    QOR_TRACE_DETAIL("Waiting for a connection\n");
    // The only place that sees a shutdown: a server waiting for a client stays
    // there until one more client comes or the process ends. The socket file
    // stays behind; the next start removes it.
    if (controller->isShuttingDown()) {
      close(listener);
      return QOR_TRACE_RETURN(SOCKET_SERVER_SHUT_DOWN);
    }
    const int connection = acceptNext(listener, controller);
    if (connection < 0) {
      if (errno == EINTR) continue;
      QOR_TRACE_ERROR("Error executing accept connection - errno = %d, %s\n", errno,
                      socketErrorText(errno).c_str());
      return QOR_TRACE_RETURN(SOCKET_SERVER_ACCEPT_FAILED);
    }
    QOR_TRACE_DETAIL("Client connected.\n");
    serveConnection(connection, controller);
  }
}

// Waits for a client in steps of SOCKET_FILE_CHECK_MS, and between them sees
// to the socket file. The shutdown flag is still looked at only between
// connections: a server that waits here does not end before one more client.
int SocketServer::acceptNext(int& listener, Controller* controller) {
  for (;;) {
    struct pollfd wait = {listener, POLLIN, 0};
    const int ready = poll(&wait, 1, SOCKET_FILE_CHECK_MS > 0 ? SOCKET_FILE_CHECK_MS : -1);
    if (ready == 0) {
      // After a shutdown the file is left as it is: the next start replaces it.
      if (!controller->isShuttingDown()) keepSocketFile(listener);
      continue;
    }
    if (ready < 0 && errno == EINTR) continue;
    return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  }
}

// A socket file removed while the server runs leaves it listening on a name
// that nobody can reach. Only a missing file is bound again: a file that is
// there, whoever made it, is left alone, since another live server may own it
// now (see listenOn).
void SocketServer::keepSocketFile(int& listener) {
  struct stat status;
  if (lstat(socketPath.c_str(), &status) == 0 || errno != ENOENT) {
    missingReported = false;
    return;
  }
  QOR_TRACE_FUNCTION();
  if (!missingReported) {
    QOR_TRACE_ERROR("Socket file %s is missing: binding it again.\n", socketPath.c_str());
  }
  const int fresh = bindAgain();
  if (fresh < 0) {
    missingReported = true;
    return;
  }
  // Connections still queued on the old socket were made before the file
  // went and were waited for up to now; no new one can reach it.
  close(listener);
  listener = fresh;
  missingReported = false;
  QOR_TRACE_ERROR("Socket file %s bound again.\n", socketPath.c_str());
}

int SocketServer::bindAgain() {
  QOR_TRACE_FUNCTION();
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    if (!missingReported) {
      QOR_TRACE_ERROR("Error executing socket - errno = %d, %s\n", errno, socketErrorText(errno).c_str());
    }
    return -1;
  }
  struct sockaddr_un address = addressOf(socketPath);
  // No unlink here: bind fails on a file that somebody made meanwhile, and
  // that file is left to its owner.
  const mode_t oldMask = umask(7);
  const int bound =
      bind(fd, reinterpret_cast<struct sockaddr*>(&address), static_cast<socklen_t>(socketPath.size() + 3));
  const int error = errno;
  umask(oldMask);
  if (bound != 0 || listen(fd, 10) != 0) {
    const int reason = bound != 0 ? error : errno;
    // A file bound here but not listening would stand in the way for good.
    if (bound == 0) unlink(socketPath.c_str());
    if (!missingReported) {
      QOR_TRACE_ERROR("Cannot bind the socket file %s again - errno = %d, %s\n", socketPath.c_str(), reason,
                      socketErrorText(reason).c_str());
    }
    close(fd);
    return -1;
  }
  return fd;
}

// One connection: one read, one answer, then the close. A client that sends
// nothing within SOCKET_RECEIVE_TIMEOUT_MS, or goes before the answer, costs
// that connection only.
void SocketServer::serveConnection(int connection, Controller* controller) {
  QOR_TRACE_FUNCTION();
  const int timeoutMs = SOCKET_RECEIVE_TIMEOUT_MS;
  struct timeval timeout = {timeoutMs / 1000, static_cast<suseconds_t>(timeoutMs % 1000) * 1000};
  if (timeoutMs > 0 && setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
    QOR_TRACE_ERROR("Error setting receive time-out - errno = %d, %s\n", errno,
                    socketErrorText(errno).c_str());
  }
  char request[kSocketRequestLimit + 1];
  const ssize_t received = recv(connection, request, kSocketRequestLimit, 0);
  if (received <= 0) {
    const int error = received == 0 ? 0 : errno;
    QOR_TRACE_ERROR("Error executing receive - errno = %d, %s\n", error, socketErrorText(error).c_str());
    if (error == EAGAIN || error == EWOULDBLOCK) {
      QOR_TRACE_ERROR("No request within %d ms: connection closed.\n", timeoutMs);
    }
    close(connection);
    return;
  }
  request[received] = '\0';
  QOR_TRACE_ERROR("Socket received command: %s\n", request);

  std::string answer;
  if (strstr(request, "QUERY") != nullptr) {
    answer = executeQuery(request, controller);
    if (fitSocketAnswer(answer)) {
      QOR_TRACE_ERROR("Answer longer than %d bytes: sent as %d bytes.\n",
                      static_cast<int>(kSocketAnswerLimit), static_cast<int>(answer.size()));
    }
  } else {
    answer = std::to_string(executeCommand(request, controller));
  }
  // The answer goes out as text up to its first zero byte.
  char buffer[kSocketAnswerLimit + 1];
  memcpy(buffer, answer.data(), answer.size());
  buffer[answer.size()] = '\0';
  const size_t length = strlen(buffer);
  QOR_TRACE_STORY("Answer to return: %s, %d\n", buffer, static_cast<int>(length));
  // A client that went before the answer must not end this process by SIGPIPE.
  if (send(connection, buffer, length, MSG_NOSIGNAL) < 0) {
    QOR_TRACE_ERROR("Error executing send response - errno = %d, %s\n", errno,
                    socketErrorText(errno).c_str());
    answerSent(false);
  } else {
    QOR_TRACE_ERROR("Answer sent.\n");
    answerSent(true);
  }
  close(connection);
}

void* TEOSocketSrvThreadEntry(void* /*unused*/) {
  TEOSocketServer server;
  server.run(Controller::getController());
  return nullptr;
}

void* WatchdogSocketSrvThreadEntry(void* /*unused*/) {
  WatchdogSocketServer server;
  server.run(Controller::getController());
  return nullptr;
}

// ---- .teo_sock --------------------------------------------------------------------------

namespace {

// The state commands of .teo_sock: the event each queues for the agent, and
// whether the service is to act (a recycle) or only to take note.
struct StateCommand {
  const char* token;
  TEOEvents event;
  bool action;
};

const StateCommand kStateCommands[] = {
    {"starting", agent_start_cmd, false},  // being started by somebody else
    {"stopping", agent_stop_cmd, false},   // being stopped by somebody else
    {"started", agent_started, false},     // has come up
    {"stopped", agent_stopped, false},     // has gone down
    {"recycle", agent_recycle_cmd, true},  // the service is to recycle it
};
static_assert(sizeof kStateCommands / sizeof kStateCommands[0] == 5, "five state commands");

const StateCommand* stateCommand(const char* token) {
  for (const StateCommand& command : kStateCommands) {
    if (strcmp(command.token, token) == 0) return &command;
  }
  return nullptr;
}

// What a state command names: the product code and, with "-o" or "-p", the
// instance.
struct AgentTarget {
  const char* productCode = nullptr;
  const char* instance = nullptr;
};

// The tokens behind the command token; false when one is missing.
bool readTarget(RequestTokens& tokens, AgentTarget& target, const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  const char* token = tokens.next();
  if (token == nullptr) return false;
  if (strcmp(token, "-o") == 0 || strcmp(token, "-p") == 0) {
    target.instance = tokens.next();
    if (target.instance == nullptr) return false;
    QOR_TRACE_STORY("Instance token in request: %s\n", target.instance);
    token = tokens.next();
    if (token == nullptr) return false;
  }
  target.productCode = token;
  QOR_TRACE_STORY("Product code token in request: %s\n", target.productCode);
  return true;
}

// The matching agent is the first in list order of the product code whose
// instance name is empty or the one asked for. Requires: the list locked.
Agent* findTarget(const std::vector<Agent*>& agents, const std::wstring& code, const std::wstring& instance,
                  const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  for (Agent* agent : agents) {
    if (agent->getPolicy() == nullptr || agent->getPolicy()->getProductCode() != code) continue;
    QOR_TRACE_ERROR("Product code matches.\n");
    if (agent->getInstanceName().empty()) {
      QOR_TRACE_ERROR("No Instance name provided\n");
      return agent;
    }
    if (agent->getInstanceName() == instance) {
      QOR_TRACE_ERROR("Instance name match.\n");
      return agent;
    }
  }
  return nullptr;
}

// Steps 6 to 8: the lookup and, for a managed agent, the event. The list
// stays locked from the lookup to the event, so that the state read is the
// state the event is made for. -1 when nothing matched or the list is
// unavailable (with `empty` set for an empty list).
int queueStateCommand(Controller* controller, const StateCommand& command, const std::wstring& code,
                      const std::wstring& instance, bool& empty, const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  if (!list->lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    empty = true;
    return -1;
  }
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  std::vector<Agent*> agents = controller->getManagedEndpointProcess(0, criteria);
  empty = agents.empty();
  Agent* agent = findTarget(agents, code, instance, context);
  int result = -1;
  if (agent != nullptr && agent->getManagedState() != Managed) {
    QOR_TRACE_ERROR("Agent not managed.\n");
    result = 1;
  } else if (agent != nullptr) {
    AgentOpEvent* event = new AgentOpEvent();
    event->setAgent(agent);
    event->setActionFlag(command.action);
    event->setEventTypeID(command.event);
    event->setOpState(agent->getOperatingState());
    event->processEvent();
    result = 0;
  }
  list->unlockList();
  return result;
}

// Step 9: no agent of this process matched; the OS agent's record lives in
// the watchdog process, which recycles it whatever the state command was.
int recycleOSAgentFor(Controller* controller, const std::wstring& code, const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  bool managed = false;
  if (!controller->isOSAgentPC(code, managed)) {
    QOR_TRACE_ERROR("No agent found that matches the request.\n");
    return 202;
  }
  if (!managed) {
    QOR_TRACE_ERROR("Agent not managed.\n");
    return 1;
  }
  QOR_TRACE_ERROR("Recycle OS Agent.\n");
  const int rc = sendWDCommand("622 RECYCLE");
  QOR_TRACE_STORY("Result of command: %d, %s \n", rc, "622 RECYCLE");
  return rc != 0 ? -1 : 0;
}

// The version and the command token, common to the commands of both sockets:
// 0 with `command` set, or 110 or 100.
int readCommandHead(RequestTokens& tokens, const char* whole, const char*& command,
                    const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  const char* version = tokens.next();
  if (version == nullptr) {
    QOR_TRACE_ERROR("Incorrectly formatted request received: %s\n", whole);
    return 110;
  }
  QOR_TRACE_STORY("Version token in request: %s\n", version);
  if (strcmp(version, "622") != 0) {
    QOR_TRACE_ERROR("Unsupported version of request received: %s\n", whole);
    return 100;
  }
  command = tokens.next();
  if (command == nullptr) {
    QOR_TRACE_ERROR("Incorrectly formatted request received: %s\n", whole);
    return 110;
  }
  QOR_TRACE_STORY("Command token in request: %s\n", command);
  return 0;
}

// The version, "QUERY" and the query's name, common to the queries of both
// sockets: the name, or null when the request is wrong.
const char* readQueryHead(RequestTokens& tokens, const char* whole, const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  const char* version = tokens.next();
  if (version == nullptr) {
    QOR_TRACE_ERROR("Incorrectly formatted request received: %s\n", whole);
    return nullptr;
  }
  QOR_TRACE_STORY("Version token in request: %s\n", version);
  if (strcmp(version, "622") != 0) {
    QOR_TRACE_ERROR("Unsupported version of request received: %s\n", whole);
    return nullptr;
  }
  const char* query = tokens.next();
  if (query == nullptr) return nullptr;
  QOR_TRACE_STORY("Query token in request: %s\n", query);
  if (strcmp(query, "QUERY") != 0) {
    QOR_TRACE_ERROR("Incorrectly formatted query received: %s\n", whole);
    return nullptr;
  }
  const char* name = tokens.next();
  if (name == nullptr) return nullptr;
  QOR_TRACE_STORY("Query in request: %s\n", name);
  return name;
}

// The record answered for among `agents`: the last of them, when any of
// them is the OS agent; null otherwise.
// Kept: the walk does not stop at the OS agent's record, so the record
// answered for is the list's last; the list holds the OS agent alone in
// normal operation.
template <typename Agents>
Agent* osAgentRecordOf(Controller* controller, const Agents& agents) {
  bool found = false;
  Agent* last = nullptr;
  for (Agent* agent : agents) {
    if (agent->getPolicy() != nullptr && controller->isOSAgent(agent->getPolicy())) found = true;
    last = agent;
  }
  return found ? last : nullptr;
}

}  // namespace

int TEOSocketServer::executeCommand(char* request, Controller* controller) {
  QOR_TRACE_FUNCTION();
  const std::string whole = request;  // the traces name the request before it is cut
  RequestTokens tokens(request);
  const char* commandToken = nullptr;
  const int head = readCommandHead(tokens, whole.c_str(), commandToken, QOR_TRACE_CONTEXT());
  if (head != 0) return QOR_TRACE_RETURN(head);
  if (strcmp(commandToken, "EVENT_DATA") == 0) {
    // The watchdog process asks for its cache to be drained; it waits for this
    // answer, and its socket server, not its message handler, serves the drain.
    Message_Cache::receiveCachedEvents();
    return QOR_TRACE_RETURN(0);
  }
  const StateCommand* command = stateCommand(commandToken);
  if (command == nullptr) {
    QOR_TRACE_ERROR("Unsupported command request received: %s\n", whole.c_str());
    return QOR_TRACE_RETURN(120);
  }
  AgentTarget target;
  if (!readTarget(tokens, target, QOR_TRACE_CONTEXT())) {
    QOR_TRACE_ERROR("Incorrectly formatted request received: %s\n", whole.c_str());
    return QOR_TRACE_RETURN(110);
  }
  const std::wstring code = qor_mbstowcs(target.productCode);
  std::wstring instance = L"None";
  if (target.instance != nullptr) {
    QOR_TRACE_ERROR("Instance name requested: %s\n", target.instance);
    instance = qor_mbstowcs(target.instance);
  }
  // A code the locale cannot read widens to nothing, which would match every
  // policy without a product code: it names no agent.
  if (code.empty()) {
    QOR_TRACE_ERROR("No agent found that matches the request.\n");
    return QOR_TRACE_RETURN(202);
  }
  bool empty = false;
  const int queued = queueStateCommand(controller, *command, code, instance, empty, QOR_TRACE_CONTEXT());
  if (empty) {
    QOR_TRACE_ERROR("No agents found.\n");
    return QOR_TRACE_RETURN(200);
  }
  if (queued != -1) return QOR_TRACE_RETURN(queued);
  return QOR_TRACE_RETURN(recycleOSAgentFor(controller, code, QOR_TRACE_CONTEXT()));
}

std::string TEOSocketServer::executeQuery(char* request, Controller* controller) {
  QOR_TRACE_FUNCTION();
  const std::string whole = request;
  RequestTokens tokens(request);
  std::string answer;
  const char* query = readQueryHead(tokens, whole.c_str(), QOR_TRACE_CONTEXT());
  if (query == nullptr) return answer;
  if (strcmp(query, "OS_RESTART_COUNT") != 0) {
    QOR_TRACE_ERROR("Incorrectly formatted query received: %s\n", whole.c_str());
    return answer;
  }
  std::vector<Agent*> copies;
  controller->getWatchDogListSnapshot(&copies, false);
  if (copies.empty()) QOR_TRACE_ERROR("No os agent found.\n");
  QOR_TRACE_ERROR("watchdog list size: %d\n", static_cast<int>(copies.size()));
  Agent* record = osAgentRecordOf(controller, copies);
  if (record == nullptr) {
    QOR_TRACE_ERROR("OS Agent not found: %s\n", whole.c_str());
  } else {
    QOR_TRACE_STORY("Get daily restart %d and last check date", record->getDailyRestartCount());
    answer = std::to_string(record->getDailyRestartCount()) + "|";
    QOR_TRACE_STORY("Answer returned: %s\n", answer.c_str());
  }
  // The copies are this call's own; nothing else would free them.
  for (Agent* copy : copies) delete copy;
  return answer;
}

// ---- .teo_wd_sock -----------------------------------------------------------------------

namespace {

// What a command of .teo_wd_sock needs of the OS agent's record, copied with
// the list locked: the command itself runs without the lock.
struct OSAgentTarget {
  std::wstring name;
  std::wstring instanceProcName;
  std::wstring instanceName;
  int procID = 0;
};

// 0 with `target` filled, or 202 when the list is empty or has no OS agent.
int findOSAgentTarget(Controller* controller, const char* whole, OSAgentTarget& target,
                      const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  if (!list->lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return 202;
  }
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  std::vector<Agent*> agents = controller->getManagedEndpointProcess(0, criteria);
  int result = 202;
  if (agents.empty()) {
    QOR_TRACE_ERROR("No agents found.\n");
  } else {
    QOR_TRACE_ERROR("agent list size: %d\n", static_cast<int>(agents.size()));
    Agent* record = osAgentRecordOf(controller, agents);
    if (record == nullptr) {
      QOR_TRACE_ERROR("OS Agent not found: %s\n", whole);
    } else {
      target.name = record->getName();
      target.instanceProcName = record->getInstanceProcName();
      target.instanceName = record->getInstanceName();
      target.procID = record->getProcID();
      result = 0;
    }
  }
  list->unlockList();
  return result;
}

// The answer to HEALTH_INFO: the OS agent's daily restart count, "|", and the
// date of its last check when one is recorded; empty without an OS agent.
std::string healthInfo(Controller* controller, const char* whole, const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  ManagedProcessList* list = controller->getManagedEndpointProcesses();
  if (!list->lockList()) {
    QOR_TRACE_ERROR("Error obtaining lock on managedEndpointProcesses.");
    return std::string();
  }
  std::wstring criteria[Controller::MATCH_CRITERIA_COUNT];
  std::vector<Agent*> agents = controller->getManagedEndpointProcess(0, criteria);
  std::string answer;
  Agent* record = nullptr;
  if (agents.empty()) {
    QOR_TRACE_ERROR("No agents found.\n");
  } else {
    QOR_TRACE_ERROR("agent list size: %d\n", static_cast<int>(agents.size()));
    record = osAgentRecordOf(controller, agents);
    if (record == nullptr) QOR_TRACE_ERROR("OS Agent not found: %s\n", whole);
  }
  if (record != nullptr) {
    QOR_TRACE_STORY("Get daily restart %d and last check date", record->getDailyRestartCount());
    std::string date;
    time_t checked = 0;
    if (record->getLastChecked(checked)) {
      date = formatWireDate(checked);
      QOR_TRACE_STORY("check date to return: %d, %s\n", static_cast<int>(checked), date.c_str());
    }
    answer = std::to_string(record->getDailyRestartCount()) + "|" + date;
    QOR_TRACE_STORY("Answer returned: %s\n", answer.c_str());
  }
  list->unlockList();
  return answer;
}

}  // namespace

int WatchdogSocketServer::executeCommand(char* request, Controller* controller) {
  QOR_TRACE_FUNCTION();
  const std::string whole = request;
  RequestTokens tokens(request);
  const char* command = nullptr;
  const int head = readCommandHead(tokens, whole.c_str(), command, QOR_TRACE_CONTEXT());
  if (head != 0) return QOR_TRACE_RETURN(head);
  const bool reset = strcmp(command, "RESET_COUNT") == 0;
  if (!reset && strcmp(command, "RECYCLE") != 0) {
    QOR_TRACE_ERROR("Unsupported command request received: %s\n", whole.c_str());
    return QOR_TRACE_RETURN(120);
  }
  OSAgentTarget target;
  const int found = findOSAgentTarget(controller, whole.c_str(), target, QOR_TRACE_CONTEXT());
  if (found != 0) return QOR_TRACE_RETURN(found);
  if (reset) {
    return QOR_TRACE_RETURN(
        controller->resetAgentRestartCount(target.name, target.instanceProcName, target.instanceName));
  }
  return QOR_TRACE_RETURN(
      controller->recycleAgent(target.name, target.instanceProcName, target.instanceName, target.procID));
}

std::string WatchdogSocketServer::executeQuery(char* request, Controller* controller) {
  QOR_TRACE_FUNCTION();
  const std::string whole = request;
  RequestTokens tokens(request);
  const char* query = readQueryHead(tokens, whole.c_str(), QOR_TRACE_CONTEXT());
  if (query == nullptr) return std::string();
  if (strcmp(query, "EVENT_DATA") == 0) {
    // A missing cache answers as an empty one; the pop leaves the answer as
    // it was when nothing is cached.
    std::string answer = "$$NODATA";
    // An event still held here was answered without a send (a call outside
    // the server loop): it counts as delivered.
    delete handedOver;
    handedOver = nullptr;
    Message_Cache* cache = controller->getWDCache();
    // The event stays this server's until the send says whether the peer got
    // it: a collector killed while it waited must not cost the event.
    if (cache != nullptr) handedOver = cache->takeCachedEvent(answer);
    QOR_TRACE_STORY("Answer returned: %s\n", answer.c_str());
    return answer;
  }
  if (strcmp(query, "HEALTH_INFO") != 0) {
    QOR_TRACE_ERROR("Incorrectly formatted query received: %s\n", whole.c_str());
    return std::string();
  }
  return healthInfo(controller, whole.c_str(), QOR_TRACE_CONTEXT());
}

void WatchdogSocketServer::answerSent(bool written) {
  QOR_TRACE_FUNCTION();
  Event* event = handedOver;
  handedOver = nullptr;
  if (event == nullptr) return;
  Message_Cache* cache = written ? nullptr : Controller::getController()->getWDCache();
  if (cache == nullptr) {
    delete event;  // delivered, or no cache any more to keep it
    return;
  }
  cache->putBackCachedEvent(event);
}

// ---- The wire format ----------------------------------------------------------------

bool fitSocketAnswer(std::string& answer, size_t limit) {
  if (answer.size() <= limit) return false;
  const size_t bar = limit == 0 ? std::string::npos : answer.rfind('|', limit - 1);
  if (bar == std::string::npos) {
    answer.clear();
  } else {
    answer.resize(bar + 1);
  }
  return true;
}

std::string formatWireDate(time_t when) {
  struct tm local;
  memset(&local, 0, sizeof local);
  localtime_r(&when, &local);
  char text[96];
  snprintf(text, sizeof text, "%d %d %d %d %d %d %d", local.tm_mday, local.tm_mon, local.tm_year,
           local.tm_hour, local.tm_min, local.tm_sec, local.tm_isdst);
  return text;
}

int readWireDate(const char* text, struct tm& date) {
  memset(&date, 0, sizeof date);
  return sscanf(text, "%d %d %d %d %d %d %d", &date.tm_mday, &date.tm_mon, &date.tm_year, &date.tm_hour,
                &date.tm_min, &date.tm_sec, &date.tm_isdst);
}

namespace {

// A text field: narrow, and one blank for an empty text, since the reader's
// tokeniser would lose an empty field.
std::string textField(const std::wstring& text) {
  std::string narrow = qor_narrow(text);
  return narrow.empty() ? std::string(" ") : narrow;
}

// The longest beginning of `text`, in whole characters, whose narrow form
// has at most `budget` bytes. A longer beginning never narrows to fewer bytes.
std::wstring shortened(const std::wstring& text, size_t budget) {
  size_t fits = 0;
  size_t tooLong = text.size() + 1;
  while (fits + 1 < tooLong) {
    const size_t middle = fits + (tooLong - fits) / 2;
    if (qor_narrow(text.substr(0, middle)).size() <= budget) {
      fits = middle;
    } else {
      tooLong = middle;
    }
  }
  return text.substr(0, fits);
}

// What a field of `bytes` may keep when the record is `over` too long; at
// least the one byte of its blank.
size_t fieldBudget(size_t bytes, size_t over) { return bytes > over + 1 ? bytes - over : 1; }

std::string joinRecord(const EventData& data, const std::wstring& userMessage,
                       const std::wstring& logMessage) {
  const std::string fields[] = {
      formatWireDate(data.eventTime),
      textField(data.agentName),
      std::to_string(data.operatingState),
      std::to_string(data.managedState),
      textField(data.instanceProcName),
      std::to_string(data.agentType),
      std::to_string(data.osType),
      textField(data.osVersion),
      std::to_string(data.procID),
      std::to_string(data.spareValue),
      std::to_string(data.eventID),
      textField(userMessage),
      textField(logMessage),
  };
  static_assert(sizeof fields / sizeof fields[0] == 13, "an event record has thirteen fields");
  std::string record;
  for (const std::string& field : fields) record += field + "|";
  return record;
}

}  // namespace

std::string formatEventRecord(const EventData& data, const std::wstring& logMessage, size_t limit) {
  std::string record = joinRecord(data, data.userMessage, logMessage);
  if (record.size() <= limit) return record;
  // The messages are the long fields; the log message, which repeats the
  // user message, goes first. Each keeps at least its one blank.
  const size_t logBytes = textField(logMessage).size();
  const size_t over = record.size() - limit;
  const std::wstring log = shortened(logMessage, fieldBudget(logBytes, over));
  record = joinRecord(data, data.userMessage, log);
  if (record.size() <= limit) return record;
  const size_t userBytes = textField(data.userMessage).size();
  const size_t stillOver = record.size() - limit;
  const std::wstring user = shortened(data.userMessage, fieldBudget(userBytes, stillOver));
  record = joinRecord(data, user, log);
  // Only the other fields are left, and together they cannot be that long;
  // should they be, the answer's own guard cuts whole fields.
  return record;
}
