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

void QOR_SleepToSecondTurn(int seconds) {
  if (seconds <= 0) {
    pthread_testcancel();
    return;
  }
  struct timespec now = {0, 0};
  clock_gettime(CLOCK_REALTIME, &now);
  struct timespec remaining = {seconds - 1, 1000000000L - now.tv_nsec};
  if (remaining.tv_nsec == 1000000000L) {
    remaining.tv_sec += 1;
    remaining.tv_nsec = 0;
  }
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}
