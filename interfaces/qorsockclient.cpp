// The socket client: one connection for each request, one send, and an answer
// awaited in cycles against a deadline, so that a peer that is down or busy
// costs the caller a bounded wait and a quick one costs no more than it takes.
#include "interfaces/qorsockclient.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/qordeadline.h"
#include "core/qorutil.h"
#include "platform/log1.h"
#include "platform/osv1.h"

QOR_TRACE_UNIT();

int32_t SOCKET_ANSWER_CYCLES = 60;
int32_t SOCKET_ANSWER_CYCLE_MS = 1000;

std::string socketErrorText(int error) {
  char buffer[128];
  // The GNU form: the text may be a static one rather than the buffer.
  return strerror_r(error, buffer, sizeof buffer);
}

namespace {

// The client's answer buffer: all of an answer that the client ever sees.
constexpr size_t kAnswerBufferSize = 3000;

int answerCycleMs() {
  int fromEnvironment = 0;
  if (QOR_GetEnvironmentAsInt("QOR_SOCKET_ANSWER_WAIT", fromEnvironment) && fromEnvironment > 0) {
    return fromEnvironment;
  }
  return SOCKET_ANSWER_CYCLE_MS;
}

// Steps 7 to 10 of an exchange: polls for the answer, turns it into the
// result and closes the socket.
int awaitAnswer(int fd, int requestType, std::string& answer, const LOG1_Context& context) {
  QOR_TRACE_AS(context);
  char buffer[kAnswerBufferSize + 1];
  const int cycleMs = answerCycleMs();
  // The cycles' whole length is the deadline; each cycle waits on the socket
  // and ends as soon as the answer, or the server's end, arrives.
  const QorDeadline deadline{
      std::chrono::milliseconds(static_cast<long long>(SOCKET_ANSWER_CYCLES) * cycleMs)};
  int cycles = 0;
  ssize_t last = 0;
  ssize_t received = 0;
  int lastError = 0;
  for (;;) {
    last = recv(fd, buffer, kAnswerBufferSize, 0);
    if (last > 0) {
      QOR_TRACE_ERROR("Received answer bytes(%d):\n", static_cast<int>(last));
      received = last;
      break;
    }
    if (last == 0) break;
    lastError = errno;
    if (lastError != EAGAIN && lastError != EWOULDBLOCK) break;
    if (deadline.passed()) break;
    QOR_WaitReadable(fd, deadline.nextWaitMs(cycleMs));
    ++cycles;
  }
  QOR_TRACE_DETAIL("Waiting for answer loop count(%d).\n", cycles);

  int result = 0;
  if (last < 0 && received == 0) {
    // A time-out ends here too: the last poll found nothing yet.
    QOR_TRACE_ERROR("Error receiving result- errno = %d, %s\n", lastError,
                    socketErrorText(lastError).c_str());
    result = SOCKET_CLIENT_NO_ANSWER;
  } else if (received == 0) {
    QOR_TRACE_ERROR("Error receiving result- server closed the connection -- no data.\n");
    result = SOCKET_CLIENT_CLOSED;
  } else {
    buffer[received] = '\0';
    // The first piece is the whole answer: the client does not read on.
    if (requestType == SOCKET_COMMAND) {
      result = atoi(buffer);
    } else {
      answer = buffer;
    }
    QOR_TRACE_ERROR("Total len(%d): rc:(%d) answer: %s cycle: (%d).\n", static_cast<int>(received), result,
                    buffer, cycles);
  }
  close(fd);
  return result;
}

}  // namespace

int sendCommand(std::string socketName, int requestType, std::string request, std::string& answer) {
  QOR_TRACE_FUNCTION();
  const char* ipDir = OSV1_GetEnv("QOR_IP_DIR", 0);
  if (ipDir == nullptr || *ipDir == '\0') {
    QOR_TRACE_ERROR("Invalid QOR_IP_DIR path\n");
    return QOR_TRACE_RETURN(SOCKET_CLIENT_NO_SOCKET);
  }
  const std::string path = ipDir + socketName;
  struct sockaddr_un address;
  // A path that does not fit is refused rather than cut: a cut path would
  // name another file, possibly one that somebody else put there.
  if (path.size() >= sizeof address.sun_path) {
    QOR_TRACE_ERROR("Socket path too long: %s has %d bytes, at most %d fit.\n", path.c_str(),
                    static_cast<int>(path.size()), static_cast<int>(sizeof address.sun_path - 1));
    return QOR_TRACE_RETURN(SOCKET_CLIENT_NO_SOCKET);
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    QOR_TRACE_ERROR("Error executing socket - errno = %d, %s\n", errno, socketErrorText(errno).c_str());
    return QOR_TRACE_RETURN(SOCKET_CLIENT_NO_SOCKET);
  }
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  QOR_TRACE_ERROR("Attempting to connect to socket %s.\n", path.c_str());

  // Kept: the returns of connect, send and fcntl leave the socket open; the
  // descriptor stays allocated to the process. Only an exchange that reaches
  // the wait for the answer closes it.
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&address), static_cast<socklen_t>(path.size() + 3)) !=
      0) {
    QOR_TRACE_ERROR("Error executing connect - errno = %d, %s\n", errno, socketErrorText(errno).c_str());
    return QOR_TRACE_RETURN(SOCKET_CLIENT_NO_CONNECT);
  }
  QOR_TRACE_ERROR("Connected to socket.\n");
  // A server that has gone meanwhile must not end this process by SIGPIPE.
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) == -1) {
    QOR_TRACE_ERROR("Error executing send - errno = %d, %s\n", errno, socketErrorText(errno).c_str());
    return QOR_TRACE_RETURN(SOCKET_CLIENT_SEND_FAILED);
  }
  QOR_TRACE_ERROR("Sent request to socket.\n");
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1) {
    QOR_TRACE_ERROR("Error getting flags fcntl result- errno = %d, %s\n", errno,
                    socketErrorText(errno).c_str());
    return QOR_TRACE_RETURN(SOCKET_CLIENT_NO_ANSWER);
  }
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) {
    QOR_TRACE_ERROR("Error setting O_NON_BLOCK flag fcntl result- errno = %d, %s\n", errno,
                    socketErrorText(errno).c_str());
    return QOR_TRACE_RETURN(SOCKET_CLIENT_NO_ANSWER);
  }
  return QOR_TRACE_RETURN(awaitAnswer(fd, requestType, answer, QOR_TRACE_CONTEXT()));
}

int sendTEOCommand(std::string request) {
  std::string unused;
  return sendCommand("/.teo_sock", SOCKET_COMMAND, request, unused);
}

int sendTEOQuery(std::string request, std::string& answer) {
  return sendCommand("/.teo_sock", SOCKET_QUERY, request, answer);
}

int sendWDCommand(std::string request) {
  std::string unused;
  return sendCommand("/.teo_wd_sock", SOCKET_COMMAND, request, unused);
}

int sendWDQuery(std::string request, std::string& answer) {
  return sendCommand("/.teo_wd_sock", SOCKET_QUERY, request, answer);
}
