// The ring of events behind GET /v1/events, fed through its two listeners as
// the service's message thread feeds them: numbering, the limit of 1000, the
// alert that marks its log entry, and the counts per id.
#include "qoreventring.h"

#include <gtest/gtest.h>

#include <string>

#include "qorview.h"

namespace {

void hear(qorring::RingLogListener& listener, time_t time, int id, const std::wstring& text) {
  listener.logData.eventTime = time;
  listener.logData.eventID = id;
  listener.logData.logMessage = text;
  listener.AlertMe();
}

void alert(qorring::RingAlertListener& listener, time_t time, int id, const std::wstring& agent) {
  listener.alertData.eventTime = time;
  listener.alertData.eventID = id;
  listener.alertData.agentName = agent;
  listener.alertData.userMessage = L"N/A";
  listener.AlertMe();
}

}  // namespace

TEST(EventRing, Of1005EventsTheLast1000AreKeptNumberedFrom6To1005) {
  qorring::EventRing ring;
  qorring::RingLogListener log(ring);
  for (int i = 1; i <= 1005; ++i)
    hear(log, 1000 + i, i % 7, L"Agent " + std::to_wstring(i) + L" Management Event: Agent now managed.");
  qorring::EventRing::Slice all = ring.since(0);
  ASSERT_EQ(1000u, all.events.size());
  EXPECT_EQ(1005u, all.last);
  EXPECT_EQ(6u, all.events.front().seq);
  EXPECT_EQ(1006, all.events.front().time);
  EXPECT_EQ("Agent 6", all.events.front().agent);
  EXPECT_EQ("Agent 6 Management Event: Agent now managed.", all.events.front().text);
  EXPECT_EQ(1005u, all.events.back().seq);
  for (size_t i = 1; i < all.events.size(); ++i) EXPECT_EQ(all.events[i - 1].seq + 1, all.events[i].seq);

  qorring::EventRing::Slice after = ring.since(1000);
  ASSERT_EQ(5u, after.events.size());
  EXPECT_EQ(1001u, after.events.front().seq);
  EXPECT_EQ(1005u, after.last);
  EXPECT_TRUE(ring.since(1005).events.empty());
  EXPECT_TRUE(ring.since(999999).events.empty());
  // Dropped events still count.
  uint64_t total = 0;
  for (const auto& count : ring.counts()) total += count.second;
  EXPECT_EQ(1005u, total);
  EXPECT_EQ(143u, ring.counts()[0]);  // 7, 14, ... 1001
}

TEST(EventRing, AnEmptyRingAnswersNoEventsAndLastZero) {
  qorring::EventRing ring;
  EXPECT_TRUE(ring.since(0).events.empty());
  EXPECT_EQ(0u, ring.since(0).last);
  EXPECT_TRUE(ring.counts().empty());
}

TEST(EventRing, AnAlertMarksTheLogEntryOfItsEventInsteadOfAddingOne) {
  qorring::EventRing ring;
  qorring::RingLogListener log(ring);
  qorring::RingAlertListener alerts(ring);
  hear(log, 50, 7, L"Worker - second - Operational Event: Agent started successfully.");
  hear(log, 60, 8, L"Worker - second - Operational Event: Agent stopped abnormally.");
  alert(alerts, 60, 8, L"Worker");
  // An alert with no log entry before it stands alone.
  alert(alerts, 70, 27, L"");
  qorring::EventRing::Slice all = ring.since(0);
  ASSERT_EQ(3u, all.events.size());
  EXPECT_EQ("Worker", all.events[0].agent);
  EXPECT_FALSE(all.events[0].alert);
  EXPECT_EQ(2u, all.events[1].seq);
  EXPECT_EQ(8, all.events[1].id);
  EXPECT_TRUE(all.events[1].alert);
  EXPECT_EQ("Worker - second - Operational Event: Agent stopped abnormally.", all.events[1].text);
  EXPECT_EQ(3u, all.events[2].seq);
  EXPECT_EQ(27, all.events[2].id);
  EXPECT_TRUE(all.events[2].alert);
  EXPECT_EQ("N/A", all.events[2].text);
  EXPECT_EQ(1u, ring.counts()[8]);
}

TEST(EventRing, TheAgentOfALogTextIsFoundForAgentEventsOnly) {
  EXPECT_EQ("Disk agent", qorring::agentOfLogText("Disk agent Operational Event: Agent not found"));
  EXPECT_EQ("Disk agent",
            qorring::agentOfLogText("Disk agent - inst1 - Management Event: Agent now managed."));
  EXPECT_EQ("Disk agent", qorring::agentOfLogText("Disk agent Availability checked at Mon Jan  1"));
  EXPECT_EQ("", qorring::agentOfLogText("/etc/cap/a.xml CAP File Event: Agent added to system"));
  EXPECT_EQ("", qorring::agentOfLogText(" Watchdog Event: Disarm completed successfully"));
}

TEST(EventRing, WideTextBecomesUtf8WhateverTheLocale) {
  EXPECT_EQ("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", qorring::utf8(L"caf\u00E9 \u20AC \U0001F600"));
  // A lone surrogate is no character.
  EXPECT_EQ("a\xEF\xBF\xBD", qorring::utf8(std::wstring(L"a") + static_cast<wchar_t>(0xD800)));
  // Nor is a number past the last code point.
  EXPECT_EQ("\xEF\xBF\xBDz", qorring::utf8(std::wstring(1, static_cast<wchar_t>(0x110000)) + L"z"));
}

TEST(MetricsLabels, BackslashQuoteAndNewlineAreEscaped) {
  EXPECT_EQ("a\\\\b \\\"c\\\" d\\ne", qorview::escapeLabel("a\\b \"c\" d\ne"));
  EXPECT_EQ("plain", qorview::escapeLabel("plain"));
}
