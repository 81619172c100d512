#include "support/qortest.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/hlx.h"
#include "platform/log1.h"

extern char** environ;

namespace qortest {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/qortest.XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  std::string command = "rm -rf '" + path_ + "'";
  if (std::system(command.c_str()) != 0) {
    // Nothing more to do: a leftover directory under /tmp harms no later test.
  }
}

bool waitFor(const std::function<bool()>& condition, int timeoutMs) {
  long long deadline = nowMs() + timeoutMs;
  while (!condition()) {
    if (nowMs() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

void makeExecutable(const std::string& path) { chmod(path.c_str(), 0755); }

bool fileExists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

void traceTo(const std::string& path, unsigned mask) {
  setenv("QOR_TRACE_FILE", path.c_str(), 1);
  setenv("QOR_TRACE_LEVEL", std::to_string(mask).c_str(), 1);
  LOG1_Reconfigure();
}

int countOccurrences(const std::string& text, const std::string& needle) {
  if (needle.empty()) return 0;
  int count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size())) {
    ++count;
  }
  return count;
}

std::vector<std::string> linesWith(const std::string& text, const std::string& needle) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.find(needle) != std::string::npos) lines.push_back(line);
  }
  return lines;
}

std::string sourceDir() { return QOR_TEST_SOURCE_DIR; }

std::string binaryDir() { return QOR_TEST_BINARY_DIR; }

namespace {

// argv and envp for execve, built before the fork.
struct ExecArgs {
  std::vector<std::string> args;
  std::vector<std::string> env;
  std::vector<char*> argp;
  std::vector<char*> envp;

  ExecArgs(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) : args(argv) {
    for (char** entry = environ; *entry; ++entry) env.push_back(*entry);
    for (const std::string& extra : extraEnv) env.push_back(extra);
    for (std::string& arg : args) argp.push_back(&arg[0]);
    argp.push_back(nullptr);
    for (std::string& entry : env) envp.push_back(&entry[0]);
    envp.push_back(nullptr);
  }
};

// Starts the program with its standard output and error on two pipes, and,
// when `inFd` is given, its standard input on a third, whose writing end goes
// to `*inFd`.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, int& outFd,
            int& errFd, int* inFd = nullptr) {
  ExecArgs exec(argv, extraEnv);
  int outPipe[2];
  int errPipe[2];
  int inPipe[2] = {-1, -1};
  if (pipe2(outPipe, O_CLOEXEC) != 0) return -1;
  if (pipe2(errPipe, O_CLOEXEC) != 0 || (inFd != nullptr && pipe2(inPipe, O_CLOEXEC) != 0)) {
    for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) close(fd);
    return -1;
  }
  pid_t child = fork();
  if (child == 0) {
    if (inFd != nullptr) dup2(inPipe[0], STDIN_FILENO);
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    execve(exec.argp[0], exec.argp.data(), exec.envp.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  outFd = outPipe[0];
  errFd = errPipe[0];
  if (inFd != nullptr) {
    close(inPipe[0]);
    *inFd = inPipe[1];
  }
  return child;
}

// Reads what is there without blocking; false once the pipe is closed.
bool drain(int& fd, std::string& into) {
  if (fd < 0) return false;
  char buffer[4096];
  for (;;) {
    struct pollfd entry = {fd, POLLIN, 0};
    if (::poll(&entry, 1, 0) <= 0) return true;
    ssize_t count = read(fd, buffer, sizeof buffer);
    if (count > 0) {
      into.append(buffer, static_cast<size_t>(count));
      continue;
    }
    if (count < 0 && errno == EINTR) continue;
    close(fd);
    fd = -1;
    return false;
  }
}

int exitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

}  // namespace

Child::Child(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, Input input) {
  pid_ = spawn(argv, extraEnv, outFd_, errFd_, input == Input::Pipe ? &inFd_ : nullptr);
}

Child::~Child() {
  if (pid_ > 0 && status_ < 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (outFd_ >= 0) close(outFd_);
  if (errFd_ >= 0) close(errFd_);
  closeInput();
}

void Child::poll() {
  drain(outFd_, out_);
  drain(errFd_, err_);
}

bool Child::waitForOutput(const std::string& text, int timeoutMs) {
  return waitFor([&] { return out().find(text) != std::string::npos; }, timeoutMs);
}

void Child::signal(int number) {
  if (pid_ > 0 && status_ < 0) kill(pid_, number);
}

bool Child::write(const std::string& text) {
  if (inFd_ < 0) return false;
  // A program that has gone would raise SIGPIPE and end the test; the signal
  // is held back for the write and taken off again, and the write just fails.
  sigset_t pipeSignal;
  sigset_t previous;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous);
  size_t written = 0;
  while (written < text.size()) {
    ssize_t count = ::write(inFd_, text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    written += static_cast<size_t>(count);
  }
  struct timespec none = {0, 0};
  while (sigtimedwait(&pipeSignal, nullptr, &none) == SIGPIPE) {
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return written == text.size();
}

void Child::closeInput() {
  if (inFd_ >= 0) close(inFd_);
  inFd_ = -1;
}

int Child::wait(int timeoutMs) {
  if (pid_ <= 0) return -1;
  if (status_ >= 0) return exitCodeOf(status_);
  bool ended = waitFor(
      [&] {
        poll();
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
          status_ = status;
          return true;
        }
        return false;
      },
      timeoutMs);
  poll();
  return ended ? exitCodeOf(status_) : -1;
}

RunResult runProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
  RunResult result;
  int outFd = -1;
  int errFd = -1;
  pid_t child = spawn(argv, extraEnv, outFd, errFd);
  if (child < 0) return result;
  HLX::drainPipes(outFd, errFd, result.out, result.err);
  int status = 0;
  waitpid(child, &status, 0);
  result.exitCode = exitCodeOf(status);
  return result;
}

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace qortest
