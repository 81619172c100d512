#include "qorcontrol.h"

#include <errno.h>
#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "qorapi.h"
#include "qorcommands.h"
#include "qorpage.h"
#include "qorview.h"

namespace qorcontrol {

namespace {

using json = nlohmann::ordered_json;

// Enough workers that a few slow clients leave room for the others; each
// idle or slow connection holds one until a time-out ends it.
constexpr size_t kWorkers = 16;
// A client that says nothing for this long is dropped.
constexpr time_t kReadTimeoutSeconds = 3;
constexpr time_t kWriteTimeoutSeconds = 3;
constexpr time_t kKeepAliveSeconds = 2;
constexpr size_t kKeepAliveRequests = 20;
// No route takes a body; a small one is tolerated, a large one refused (413).
constexpr size_t kPayloadLimit = 4096;
// The longest path of a request with a body that is matched against the
// library's routes.
constexpr size_t kRoutedPathLimit = 1024;
// Connections waiting to be accepted; more are refused at once.
constexpr int kBacklog = 1024;
// Request headers are limited by the library to 8 KB (its
// CPPHTTPLIB_HEADER_MAX_LENGTH, fixed when it was built): a longer line ends
// the connection.

const char kJson[] = "application/json; charset=utf-8";
const char kMetrics[] = "text/plain; version=0.0.4";

// The commands the endpoint takes; the others of the table (disarm, rearm,
// list, help) belong to qorhost's standard input.
const char* const kCommandWords[] = {"stop", "start", "recycle", "reset", "manage", "unmanage"};

std::string dumpJson(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

void reply(httplib::Response& res, int status, const json& body) {
  res.status = status;
  res.set_content(dumpJson(body) + "\n", kJson);
}

void fail(httplib::Response& res, int status, const std::string& sentence) {
  reply(res, status, json{{"error", sentence}});
}

// Whether `text` is well-formed UTF-8 without NUL: the only names the
// iterator can hold.
bool isCleanUtf8(const std::string& text) {
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == 0) return false;
    size_t extra = 0;
    uint32_t point = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1, point = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2, point = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3, point = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= text.size()) return false;
    for (size_t k = 1; k <= extra; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      point = (point << 6) | (next & 0x3F);
    }
    static const uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    if (point < kSmallest[extra] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

bool isCommandWord(const std::string& word) {
  for (const char* known : kCommandWords) {
    if (word == known) return true;
  }
  return false;
}

std::string commandList() {
  std::string list;
  for (const char* word : kCommandWords) list += (list.empty() ? "" : ", ") + std::string(word);
  return list;
}

void notStarted(httplib::Response& res) { fail(res, 503, "the service is not running"); }

void methodNotAllowed(httplib::Response& res, const char* allowed) {
  res.set_header("Allow", allowed);
  fail(res, 405, std::string("this resource takes ") + allowed + " only");
}

// A name taken from a path: whether it may be looked up; answers 400 if not.
bool acceptName(const std::string& name, httplib::Response& res) {
  if (name.empty()) {
    fail(res, 400, "the path names no agent");
    return false;
  }
  if (!isCleanUtf8(name)) {
    fail(res, 400, "an agent's name is UTF-8 text without NUL bytes");
    return false;
  }
  return true;
}

void listAgents(QOR_QueryService& service, httplib::Response& res) {
  json agents;
  if (!qorview::allAgents(service, agents)) return notStarted(res);
  reply(res, 200, json{{"agents", std::move(agents)}});
}

void showAgent(QOR_QueryService& service, const std::string& name, httplib::Response& res) {
  if (!acceptName(name, res)) return;
  json agent;
  if (!qorview::agentNamed(service, name, agent)) {
    if (!QOR_QueryService::isStarted()) return notStarted(res);
    return fail(res, 404, "no agent named " + name);
  }
  reply(res, 200, agent);
}

void runCommand(QOR_QueryService& service, const std::string& name, const std::string& word,
                httplib::Response& res) {
  if (!acceptName(name, res)) return;
  const qorcmd::Command* command = qorcmd::find(word);
  if (command == nullptr) return fail(res, 500, "the command table lacks " + word);
  const int code = qorcmd::run(service, *command, name);
  reply(
      res, 200,
      json{{"agent", name}, {"command", word}, {"code", code}, {"meaning", qorcmd::meaning(*command, code)}});
}

// A whole number of at most 19 digits, so that it fits.
bool parseSince(const std::string& text, uint64_t& since) {
  if (text.empty() || text.size() > 19) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  since = std::strtoull(text.c_str(), nullptr, 10);
  return true;
}

void listEvents(const qorring::EventRing& ring, const httplib::Request& req, httplib::Response& res) {
  uint64_t since = 0;
  if (req.has_param("since") && !parseSince(req.get_param_value("since"), since))
    return fail(res, 400, "since must be a whole number: the seq of the last event already seen");
  const qorring::EventRing::Slice slice = ring.since(since);
  json events = json::array();
  for (const qorring::HeardEvent& e : slice.events) {
    events.push_back(json{{"seq", e.seq},
                          {"time", static_cast<long long>(e.time)},
                          {"id", e.id},
                          {"agent", e.agent},
                          {"text", e.text},
                          {"alert", e.alert}});
  }
  reply(res, 200, json{{"events", std::move(events)}, {"last", slice.last}});
}

void metrics(QOR_QueryService& service, const qorring::EventRing& ring, httplib::Response& res) {
  std::string text;
  if (!qorview::metricsText(service, ring, text)) return notStarted(res);
  res.status = 200;
  res.set_content(text, kMetrics);
}

struct Context {
  QOR_QueryService& service;
  const qorring::EventRing& ring;
  bool commands;
};

// /v1/agents/REST: REST is NAME, or NAME/COMMAND for the commands. A name may
// itself hold a slash (sent as %2F), so only a known command word at the end
// makes the last part a command.
void agentRoute(const Context& c, const std::string& rest, bool post, httplib::Response& res) {
  const size_t slash = rest.rfind('/');
  const std::string tail = slash == std::string::npos ? std::string() : rest.substr(slash + 1);
  if (slash != std::string::npos && isCommandWord(tail)) {
    if (!post) return methodNotAllowed(res, "POST");
    return runCommand(c.service, rest.substr(0, slash), tail, res);
  }
  if (!post) return showAgent(c.service, rest, res);
  if (slash == std::string::npos) return methodNotAllowed(res, "GET");
  fail(res, 404, "no command named " + tail + "; one of " + commandList());
}

void routeRequest(const Context& c, const httplib::Request& req, httplib::Response& res) {
  if (req.version != "HTTP/1.1" && req.version != "HTTP/1.0")
    return fail(res, 400, "only HTTP/1.1 and HTTP/1.0 are spoken here");
  const std::string length = req.get_header_value("Content-Length");
  if (req.has_header("Content-Length") &&
      (length.empty() || length.find_first_not_of("0123456789") != std::string::npos))
    return fail(res, 400, "Content-Length must be a whole number");
  const bool get = req.method == "GET" || req.method == "HEAD";
  const bool post = req.method == "POST";
  if (post && !c.commands) return fail(res, 403, "commands are only taken on the unix socket");
  if (!get && !post) return methodNotAllowed(res, c.commands ? "GET, POST" : "GET");
  const std::string& path = req.path;
  static const std::string kAgent = "/v1/agents/";
  if (path == "/")
    return get ? res.set_content(qorpage::html(), qorpage::kContentType) : methodNotAllowed(res, "GET");
  if (path == "/v1/agents") return get ? listAgents(c.service, res) : methodNotAllowed(res, "GET");
  if (path.compare(0, kAgent.size(), kAgent) == 0)
    return agentRoute(c, path.substr(kAgent.size()), post, res);
  if (path == "/v1/events") return get ? listEvents(c.ring, req, res) : methodNotAllowed(res, "GET");
  if (path == "/metrics") return get ? metrics(c.service, c.ring, res) : methodNotAllowed(res, "GET");
  // Each route is one line above.
  fail(res, 404, "nothing is served at " + path);
}

// Errors the library answers by itself (a malformed request, a body too
// large) get a JSON sentence too.
httplib::Server::HandlerResponse describeError(const httplib::Request&, httplib::Response& res) {
  if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
  switch (res.status) {
    case 400:
      fail(res, 400, "the request is not valid HTTP/1.1");
      break;
    case 413:
      fail(res, 413, "the request's body is too large; no route takes one");
      break;
    case 414:
      fail(res, 414, "the request's path is too long");
      break;
    default:
      fail(res, res.status, "the request could not be served");
      break;
  }
  return httplib::Server::HandlerResponse::Handled;
}

// The workers of an endpoint. Newest connection first: a crowd of idle
// connections (each holds a worker until the keep-alive time-out ends it)
// then delays a new client by one time-out at most, instead of by the whole
// crowd. The connections left when the server stops are still handed out,
// so that each is closed; the library ends them at once by then.
class NewestFirst : public httplib::TaskQueue {
 public:
  explicit NewestFirst(size_t workers) {
    for (size_t i = 0; i < workers; ++i) threads_.emplace_back([this] { work(); });
  }
  void enqueue(std::function<void()> job) override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
  }
  void shutdown() override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      stopping_ = true;
    }
    ready_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

