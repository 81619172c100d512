// The client side of the local sockets: one connection for each request to
// $QOR_IP_DIR/.teo_sock or .teo_wd_sock, and an answer awaited in cycles, so
// that a peer that is down, restarting or busy never blocks the caller for
// good. Used by the embedded service, the watchdog process and qorctl. No
// shared state: safe from any thread, but each call may block for the whole
// wait (60 cycles of 1 s by default).
#ifndef QOR_INTERFACES_QORSOCKCLIENT_H
#define QOR_INTERFACES_QORSOCKCLIENT_H

#include <cstdint>
#include <string>

// The kinds of request of sendCommand.
enum SocketRequestType : int {
  SOCKET_COMMAND = 1,  // the answer is a return code, turned into the result
  SOCKET_QUERY = 2,    // the answer is text, handed back in `answer`
};

// Results of sendCommand besides 0 and the return code a server answered.
// A server never answers 2 to 6, so the two ranges do not meet in practice.
enum SocketClientResult : int {
  SOCKET_CLIENT_NO_SOCKET = 2,    // QOR_IP_DIR unset or empty, path too long, or socket() failed
  SOCKET_CLIENT_NO_CONNECT = 3,   // connect() failed: no server, no socket file, or no right to it
  SOCKET_CLIENT_SEND_FAILED = 4,  // send() failed
  SOCKET_CLIENT_NO_ANSWER = 5,    // fcntl() failed, a receive error, or no answer in time
  SOCKET_CLIENT_CLOSED = 6,       // the server closed the connection without a byte
};

// The wait for an answer: at most SOCKET_ANSWER_CYCLES (60) cycles of
// SOCKET_ANSWER_CYCLE_MS (1000), their sum a deadline; each cycle waits on the
// socket and ends as soon as something arrives. The environment variable
// QOR_SOCKET_ANSWER_WAIT, a number of milliseconds, sets the length of a cycle
// for a whole process (tests, tools); read at each call.
extern int32_t SOCKET_ANSWER_CYCLES;
extern int32_t SOCKET_ANSWER_CYCLE_MS;

// Sends `request` as it is, with no terminator, to the socket $QOR_IP_DIR +
// `socketName` ("/.teo_sock" or "/.teo_wd_sock") and waits for the answer.
// For a command the result is atoi of the answer; for a query it is 0 and the
// answer's first piece (at most 3000 bytes) is in `answer`, which is left
// untouched otherwise. Other results: SocketClientResult.
int sendCommand(std::string socketName, int requestType, std::string request, std::string& answer);

int sendTEOCommand(std::string request);
int sendTEOQuery(std::string request, std::string& answer);
int sendWDCommand(std::string request);
int sendWDQuery(std::string request, std::string& answer);

// The text of an errno value, for the traces of both ends of a socket.
std::string socketErrorText(int error);

#endif  // QOR_INTERFACES_QORSOCKCLIENT_H
