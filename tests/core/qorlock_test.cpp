#include "core/qorlock.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/log1.h"
#include "support/qortest.h"

QOR_TRACE_UNIT();

#if defined(__SANITIZE_THREAD__)
#define QOR_TEST_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QOR_TEST_THREAD_SANITIZER 1
#endif
#endif

namespace {

#ifdef QOR_TEST_THREAD_SANITIZER
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

// True when nobody holds the mutex: takes it for a moment and gives it back.
bool isFree(pthread_mutex_t* mutex) {
  if (pthread_mutex_trylock(mutex) != 0) return false;
  pthread_mutex_unlock(mutex);
  return true;
}

// A mutex that reports misuse instead of ignoring it, so that a test can
// make the traced helpers fail for real.
class ErrorCheckingMutex {
 public:
  ErrorCheckingMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  ~ErrorCheckingMutex() { pthread_mutex_destroy(&mutex_); }
  pthread_mutex_t* get() { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

int unlockLine = 0;
int lockLine = 0;

bool unlockNotHeld(pthread_mutex_t* mutex) {
  QOR_TRACE_FUNCTION();
  unlockLine = __LINE__ + 1;
  return QOR_UNLOCK_TRACED(mutex);
}

bool lockTwice(pthread_mutex_t* mutex) {
  QOR_TRACE_FUNCTION();
  pthread_mutex_lock(mutex);
  lockLine = __LINE__ + 1;
  bool second = QOR_LOCK_TRACED(mutex);
  pthread_mutex_unlock(mutex);
  return second;
}

bool lockAndUnlock(QorMutex& mutex) {
  QOR_TRACE_FUNCTION();
  if (!QOR_LOCK_TRACED(mutex)) return false;
  bool heldMeanwhile = !isFree(mutex.native());
  return QOR_UNLOCK_TRACED(mutex) && heldMeanwhile;
}

bool lockAndUnlockBare(pthread_mutex_t* mutex) {
  QOR_TRACE_FUNCTION();
  if (!QOR_LOCK_TRACED(mutex)) return false;
  bool heldMeanwhile = !isFree(mutex);
  return QOR_UNLOCK_TRACED(mutex) && heldMeanwhile;
}

struct CancelledHolder {
  QorMutex* mutex;
  std::atomic<bool> holding{false};
};

// Takes the mutex through the deferred guard and waits to be cancelled. It
// is cancelled in pthread_testcancel rather than in a sleep: ThreadSanitizer
// does not see what the unwinding out of an intercepted sleep releases.
void* holdUntilCancelled(void* argument) {
  CancelledHolder* holder = static_cast<CancelledHolder*>(argument);
  QorMutexLock lock(holder->mutex, QorMutexLock::kDeferred);
  if (lock.acquire() != 0) return nullptr;
  holder->holding.store(true);
  for (;;) {
    pthread_testcancel();
    sched_yield();
  }
  return nullptr;
}

struct FlagUnderMutex {
  QorMutex mutex;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  bool flag = false;
};

void* setFlag(void* argument) {
  FlagUnderMutex* shared = static_cast<FlagUnderMutex*>(argument);
  QorMutexLock lock(&shared->mutex);
  shared->flag = true;
  pthread_cond_signal(&shared->condition);
  return nullptr;
}

}  // namespace

TEST(QorMutexLock, ReleasesOnScopeExit) {
  QorMutex mutex;
  {
    QorMutexLock lock(&mutex);
    EXPECT_FALSE(isFree(mutex.native()));
  }
  EXPECT_TRUE(isFree(mutex.native()));
}

TEST(QorMutexLock, ReleasesWhenAnExceptionUnwindsThroughIt) {
  QorMutex mutex;
  bool caught = false;
  try {
    QorMutexLock lock(&mutex);
    throw std::runtime_error("unwind");
  } catch (const std::runtime_error&) {
    caught = true;
  }
  EXPECT_TRUE(caught);
  EXPECT_TRUE(isFree(mutex.native()));
}

TEST(QorMutexLock, HoldsABareMutexForItsScope) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  {
    QorMutexLock lock(&mutex);
    EXPECT_FALSE(isFree(&mutex));
  }
  EXPECT_TRUE(isFree(&mutex));
  pthread_mutex_destroy(&mutex);
}

TEST(QorMutexLock, DeferredFormHoldsNothingUntilAcquired) {
  QorMutex mutex;
  {
    QorMutexLock lock(&mutex, QorMutexLock::kDeferred);
    EXPECT_TRUE(isFree(mutex.native()));
    EXPECT_EQ(0, lock.release());  // holds nothing: nothing to give back
    EXPECT_EQ(0, lock.acquire());
    EXPECT_FALSE(isFree(mutex.native()));
    EXPECT_EQ(0, lock.release());
    EXPECT_TRUE(isFree(mutex.native()));
    EXPECT_EQ(0, lock.acquire());
  }
  // Acquired and not released: the end of the scope releases it.
  EXPECT_TRUE(isFree(mutex.native()));
}

TEST(QorMutexLock, DeferredFormNeverAcquiredLeavesTheMutexAlone) {
  QorMutex mutex;
  mutex.lock();
  { QorMutexLock lock(&mutex, QorMutexLock::kDeferred); }
  // Still held by this thread: the guard did not unlock what it never took.
  EXPECT_FALSE(isFree(mutex.native()));
  mutex.unlock();
  EXPECT_TRUE(isFree(mutex.native()));
}

TEST(QorMutexLock, ReleasesWhenItsThreadIsCancelled) {
  QorMutex mutex;
  CancelledHolder holder;
  holder.mutex = &mutex;
  pthread_t thread;
  ASSERT_EQ(0, pthread_create(&thread, nullptr, holdUntilCancelled, &holder));
  ASSERT_TRUE(qortest::waitFor([&] { return holder.holding.load(); }, 5000));
  EXPECT_FALSE(isFree(mutex.native()));
  pthread_cancel(thread);
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(thread, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
  EXPECT_TRUE(isFree(mutex.native()));
}

TEST(QorMutex, WaitGivesTheMutexUpWhileWaiting) {
  FlagUnderMutex shared;
  QorMutexLock lock(&shared.mutex);
  pthread_t thread;
  ASSERT_EQ(0, pthread_create(&thread, nullptr, setFlag, &shared));
  // The other thread can only set the flag if the wait lets the mutex go.
  while (!shared.flag) ASSERT_EQ(0, shared.mutex.wait(&shared.condition));
  // And the wait returns with the mutex held again.
  EXPECT_FALSE(isFree(shared.mutex.native()));
  pthread_join(thread, nullptr);
  pthread_cond_destroy(&shared.condition);
}

TEST(TracedLock, SucceedsOnAQorMutexAndTracesNothing) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  QorMutex mutex;
  EXPECT_TRUE(lockAndUnlock(mutex));
  EXPECT_TRUE(isFree(mutex.native()));
  EXPECT_EQ("", qortest::readFile(dir.file("trace")));
}

TEST(TracedLock, SucceedsOnABareMutexAndTracesNothing) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  ErrorCheckingMutex mutex;
  EXPECT_TRUE(lockAndUnlockBare(mutex.get()));
  EXPECT_TRUE(isFree(mutex.get()));
  EXPECT_EQ("", qortest::readFile(dir.file("trace")));
}