 private:
  void work() {
    for (;;) {
      std::function<void()> job;
      {
        std::unique_lock<std::mutex> hold(mutex_);
        ready_.wait(hold, [this] { return stopping_ || !jobs_.empty(); });
        if (jobs_.empty()) return;
        job = std::move(jobs_.back());
        jobs_.pop_back();
      }
      job();
    }
  }

  std::vector<std::thread> threads_;
  std::deque<std::function<void()>> jobs_;
  std::mutex mutex_;
  std::condition_variable ready_;
  bool stopping_ = false;
};

// The path of a socket file: whether another process answers on it.
bool answers(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

}  // namespace

Endpoint::Endpoint(const qorring::EventRing& ring, bool commands)
    : ring_(ring), commands_(commands), server_(new httplib::Server) {
  configure();
}

Endpoint::~Endpoint() { stop(); }

void Endpoint::configure() {
  httplib::Server& server = *server_;
  server.new_task_queue = [] { return new NewestFirst(kWorkers); };
  server.set_read_timeout(kReadTimeoutSeconds, 0);
  server.set_write_timeout(kWriteTimeoutSeconds, 0);
  server.set_keep_alive_timeout(kKeepAliveSeconds);
  server.set_keep_alive_max_count(kKeepAliveRequests);
  server.set_payload_max_length(kPayloadLimit);
  // The library listens with a backlog of 5, too few for a burst of
  // clients: the listening socket is noted here and its backlog raised once
  // bound. SO_REUSEADDR lets a restarted qorhost take its TCP port at once.
  server.set_socket_options([this](int fd) {
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    listening_ = fd;
  });
  // One handler for every path and method: the routes below tell 404 from
  // 405 themselves. Registered as routes rather than before routing, so that
  // the library reads (and limits) a body before the handler runs and a
  // kept-alive connection never takes a body's bytes for the next request.
  const auto handler = [this](const httplib::Request& req, httplib::Response& res) { route(req, res); };
  // The library refuses a POST that announces no body at all, which is how
  // `curl -X POST` sends a command: a request without a body is answered
  // before the library looks for one.
  server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    if (!req.has_header("Content-Length") && !req.has_header("Transfer-Encoding")) {
      route(req, res);
    } else if (req.path.size() > kRoutedPathLimit) {
      // The library matches routes with std::regex, whose matcher recurses
      // once per character: a long path could exhaust a worker's stack.
      res.set_header("Connection", "close");
      fail(res, 414, "the request's path is too long");
    } else {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    return httplib::Server::HandlerResponse::Handled;
  });
  server.Get(".*", handler);
  server.Post(".*", handler);
  server.Put(".*", handler);
  server.Patch(".*", handler);
  server.Delete(".*", handler);
  server.Options(".*", handler);
  server.set_error_handler(httplib::Server::HandlerWithResponse(describeError));
  server.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
    fail(res, 500, "the request failed inside qorhost");
  });
}

