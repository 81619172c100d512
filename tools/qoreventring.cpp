#include "qoreventring.h"

#include <unicode/unistr.h>

#include <utility>

namespace qorring {

void EventRing::append(time_t time, int id, const std::string& agent, const std::string& text, bool alert) {
  HeardEvent event;
  event.seq = ++last_;
  event.time = time;
  event.id = id;
  event.agent = agent;
  event.text = text;
  event.alert = alert;
  ++counts_[id];
  events_.push_back(std::move(event));
  while (events_.size() > capacity_) events_.pop_front();
}
void EventRing::push(time_t time, int id, const std::string& agent, const std::string& text, bool alert) {
  std::lock_guard<std::mutex> hold(mutex_);
  append(time, id, agent, text, alert);
}

void EventRing::markAlert(time_t time, int id, const std::string& agent, const std::string& text) {
  std::lock_guard<std::mutex> hold(mutex_);
  // Both listeners run on the service's message thread, the log listeners
  // first: the alert for an event follows its log entry at once.
  if (!events_.empty()) {
    HeardEvent& newest = events_.back();
    if (newest.id == id && newest.time == time && !newest.alert) {
      newest.alert = true;
      if (!agent.empty()) newest.agent = agent;
      return;
    }
  }
  append(time, id, agent, text, true);
}

EventRing::Slice EventRing::since(uint64_t since) const {
  Slice slice;
  std::lock_guard<std::mutex> hold(mutex_);
  slice.last = last_;
  for (const HeardEvent& event : events_) {
    if (event.seq > since) slice.events.push_back(event);
  }
  return slice;
}

std::map<int, uint64_t> EventRing::counts() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return counts_;
}

std::string utf8(const std::wstring& text) {
  // A wide character holds a code point; one that is none (a surrogate, or
  // past U+10FFFF) becomes U+FFFD, so that the JSON is always valid UTF-8.
  static_assert(sizeof(wchar_t) == sizeof(UChar32), "wide characters are code points");
  std::string out;
  icu::UnicodeString::fromUTF32(reinterpret_cast<const UChar32*>(text.data()),
                                static_cast<int32_t>(text.size()))
      .toUTF8String(out);
  return out;
}

std::string agentOfLogText(const std::string& text) {
  static const char* const kMarkers[] = {
      " Operational Event: ", " Management Event: ", " Availability checked at "};
  for (const char* marker : kMarkers) {
    const size_t at = text.find(marker);
    if (at == std::string::npos) continue;
    std::string agent = text.substr(0, at);
    // An instance's events read "NAME - INSTANCE - Operational Event: ...".
    if (agent.size() >= 2 && agent.compare(agent.size() - 2, 2, " -") == 0) {
      const size_t fragment = agent.rfind(" - ", agent.size() - 2);
      if (fragment != std::string::npos) agent.erase(fragment);
    }
    return agent;
  }
  return std::string();
}

void RingLogListener::AlertMe() {
  const std::string text = utf8(logData.logMessage);
  ring_.push(logData.eventTime, logData.eventID, agentOfLogText(text), text, false);
}

void RingAlertListener::AlertMe() {
  ring_.markAlert(alertData.eventTime, alertData.eventID, utf8(alertData.agentName),
                  utf8(alertData.userMessage));
}

}  // namespace qorring
