// Helpers shared by the tests: temporary directories that clean up after
// themselves, waiting for a condition with a deadline, files, traces, and
// running a program with its output. Used on the test's main thread.
#ifndef QOR_TESTS_SUPPORT_QORTEST_H
#define QOR_TESTS_SUPPORT_QORTEST_H

#include <functional>
#include <string>
#include <vector>

namespace qortest {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Polls `condition` every 10 ms until it holds or `timeoutMs` has passed.
bool waitFor(const std::function<bool()>& condition, int timeoutMs);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
void makeExecutable(const std::string& path);
bool fileExists(const std::string& path);

// Sends traces of `mask` to `path` from now on.
void traceTo(const std::string& path, unsigned mask);

// How often `needle` stands in `text`.
int countOccurrences(const std::string& text, const std::string& needle);
// The lines of `text` that contain `needle`, in order.
std::vector<std::string> linesWith(const std::string& text, const std::string& needle);

// The source tree and the build tree of the project.
std::string sourceDir();
std::string binaryDir();

struct RunResult {
  int exitCode = -1;  // 128 + signal when a signal ended the program
  std::string out;
  std::string err;
};

// Runs a program with extra environment entries ("NAME=value") and waits for it.
RunResult runProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {});

// A program running in the background, with its standard output collected
// as it comes. Its standard input is the test's own, unless it is given a pipe
// to write to. The destructor kills it if it still runs.
class Child {
 public:
  enum class Input { Inherited, Pipe };
  Child(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {},
        Input input = Input::Inherited);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Reads what the program wrote so far (standard output and error apart).
  void poll();
  const std::string& out() {
    poll();
    return out_;
  }
  const std::string& err() {
    poll();
    return err_;
  }
  // Waits until standard output holds `text`.
  bool waitForOutput(const std::string& text, int timeoutMs);
  void signal(int number);
  // Writes to the program's standard input, when it was given a pipe; false
  // when it was not, when the pipe is closed, or when the program has gone.
  bool write(const std::string& text);
  // Closes the pipe: the program reads the end of its input.
  void closeInput();
  // Waits for the end; the exit code, 128 + signal, or -1 on time-out.
  int wait(int timeoutMs);
  int pid() const { return pid_; }

 private:
  int pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  int inFd_ = -1;
  int status_ = -1;
  std::string out_;
  std::string err_;
};

// Milliseconds of a monotonic clock.
long long nowMs();

}  // namespace qortest

#endif  // QOR_TESTS_SUPPORT_QORTEST_H