bool Endpoint::bindUnix(const std::string& path, std::string& error) {
  if (path.empty() || path.size() >= sizeof(sockaddr_un{}.sun_path)) {
    error = "the control socket path '" + path + "' is empty or longer than " +
            std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + " bytes; give a shorter --control-socket";
    return false;
  }
  struct stat status;
  if (lstat(path.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode)) {
      error = path + " exists and is not a socket; remove it or give --control-socket another path";
      return false;
    }
    if (answers(path)) {
      error = "another qorhost already answers on " + path +
              "; stop it first, or give this one --control-socket another path";
      return false;
    }
    // Left by a qorhost that is gone.
    unlink(path.c_str());
  }
  server_->set_address_family(AF_UNIX);
  socketPath_ = path;
  if (!bindAgain()) {
    error = "cannot create the control socket " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool Endpoint::bindAgain() {
  bool done = false;
  if (!socketPath_.empty()) {
    unlink(socketPath_.c_str());
    // Owner and group only: the socket takes commands.
    const mode_t previous = umask(007);
    done = server_->bind_to_port(socketPath_, 80);
    const int bindErrno = errno;
    umask(previous);
    errno = bindErrno;
  } else {
    done = server_->bind_to_port(tcpHost_, tcpPort_);
  }
  bound_ = done;
  if (done) widenBacklog();
  return done;
}

bool Endpoint::bindTcp(const std::string& address, std::string& error, std::string& bound) {
  const size_t colon = address.rfind(':');
  std::string host = colon == std::string::npos ? std::string() : address.substr(0, colon);
  const std::string portText = colon == std::string::npos ? std::string() : address.substr(colon + 1);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  char* end = nullptr;
  const long port = std::strtol(portText.c_str(), &end, 10);
  if (host.empty() || portText.empty() || *end != '\0' || port < 0 || port > 65535) {
    error = "--http takes ADDR:PORT, e.g. 127.0.0.1:9464, not '" + address + "'";
    return false;
  }
  const int taken =
      port == 0 ? server_->bind_to_any_port(host) : (server_->bind_to_port(host, port) ? port : -1);
  if (taken < 0) {
    error = "cannot listen on " + address + ": " + std::strerror(errno);
    return false;
  }
  tcpHost_ = host;
  tcpPort_ = taken;
  widenBacklog();
  bound = (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(taken);
  bound_ = true;
  return true;
}

void Endpoint::widenBacklog() {
  if (listening_ >= 0) ::listen(listening_, kBacklog);
}

void Endpoint::route(const httplib::Request& req, httplib::Response& res) {
  // Set before the serving thread starts, and never again.
  routeRequest(Context{*service_, ring_, commands_}, req, res);
}

void Endpoint::start(QOR_QueryService& service) {
  if (!bound_ || thread_.joinable()) return;
  service_ = &service;
  thread_ = std::thread([this] {
    // A client gone before its answer must not end qorhost: the write fails
    // with EPIPE instead. The workers, started from this thread, inherit it.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    serve();
    served_ = true;
  });
}

// The library gives up listening for good when an accept fails for another
// reason than a lack of descriptors; the endpoint must outlive such a burst,
// so it is opened again.
void Endpoint::serve() {
  while (!stopping_) {
    server_->listen_after_bind();
    if (stopping_) return;
    const std::string what =
        socketPath_.empty() ? "read-only HTTP listener" : "control socket " + socketPath_;
    std::fprintf(stderr, "qorhost: the %s stopped taking connections; it is opened again\n", what.c_str());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (stopping_) return;
    if (!bindAgain()) {
      std::fprintf(stderr, "qorhost: the %s cannot be opened again: %s\n", what.c_str(),
                   std::strerror(errno));
      return;
    }
  }
}

void Endpoint::stop() {
  if (thread_.joinable()) {
    stopping_ = true;
    // A stop before the serving thread listens, or while it opens the socket
    // again, would be lost: it is repeated until the thread has ended.
    while (!served_) {
      server_->stop();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    thread_.join();
  }
  if (bound_ && !socketPath_.empty()) unlink(socketPath_.c_str());
  bound_ = false;
}

}  // namespace qorcontrol
