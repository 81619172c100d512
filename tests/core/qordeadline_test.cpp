#include "core/qordeadline.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support/qortest.h"

namespace {

using std::chrono::milliseconds;

TEST(Deadline, AStartedSecondCountsWholeAndNoneAreLeftOnceItHasPassed) {
  const QorDeadline deadline{milliseconds(2500)};
  EXPECT_EQ(3, deadline.wholeSecondsLeft());
  EXPECT_FALSE(deadline.passed());
  EXPECT_EQ(1000, deadline.nextWaitMs(1000));
  EXPECT_LE(deadline.nextWaitMs(5000), 2500);
  EXPECT_GT(deadline.nextWaitMs(5000), 2000);

  const QorDeadline soon{milliseconds(30)};
  EXPECT_EQ(1, soon.wholeSecondsLeft());
  std::this_thread::sleep_for(milliseconds(40));
  EXPECT_TRUE(soon.passed());
  EXPECT_EQ(0, soon.millisecondsLeft());
  EXPECT_EQ(0, soon.wholeSecondsLeft());
  EXPECT_EQ(0, soon.nextWaitMs(1000));
}

TEST(Deadline, ANoughtBudgetHasPassedAtOnce) {
  const QorDeadline none{milliseconds(0)};
  EXPECT_TRUE(none.passed());
  EXPECT_EQ(0, none.wholeSecondsLeft());
}

class WaitReadable : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, pipe(fds)); }
  void TearDown() override {
    close(fds[0]);
    if (fds[1] >= 0) close(fds[1]);
  }
  long long timedWait(int most) {
    const long long began = qortest::nowMs();
    QOR_WaitReadable(fds[0], most);
    return qortest::nowMs() - began;
  }
  int fds[2] = {-1, -1};
};

TEST_F(WaitReadable, WithNothingToReadItWaitsTheWholeTime) {
  const long long waited = timedWait(200);
  EXPECT_GE(waited, 195);
  EXPECT_LT(waited, 1000);
}

TEST_F(WaitReadable, InputEndsTheWaitAsSoonAsItArrives) {
  std::thread writer([this] {
    std::this_thread::sleep_for(milliseconds(50));
    ASSERT_EQ(1, write(fds[1], "x", 1));
  });
  const long long waited = timedWait(5000);
  writer.join();
  EXPECT_GE(waited, 45);
  EXPECT_LT(waited, 1000);
}

TEST_F(WaitReadable, TheEndOfInputEndsTheWaitToo) {
  close(fds[1]);
  fds[1] = -1;
  EXPECT_LT(timedWait(5000), 500);
}

TEST_F(WaitReadable, ANoughtWaitDoesNotWait) { EXPECT_LT(timedWait(0), 50); }

// The wall clock's time in milliseconds, and the part of its second gone.
long long wallMs() {
  struct timespec now = {0, 0};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Waits until the wall clock is `ms` milliseconds into a second.
void waitUntilIntoSecond(long long ms) {
  while (wallMs() % 1000 != ms) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

TEST(SleepToSecondTurn, BegunInTheMiddleOfASecondItEndsOnTheTurnOfTheSecondsThatFollow) {
  waitUntilIntoSecond(600);
  const long long start = wallMs();
  QOR_SleepToSecondTurn(2);
  const long long end = wallMs();
  EXPECT_LT(end % 1000, 100) << end;
  EXPECT_GE(end - start, 1390);
  EXPECT_LT(end - start, 1500);
  EXPECT_EQ(start / 1000 + 2, end / 1000);
}

TEST(SleepToSecondTurn, BegunJustAfterATurnItLastsItsWholeSeconds) {
  QOR_SleepToSecondTurn(1);
  const long long start = wallMs();
  QOR_SleepToSecondTurn(1);
  const long long end = wallMs();
  EXPECT_LT(end % 1000, 100) << end;
  EXPECT_GT(end - start, 900);
  EXPECT_LT(end - start, 1100);
}

TEST(SleepToSecondTurn, TimeSeesTheNewSecondAtOnceOnWaking) {
  // time() reads a coarse clock that turns a tick after the second does; a
  // check on waking reads the new second, or it counts a second short.
  for (int i = 0; i < 5; ++i) {
    struct timespec before = {0, 0};
    clock_gettime(CLOCK_REALTIME, &before);
    QOR_SleepToSecondTurn(1);
    EXPECT_EQ(before.tv_sec + 1, time(nullptr)) << "sleep " << i;
  }
}

TEST(SleepToSecondTurn, NoughtSecondsDoNotSleep) {
  const long long start = wallMs();
  QOR_SleepToSecondTurn(0);
  QOR_SleepToSecondTurn(-3);
  EXPECT_LT(wallMs() - start, 50);
}

}  // namespace
