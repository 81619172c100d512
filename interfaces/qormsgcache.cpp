// The watchdog process's event cache and the embedded service's collection of
// it. The cache keeps events only as long as QOR_CACHE_LIMIT allows; the flat
// record that leaves it is built at the moment of the pop.
#include "interfaces/qormsgcache.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "core/qorctrl.h"
#include "core/qorevt.h"
#include "core/qorevthand.h"
#include "core/qorutil.h"
#include "interfaces/qorsockclient.h"
#include "interfaces/qorsockserv.h"
#include "platform/log1.h"

QOR_TRACE_UNIT();

namespace {

constexpr int kAgentAddedEventId = 0;    // "Agent added to system - CAP file found."
constexpr int kAgentStartedEventId = 7;  // "Agent started successfully."
constexpr int kDefaultCacheHours = 24;

// A text with every "|" replaced, so that the record keeps its thirteen fields.
std::wstring withoutBars(std::wstring text) {
  for (wchar_t& c : text) {
    if (c == L'|') c = kCachedTextBarStandIn;
  }
  return text;
}

}  // namespace

Message_Cache::Message_Cache() {}

Message_Cache::~Message_Cache() { ClearCache(); }

bool Message_Cache::lockCache() {
  QOR_TRACE_FUNCTION();
  return QOR_LOCK_TRACED(cacheMutex);
}

bool Message_Cache::unlockCache() {
  QOR_TRACE_FUNCTION();
  return QOR_UNLOCK_TRACED(cacheMutex);
}

size_t Message_Cache::cachedCount() {
  QorMutexLock lock(&cacheMutex);
  return events.size();
}

int Message_Cache::ageLimitSeconds() {
  int hours = 0;
  // Anything but digits leaves the default.
  if (!QOR_GetEnvironmentAsInt("QOR_CACHE_LIMIT", hours)) hours = kDefaultCacheHours;
  // More hours than an int holds in seconds mean "keep everything".
  if (hours > INT_MAX / 3600) return INT_MAX;
  return hours * 3600;
}

void Message_Cache::Listener(Event* event) {
  QOR_TRACE_FUNCTION();
  const int id = event->getEventTypeID();
  QOR_TRACE_STORY("push event onto cache %d \n", id);
  // The embedded service learns of its agents from its own CAP files; an
  // "agent added" from here would only repeat that. The listener owns what it
  // is given, so an event it does not keep is deleted here.
  if (id == kAgentAddedEventId) {
    delete event;
    return;
  }
  Message_Cache* cache = Controller::getController()->getWDCache();
  if (cache == nullptr) {  // after shutdown the listener stays registered
    delete event;
    return;
  }
  if (!cache->lockCache()) {
    QOR_TRACE_STORY("Error encountered locking cache");
    delete event;
    return;
  }
  cache->CleanupExpiredEvents();
  cache->events.push_back(event);
  cache->unlockCache();

  // The id was read before the event went into the cache: once there, the
  // socket server thread may pop and delete it at any moment.
  if (id == kAgentStartedEventId) {
    // In this process an id 7 means that the OS agent is back: the signal to
    // collect. If it is not listening yet, the events wait for its next start.
    sendTEOCommand("622 EVENT_DATA");
  }
}

void Message_Cache::CleanupExpiredEvents() {
  QOR_TRACE_FUNCTION();
  const int limit = ageLimitSeconds();
  const time_t now = time(nullptr);
  // An expired entry takes its successor with it, whatever the successor's
  // age: that is how the clean-up has always behaved, and it is kept. Both are
  // deleted and both leave the list, so no pointer to a deleted event stays
  // behind for the next walk or the next pop, and nothing is left allocated
  // out of the list's reach. The walk then goes on with the entry behind the
  // successor, as it always did, and ends at the list's end: an expired last
  // entry has no successor to take.
  size_t position = 0;
  while (position < events.size()) {
    Event* event = events[position];
    if (difftime(now, event->getEventTime()) <= limit) {
      ++position;
      continue;
    }
    QOR_TRACE_STORY("Deleting event too old.\n");
    delete event;
    events.erase(events.begin() + static_cast<std::ptrdiff_t>(position));
    if (position < events.size()) {
      delete events[position];
      events.erase(events.begin() + static_cast<std::ptrdiff_t>(position));
    }
  }
}

void Message_Cache::ClearCache() {
  QOR_TRACE_FUNCTION();
  if (!lockCache()) {
    QOR_TRACE_STORY("Error encountered locking cache");
    return;
  }
  for (Event* event : events) delete event;
  events.clear();
  unlockCache();
}

bool Message_Cache::popCachedEvent(std::string& record) {
  QOR_TRACE_FUNCTION();
  Event* event = takeCachedEvent(record);
  if (event == nullptr) return false;
  delete event;
  return true;
}