TEST(TracedLock, UnlockOfAMutexNotHeldFailsWithTheTraceOfItsCaller) {
  if (kThreadSanitizer) GTEST_SKIP() << "ThreadSanitizer reports the unlock that this test makes on purpose";
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  ErrorCheckingMutex mutex;
  EXPECT_FALSE(unlockNotHeld(mutex.get()));
  std::vector<std::string> lines = qortest::linesWith(qortest::readFile(dir.file("trace")), "Error:");
  ASSERT_EQ(1u, lines.size());
  // EPERM, 1: the thread does not hold the mutex.
  const std::string expected = "] qorlock_test.cpp unlockNotHeld:" + std::to_string(unlockLine) +
                               " Error: pthread_mutex_unlock failed, rc=1 ";
  ASSERT_GE(lines[0].size(), expected.size());
  EXPECT_EQ(expected, lines[0].substr(lines[0].size() - expected.size())) << lines[0];
}

TEST(TracedLock, SecondLockByTheHolderFailsWithTheTraceOfItsCaller) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 128);
  ErrorCheckingMutex mutex;
  EXPECT_FALSE(lockTwice(mutex.get()));
  EXPECT_TRUE(isFree(mutex.get()));
  std::vector<std::string> lines = qortest::linesWith(qortest::readFile(dir.file("trace")), "Error:");
  ASSERT_EQ(1u, lines.size());
  const std::string expected = "] qorlock_test.cpp lockTwice:" + std::to_string(lockLine) +
                               " Error: pthread_mutex_lock failed, rc=" + std::to_string(EDEADLK) + " ";
  ASSERT_GE(lines[0].size(), expected.size());
  EXPECT_EQ(expected, lines[0].substr(lines[0].size() - expected.size())) << lines[0];
}

TEST(TracedLock, FailureIsSilentWithoutTheErrorBit) {
  if (kThreadSanitizer) GTEST_SKIP() << "ThreadSanitizer reports the unlock that this test makes on purpose";
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 1 | 16 | 256);
  ErrorCheckingMutex mutex;
  EXPECT_FALSE(unlockNotHeld(mutex.get()));
  EXPECT_EQ("", qortest::readFile(dir.file("trace")));
}

TEST(TracedLock, AddsNoEntryOrExitOfItsOwn) {
  if (kThreadSanitizer) GTEST_SKIP() << "ThreadSanitizer reports the unlock that this test makes on purpose";
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 64 | 128);
  ErrorCheckingMutex mutex;
  EXPECT_FALSE(unlockNotHeld(mutex.get()));
  std::string trace = qortest::readFile(dir.file("trace"));
  // The caller's entry, the error line and the caller's exit, and nothing else.
  EXPECT_EQ(3u, qortest::linesWith(trace, "").size()) << trace;
  EXPECT_EQ(3, qortest::countOccurrences(trace, " unlockNotHeld:"));
}
