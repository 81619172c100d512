// The socket servers of the two processes and the wire format they share: the
// embedded service serves $QOR_IP_DIR/.teo_sock, the watchdog process
// $QOR_IP_DIR/.teo_wd_sock. Each runs on one thread started by the Controller,
// serves one connection at a time and looks at isShuttingDown between them.
// The record and date writers are safe from any thread.
#ifndef QOR_INTERFACES_QORSOCKSERV_H
#define QOR_INTERFACES_QORSOCKSERV_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

class Controller;
class Event;
struct EventData;

// Results of SocketServer::run. The server is gone after any of them until
// the process starts again.
enum SocketServerResult : int {
  SOCKET_SERVER_NO_IP_DIR = 500,     // QOR_IP_DIR unset or empty
  SOCKET_SERVER_NO_SOCKET = 22,      // socket() failed
  SOCKET_SERVER_NO_BIND = 33,        // bind() failed, or the path is refused (too long, unsafe directory)
  SOCKET_SERVER_NO_LISTEN = 44,      // listen() failed
  SOCKET_SERVER_ACCEPT_FAILED = 55,  // accept() failed with anything but EINTR
  SOCKET_SERVER_SHUT_DOWN = 999,     // shutdown seen between connections
};

// The limits of one exchange: a request is what one read of at most 1023
// bytes returns; an answer is at most 3000 bytes, all that the client reads.
constexpr size_t kSocketRequestLimit = 1023;
constexpr size_t kSocketAnswerLimit = 3000;

// How long the server waits for the request of a connected client before it
// closes the connection, in milliseconds: 5000. Without it one silent client
// would hold the only server thread for good. Read when a client connects.
extern int32_t SOCKET_RECEIVE_TIMEOUT_MS;

// How often a server with no client looks whether its socket file is still
// there, in milliseconds: 1000. A file removed behind its back is bound
// again, so that clients find the server without a restart of the process.
extern int32_t SOCKET_FILE_CHECK_MS;

// The blank-separated tokens of a request, cut in place: runs of blanks are
// one separator and leading blanks are skipped. Each reader keeps its own
// position, so readers on several threads never disturb each other. The event
// record's fields are cut the same way, at "|".
class RequestTokens {
 public:
  explicit RequestTokens(char* request, char separator = ' ') : next_(request), separator_(separator) {}
  // The next token, zero-terminated inside the request, or null at the end.
  char* next();

 private:
  char* next_;
  char separator_;
};

class SocketServer {
 public:
  virtual ~SocketServer();
  // A request without "QUERY" in it: its return code, sent as "%d".
  virtual int executeCommand(char* request, Controller* controller) = 0;
  // A request with "QUERY" in it: the answer, which may be empty.
  virtual std::string executeQuery(char* request, Controller* controller) = 0;

  // The server loop: binds the socket file, then serves one connection after
  // the other until shutdown or a failure. Returns a SocketServerResult.
  int run(Controller* controller);

  const std::string& getSocketPath() const { return socketPath; }

 protected:
  // The socket file: $QOR_IP_DIR followed by `tail`; left empty, with the
  // error trace, when QOR_IP_DIR is unset or empty.
  explicit SocketServer(const char* tail);
  // Told after each answer whether it was written to the peer; false when the
  // peer was gone before it could be. Nothing to do by default.
  virtual void answerSent(bool /*written*/) {}
  std::string socketPath;

 private:
  // Steps of run: the refusals of an unsafe path, the listening socket
  // (-1 and `result` set on failure), and one connection.
  int refusePath();
  int listenOn(int& result);
  void serveConnection(int connection, Controller* controller);
  // The next connection, as accept gives it; looks after the socket file
  // while no client comes. `listener` is replaced when the file is bound again.
  int acceptNext(int& listener, Controller* controller);
  void keepSocketFile(int& listener);
  // A listening socket bound to the missing file, or -1.
  int bindAgain();

  // Set once a missing file has been reported, until it is there again, so
  // that a directory that is gone for good is not reported every second.
  bool missingReported = false;
};

// .teo_sock: state reports and recycles from programs outside the service,
// the restart count for the watchdog process, and the signal to collect the
// events the watchdog process cached.
class TEOSocketServer : public SocketServer {
 public:
  TEOSocketServer();
  int executeCommand(char* request, Controller* controller) override;
  std::string executeQuery(char* request, Controller* controller) override;
};

// .teo_wd_sock: the embedded service's recycle and reset of the OS agent, its
// health and the events cached while the OS agent was down.
class WatchdogSocketServer : public SocketServer {
 public:
  WatchdogSocketServer();
  ~WatchdogSocketServer() override;
  int executeCommand(char* request, Controller* controller) override;
  std::string executeQuery(char* request, Controller* controller) override;

 protected:
  // A cached event whose record could not be written goes back to the cache.
  void answerSent(bool written) override;

 private:
  // The event whose record is the answer being sent, until the send tells
  // whether it reached the peer. Only the server's thread touches it.
  Event* handedOver = nullptr;
};

// Thread entries: each builds its server, runs it and drops its result. The
// argument is unused.
void* TEOSocketSrvThreadEntry(void* unused);
void* WatchdogSocketSrvThreadEntry(void* unused);

// An answer longer than the limit, made to fit: cut behind the last "|" that
// fits, so that a record loses whole fields only; emptied when it has none.
// True when it was changed.
bool fitSocketAnswer(std::string& answer, size_t limit = kSocketAnswerLimit);

// The date form of the wire: the localtime fields mday, mon, year, hour, min,
// sec and isdst, as "%d %d %d %d %d %d %d", raw (month from 0, year from 1900).
std::string formatWireDate(time_t when);
// Its reverse: the seven fields into `date`, zeroed first; how many of them
// the text held.
int readWireDate(const char* text, struct tm& date);

// One event record: thirteen fields each followed by "|", texts in the
// locale's narrow form and an empty text as one blank. When the record would
// be longer than `limit`, the log message and then the user message are
// shortened (by whole characters) until it fits, so that every field arrives.
std::string formatEventRecord(const EventData& data, const std::wstring& logMessage,
                              size_t limit = kSocketAnswerLimit);

#endif  // QOR_INTERFACES_QORSOCKSERV_H