Event* Message_Cache::takeCachedEvent(std::string& record) {
  QOR_TRACE_FUNCTION();
  if (!lockCache()) {
    QOR_TRACE_STORY("Error encountered locking cache");
    return nullptr;
  }
  if (events.empty()) {
    unlockCache();
    return nullptr;
  }
  CleanupExpiredEvents();
  // The clean-up may have taken everything.
  if (events.empty()) {
    unlockCache();
    return nullptr;
  }
  Event* event = events.front();
  EventData data;
  event->getEventData(data);
  QOR_TRACE_STORY("pop event %d", data.eventID);
  data.agentName = withoutBars(data.agentName);
  data.instanceProcName = withoutBars(data.instanceProcName);
  data.osVersion = withoutBars(data.osVersion);
  data.userMessage = withoutBars(data.userMessage);
  record = formatEventRecord(data, withoutBars(event->getLogMessage()));
  events.erase(events.begin());
  unlockCache();
  return event;
}

void Message_Cache::putBackCachedEvent(Event* event) {
  QOR_TRACE_FUNCTION();
  EventData data;
  event->getEventData(data);
  const int id = data.eventID;
  if (!lockCache()) {
    QOR_TRACE_STORY("Error encountered locking cache");
    delete event;
    return;
  }
  // At the head: it is older than everything still cached, and the next
  // collection must deliver it before them. Its age is judged by the next
  // clean-up, as any other entry's.
  events.insert(events.begin(), event);
  unlockCache();
  QOR_TRACE_STORY("Event %d not delivered: put back at the head of the cache.\n", id);
}

namespace {

// Token 1 of a record: the date form, back into a time through mktime.
time_t readRecordDate(const char* token) {
  QOR_TRACE_FUNCTION();
  struct tm date;
  readWireDate(token, date);
  QOR_TRACE_STORY("date %d %d %d %d %d %d %d\n", date.tm_mday, date.tm_mon, date.tm_year, date.tm_hour,
                  date.tm_min, date.tm_sec, date.tm_isdst);
  return mktime(&date);
}

void readInt(RecordTokens& tokens, int& field) {
  const char* token = tokens.next();
  if (token != nullptr) sscanf(token, "%d", &field);
}

void readText(RecordTokens& tokens, std::wstring& field) {
  const char* token = tokens.next();
  if (token != nullptr) field = qor_mbstowcs(token);
}

// Fields 2 to 12 of a record into `data`. A field that is missing leaves the
// constructor's value, and the event goes out all the same.
void readRecordFields(RecordTokens& tokens, EventData& data) {
  readText(tokens, data.agentName);
  readInt(tokens, data.operatingState);
  readInt(tokens, data.managedState);
  readText(tokens, data.instanceProcName);
  readInt(tokens, data.agentType);
  readInt(tokens, data.osType);
  // Kept: the OS version is stored only when its field is missing, which
  // leaves it empty either way: a collected event never carries it.
  if (tokens.next() == nullptr) data.osVersion = std::wstring();
  readInt(tokens, data.procID);
  readInt(tokens, data.spareValue);
  readInt(tokens, data.eventID);
  readText(tokens, data.userMessage);
}

// One record into a RawEvent on the message queue. False when the record has
// no field at all.
bool deliverRecord(const std::string& answer) {
  QOR_TRACE_FUNCTION();
  std::vector<char> buffer(answer.begin(), answer.end());
  buffer.push_back('\0');
  RecordTokens tokens(buffer.data());
  const char* first = tokens.next();
  if (first == nullptr) return false;
  EventData data;
  data.eventTime = readRecordDate(first);
  readRecordFields(tokens, data);
  std::wstring logText;
  const char* last = tokens.next();
  if (last != nullptr) {
    logText = qor_mbstowcs(last);
    QOR_TRACE_STORY("log message being sent: %s \n", last);
  }
  RawEvent event(data);
  event.setLogMessage(logText);
  event.logMessage();
  return true;
}

}  // namespace

void Message_Cache::receiveCachedEvents() {
  QOR_TRACE_FUNCTION();
  // The service collects at its start and whenever the watchdog process
  // asks it to, on two threads. Each record is taken from the cache and then
  // queued here; two collections at once could queue them out of the
  // cache's order, so one waits for the other.
  static std::mutex collecting;
  std::lock_guard<std::mutex> oneAtATime(collecting);
  const std::string request = std::string("622") + " " + "QUERY" + " " + "EVENT_DATA";
  for (;;) {
    std::string answer;
    const int rc = sendWDQuery(request, answer);
    if (rc != 0) {
      QOR_TRACE_STORY("error retrieving event data: %d \n", rc);
      return;
    }
    if (answer.find("$$NODATA") != std::string::npos) {
      QOR_TRACE_STORY("no more events in cache to receive.\n");
      return;
    }
    if (!deliverRecord(answer)) return;
  }
}
