// The watchdog process's event cache: while the OS agent is down, the events
// this process sees are kept here, and the embedded service pulls them over
// .teo_wd_sock when it comes back, one record per exchange, to feed its own
// listeners. Created by the Controller's TEO thread in watchdog mode only.
#ifndef QOR_INTERFACES_QORMSGCACHE_H
#define QOR_INTERFACES_QORMSGCACHE_H

#include <string>
#include <vector>

#include "core/qorlock.h"
#include "interfaces/qorsockserv.h"

class Event;

class Message_Cache {
 public:
  Message_Cache();
  // Deletes every event still cached: the cache never outlives the process.
  ~Message_Cache();
  Message_Cache(const Message_Cache&) = delete;
  Message_Cache& operator=(const Message_Cache&) = delete;

  // The message handler's listener in watchdog mode, on its thread. Owns
  // `event` from here on: it is cached, or deleted (id 0, no cache, lock
  // failure). An id 7 afterwards tells the embedded service to collect.
  static void Listener(Event* event);

  // The oldest event as one event record, removed from the cache. False, with
  // `record` as it was, when nothing is cached. Socket server thread.
  bool popCachedEvent(std::string& record);

  // The pop in two steps, for a server that learns only after the send
  // whether the record reached its peer: the oldest event leaves the cache
  // and becomes the caller's, with its record in `record`; null, with
  // `record` as it was, when nothing is cached.
  Event* takeCachedEvent(std::string& record);
  // An event taken whose record never reached the peer (the peer was gone
  // before the answer could be written) goes back to the head of the cache,
  // so that the next collection delivers it first and in its place. Owns
  // `event` from here on.
  void putBackCachedEvent(Event* event);

  // Embedded mode: pulls every cached event from the watchdog process and
  // puts each on this process's message queue with the time it happened.
  static void receiveCachedEvents();

  // Drops what is older than QOR_CACHE_LIMIT hours (24 by default), read
  // again at each call. Requires the cache lock.
  void CleanupExpiredEvents() QOR_REQUIRES(cacheMutex);
  void ClearCache();

  bool lockCache() QOR_TRY_ACQUIRE(true, cacheMutex);
  bool unlockCache() QOR_RELEASE(cacheMutex);

  // The number of cached entries; for tests and diagnostics.
  size_t cachedCount();

  // The age limit of the clean-up in seconds, as the clean-up reads it now.
  static int ageLimitSeconds();

 private:
  std::vector<Event*> events QOR_GUARDED_BY(cacheMutex);  // oldest first; owned
  QorMutex cacheMutex;                                    // a leaf lock
};

// The record's separator cannot appear inside a text: the reader would shift
// every later field. Each "|" of a text is sent as this character instead.
constexpr wchar_t kCachedTextBarStandIn = L'/';

// The "|"-separated fields of an event record, cut in place: runs of "|" are
// one separator. Each reader keeps its own position, so two collections on
// different threads never disturb each other.
class RecordTokens : public RequestTokens {
 public:
  explicit RecordTokens(char* record) : RequestTokens(record, '|') {}
};

#endif  // QOR_INTERFACES_QORMSGCACHE_H
