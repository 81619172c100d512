// Bounded waits: a deadline on the monotonic clock, a wait for input that ends
// as soon as input or its end arrives, and a sleep that ends on the turn of a
// second. Used by the command manager's read of a script's output, by the
// socket client, and by the availability cycle.
#ifndef QOR_CORE_QORDEADLINE_H
#define QOR_CORE_QORDEADLINE_H

#include <chrono>

// A moment a wait must not pass. The monotonic clock is immune to changes of
// the wall clock, which must neither cut a command short nor stretch it.
class QorDeadline {
 public:
  explicit QorDeadline(std::chrono::milliseconds budget);

  bool passed() const { return millisecondsLeft() == 0; }
  // 0 once the deadline has passed.
  long long millisecondsLeft() const;
  // The seconds left, a started second counted whole: never 0 before the
  // deadline has passed.
  int wholeSecondsLeft() const;
  // The lesser of `most` and the time left, for one step of a wait.
  int nextWaitMs(int most) const;

 private:
  std::chrono::steady_clock::time_point end_;
};

// Waits until `fd` has input, its end, or an error, for at most `milliseconds`.
// A cancellation point, like the sleep it replaces. A signal ends the wait
// early; the caller looks again and waits on.
void QOR_WaitReadable(int fd, int milliseconds);

// Sleeps until `seconds` turns of the wall clock's second have passed, that is
// `seconds` less the part of the current second already gone; at once when
// `seconds` is 0 or less. A cancellation point; a signal does not end it. The
// sleep is measured when it starts, so a change of the clock during it neither
// stretches nor shortens it.
void QOR_SleepToSecondTurn(int seconds);

#endif  // QOR_CORE_QORDEADLINE_H
