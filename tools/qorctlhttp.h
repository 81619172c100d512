// qorctl's client of qorhost's control socket: HTTP/1.1 over a local socket,
// found by --socket or $QOR_IP_DIR/qorhost.sock, and, when qorhost cannot be
// reached, one sentence that says why and what to do. Used by qorctl's
// status, show, events and agent commands on its one thread.
#ifndef QOR_TOOLS_QORCTLHTTP_H
#define QOR_TOOLS_QORCTLHTTP_H

#include <string>

namespace qorctlhttp {

// Connects to `path` once, as a probe: empty when a connection was made,
// else one sentence saying why none could be and what to do about it
// (permission, no socket file, nobody accepting, not a socket, a path too
// long for a socket address).
std::string unreachable(const std::string& path);

struct Reply {
  int status = 0;  // the HTTP status
  std::string body;
};

class Client {
 public:
  explicit Client(std::string path) : path_(std::move(path)) {}

  // One request; false, with error() saying why, when no answer came.
  bool get(const std::string& target, Reply& reply) { return request("GET", target, reply); }
  bool post(const std::string& target, Reply& reply) { return request("POST", target, reply); }
  const std::string& error() const { return error_; }

 private:
  bool request(const char* method, const std::string& target, Reply& reply);

  std::string path_;
  std::string error_;
};

}  // namespace qorctlhttp

#endif  // QOR_TOOLS_QORCTLHTTP_H
