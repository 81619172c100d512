#include "watchdog/qorusr.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "core/qorutil.h"
#include "platform/log1.h"
#include "support/qortest.h"
#include "watchdog/qorcmdunx.h"

namespace {

// A user id that no passwd entry has.
int unknownUserId() {
  for (int id = 54321; id < 64000; ++id) {
    if (getpwuid(static_cast<uid_t>(id)) == nullptr) return id;
  }
  return -1;
}

std::wstring realUserName() {
  struct passwd* entry = getpwuid(getuid());
  return entry == nullptr ? std::wstring() : qor_mbstowcs(entry->pw_name);
}

QorCmdUNIX* manager() { return static_cast<QorCmdUNIX*>(GetCmdManager()); }

}  // namespace

TEST(UserNames, AUserIdWithoutPasswdEntryIsNotAvailableAndAskedForOnce) {
  int id = unknownUserId();
  ASSERT_NE(-1, id);
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR | QOR_TL_DETAIL);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(L"NOT_AVAILABLE", manager()->idToUserName(id));
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Error executing getpwuid - errno = "));
  EXPECT_EQ(1, qortest::countOccurrences(
                   trace, "Adding userName NOT_AVAILABLE (key = " + std::to_string(id) + ") to cache\n"));
  EXPECT_EQ(L"NOT_AVAILABLE", GetIDUserName(id));
}

TEST(UserNames, AKnownUserIdIsCachedUnderItsName) {
  EXPECT_EQ(L"", GetIDUserName(static_cast<int>(getuid())));
  EXPECT_EQ(realUserName(), manager()->idToUserName(static_cast<int>(getuid())));
  EXPECT_EQ(realUserName(), GetIDUserName(static_cast<int>(getuid())));
}

TEST(UserNames, TheCacheKeepsTheFirstNameAndIgnoresAnEmptyOne) {
  SetIDUserName(4711, L"");
  EXPECT_EQ(L"", GetIDUserName(4711));
  SetIDUserName(4711, L"first");
  SetIDUserName(4711, L"second");
  EXPECT_EQ(L"first", GetIDUserName(4711));
  EXPECT_EQ(L"first", manager()->idToUserName(4711));
}

TEST(UserNames, ThreadsAskingForOneUnknownIdCauseOnePasswdLookup) {
  int id = unknownUserId();
  ASSERT_NE(-1, id);
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), QOR_TL_ERROR);
  std::atomic<int> wrong{0};
  // getpwuid is not reentrant: the expected name is read before the threads.
  const std::wstring realName = realUserName();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        if (ResolveUserName(id) != L"NOT_AVAILABLE") ++wrong;
        if (ResolveUserName(static_cast<int>(getuid())) != realName) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(1, qortest::countOccurrences(qortest::readFile(dir.file("trace")), "Error executing getpwuid"));
}

TEST(CurrentUser, TheUserVariableComesFirst) {
  setenv("USER", "qorop", 1);
  EXPECT_EQ(L"qorop", GetCurrentUser());
  setenv("USER", "later", 1);
  EXPECT_EQ(L"qorop", GetCurrentUser());  // found once, then kept
}

TEST(CurrentUser, WithoutTheUserVariableTheRealUserIdsName) {
  unsetenv("USER");
  EXPECT_EQ(realUserName(), GetCurrentUser());
}
