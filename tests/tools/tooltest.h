// Where the tests of the programs find them. Used by the tests of tests/tools.
#ifndef QOR_TESTS_TOOLS_TOOLTEST_H
#define QOR_TESTS_TOOLS_TOOLTEST_H

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/qortest.h"

namespace tooltest {

// The build tree: from the test environment when it carries it, else two
// levels above the running test program (BUILD/tests/PROGRAM).
inline std::string buildDir() {
  if (std::getenv("QOR_TEST_BINARY_DIR") != nullptr) return qortest::binaryDir();
  char path[4096];
  ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return ".";
  std::string program(path, static_cast<size_t>(length));
  std::string tests = program.substr(0, program.rfind('/'));
  return tests.substr(0, tests.rfind('/'));
}

inline std::string qorctlPath() { return buildDir() + "/tools/qorctl"; }

}  // namespace tooltest

#endif  // QOR_TESTS_TOOLS_TOOLTEST_H
