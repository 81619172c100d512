// qorhost's control endpoint: HTTP/1.1 on a unix socket (commands included)
// and, when asked, read-only on TCP. Runs on its own workers and reaches the
// service only through qorapi.h's iterator and commands, so no client can
// hold up supervision. Used by qorhost's main thread: bind, start, stop.
#ifndef QOR_TOOLS_QORCONTROL_H
#define QOR_TOOLS_QORCONTROL_H

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "qoreventring.h"

class QOR_QueryService;

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace qorcontrol {

// One listener: the unix socket or the TCP address.
class Endpoint {
 public:
  Endpoint(const qorring::EventRing& ring, bool commands);
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // Binds the unix socket `path` with mode srwxrwx---. A socket file left by
  // a process that is gone is replaced; false, with one sentence in `error`,
  // when another process answers on it, the path is too long, or the bind
  // fails.
  bool bindUnix(const std::string& path, std::string& error);
  // Binds "ADDR:PORT" ("[ADDR]:PORT" for IPv6; PORT 0 takes a free one);
  // false with one sentence in `error`. `bound` gets the address with the
  // port taken.
  bool bindTcp(const std::string& address, std::string& error, std::string& bound);
  // Serves on a thread of its own from now on, answering from `service`.
  // Binding comes first so that qorhost can give up before the service
  // exists.
  void start(QOR_QueryService& service);
  // Stops serving, waits for the workers, and removes the socket file.
  void stop();

 private:
  void configure();
  void serve();
  // Binds the socket path, or the TCP address, of the first bind once more.
  bool bindAgain();
  void widenBacklog();
  void route(const httplib::Request& req, httplib::Response& res);

  QOR_QueryService* service_ = nullptr;
  const qorring::EventRing& ring_;
  const bool commands_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::string socketPath_;
  bool bound_ = false;
  int listening_ = -1;  // the listening socket, once bound
  std::string tcpHost_;
  int tcpPort_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> served_{false};  // the serving thread has ended
};

}  // namespace qorcontrol

#endif  // QOR_TOOLS_QORCONTROL_H
