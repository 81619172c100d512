#include "qorctlhttp.h"

#include <httplib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace qorctlhttp {

namespace {

// qorhost answers from memory; a status or a command that takes longer than
// this means it is stuck, and the operator should hear so rather than wait.
constexpr int kTimeoutSeconds = 10;

// Why connect() failed on `path`, as a sentence that says what to do.
std::string connectFailure(const std::string& path, int error) {
  switch (error) {
    case EACCES:
    case EPERM:
      return "qorctl: permission denied on " + path +
             ": run qorctl as the service's user or a member of its group";
    case ENOENT:
      return "qorctl: there is no socket " + path + ": is qorhost running? start it, or give --socket";
    case ECONNREFUSED:
      return "qorctl: nobody accepts connections on " + path +
             ": qorhost is not answering on it; a stale socket: restart qorhost";
    case ENOTDIR:
      return "qorctl: a part of " + path + " is not a directory: give --socket the path of qorhost's socket";
    default:
      return "qorctl: cannot connect to " + path + " (" + std::strerror(error) +
             "): is qorhost running? start it, or give --socket";
  }
}

}  // namespace

std::string unreachable(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return "qorctl: the socket path " + path + " is longer than a socket address holds (" +
           std::to_string(sizeof address.sun_path - 1) + " bytes): give a shorter --socket";
  }
  // A regular file in the socket's place would be refused by connect() like
  // a stale socket; it is no socket at all, so it is told apart.
  struct stat status;
  if (stat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
    return "qorctl: " + path + " is not a socket: give --socket the path of qorhost's control socket";
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::string("qorctl: no socket can be made: ") + std::strerror(errno);
  const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int error = errno;
  close(fd);
  return result == 0 ? std::string() : connectFailure(path, error);
}

bool Client::request(const char* method, const std::string& target, Reply& reply) {
  error_ = unreachable(path_);
  if (!error_.empty()) return false;
  httplib::Client client(path_, 80);
  client.set_address_family(AF_UNIX);
  client.set_connection_timeout(kTimeoutSeconds, 0);
  client.set_read_timeout(kTimeoutSeconds, 0);
  client.set_write_timeout(kTimeoutSeconds, 0);
  // The caller encodes the names in the path itself.
  client.set_url_encode(false);
  // The path of a socket is no host name.
  client.set_default_headers({{"Host", "localhost"}});
  httplib::Result result =
      std::strcmp(method, "POST") == 0 ? client.Post(target.c_str()) : client.Get(target.c_str());
  if (!result) {
    error_ = "qorctl: qorhost gave no answer on " + path_ + " (" + httplib::to_string(result.error()) +
             "): try again; if it goes on, restart qorhost";
    return false;
  }
  reply.status = result->status;
  reply.body = result->body;
  return true;
}

}  // namespace qorctlhttp
