#include "core/qordeadline.h"

#include <poll.h>
#include <pthread.h>
#include <time.h>

#include <cerrno>

#include <algorithm>

QorDeadline::QorDeadline(std::chrono::milliseconds budget)
    : end_(std::chrono::steady_clock::now() + budget) {}

long long QorDeadline::millisecondsLeft() const {
  // Rounded up, so that a wait of all that is left never ends before the deadline.
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
  return std::max<long long>(0, left.count());
}

int QorDeadline::wholeSecondsLeft() const { return static_cast<int>((millisecondsLeft() + 999) / 1000); }

int QorDeadline::nextWaitMs(int most) const {
  return static_cast<int>(std::min<long long>(most, millisecondsLeft()));
}

void QOR_WaitReadable(int fd, int milliseconds) {
  if (milliseconds <= 0) return;
  struct pollfd wait = {fd, POLLIN, 0};
  poll(&wait, 1, milliseconds);
}

namespace {

void sleepThrough(struct timespec remaining) {
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

// A step of the wait for the coarse clock, whose tick is 1 to 10 ms.
constexpr struct timespec kTick = {0, 1000000};

// What is left of the current second of the wall clock.
struct timespec restOfSecond(const struct timespec& now) {
  if (now.tv_nsec == 0) return {1, 0};
  return {0, 1000000000L - now.tv_nsec};
}

}  // namespace

void QOR_SleepToSecondTurn(int seconds) {
  if (seconds <= 0) {
    pthread_testcancel();
    return;
  }
  struct timespec now = {0, 0};
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t turn = now.tv_sec + seconds;
  struct timespec remaining = restOfSecond(now);
  remaining.tv_sec += seconds - 1;
  sleepThrough(remaining);
  // The sleep is measured on the monotonic clock, behind which a slewed wall
  // clock may fall by a few milliseconds; and time(), which the checks read,
  // takes a coarse clock that turns only on the first tick after the second
  // does. The turn is waited for as time() sees it. A clock set back by more
  // than that has moved the turn out of reach, and is not waited for.
  for (int tries = 0; tries < 100 && time(nullptr) == turn - 1; ++tries) {
    clock_gettime(CLOCK_REALTIME, &now);
    sleepThrough(now.tv_sec == turn - 1 ? restOfSecond(now) : kTick);
  }
}
