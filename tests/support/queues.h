// Reading the two event queues in tests where no service consumes them: the
// events that the code under test queued stay there until a test takes them.
// Used on the test's main thread.
#ifndef QOR_TESTS_SUPPORT_QUEUES_H
#define QOR_TESTS_SUPPORT_QUEUES_H

#include <vector>

#include "core/qorevthand.h"

namespace qortest {

// Takes every event off `queue`, in order; the caller owns them.
inline std::vector<Event*> takeEvents(EventHandler* queue) {
  std::vector<Event*> events;
  queue->lockEventQueue();
  while (Event* event = queue->popEvent()) events.push_back(event);
  queue->unlockEventQueue();
  return events;
}

}  // namespace qortest

#endif  // QOR_TESTS_SUPPORT_QUEUES_H
