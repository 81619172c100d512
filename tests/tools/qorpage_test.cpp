// The status page's document: what a browser needs from it and what it must
// never hold. The page in a browser is tested by statuspage_test.py.
#include "qorpage.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const std::string& page() { return qorpage::html(); }

bool holds(const std::string& text) { return page().find(text) != std::string::npos; }

int count(const std::string& text) {
  int found = 0;
  for (size_t at = page().find(text); at != std::string::npos; at = page().find(text, at + 1)) ++found;
  return found;
}

TEST(StatusPage, IsOneHtmlDocumentServedAsHtml) {
  EXPECT_STREQ("text/html; charset=utf-8", qorpage::kContentType);
  EXPECT_EQ(0u, page().rfind("<!DOCTYPE html>\n<html lang=\"en\">\n", 0));
  EXPECT_EQ("</html>\n", page().substr(page().size() - 8));
  EXPECT_TRUE(holds("<meta charset=\"utf-8\">"));
  // The same bytes on every call.
  EXPECT_EQ(&qorpage::html(), &page());
}

TEST(StatusPage, HoldsTheElementsTheOperatorAndTheBrowserTestRelyOn) {
  for (const char* id : {"id=\"agents\"", "id=\"events\"", "id=\"result\"", "id=\"connection\"",
                         "id=\"title\"", "id=\"updated\""})
    EXPECT_EQ(1, count(id)) << id;
  for (const char* text :
       {"\"stop\", \"start\", \"recycle\", \"reset\"", "\"data-agent\"", "\"data-command\"",
        "\"state state-\"", "\"GAVE UP\"", "\"qor on \"", "REFRESH_MS = 2000",
        "setInterval(refresh, REFRESH_MS)", "encodeURIComponent(name)", "{method: \"POST\"}", "\"v1/agents\"",
        "\"v1/events?since=\" + since", "response.status === 403"})
    EXPECT_TRUE(holds(text)) << text;
}

TEST(StatusPage, ColoursEachStateWordAsTheOperatorReadsIt) {
  EXPECT_TRUE(holds(".state-running { background: #c6efc6;"));
  EXPECT_TRUE(holds(".state-down, .state-not_found { background: #f7c6c6;"));
  EXPECT_TRUE(holds(".state-starting, .state-stopping { background: #fde2a8;"));
  EXPECT_TRUE(holds(".state-stopped, .state-unknown, .state-not_configured { background: #e0e0e0;"));
}

TEST(StatusPage, NamesNoOtherOriginSoThatItWorksWithoutTheInternet) {
  // No double slash at all: no scheme, no protocol-relative address, and no
  // line comment in the script that could hide one.
  EXPECT_FALSE(holds("//"));
  EXPECT_FALSE(holds("http:"));
  EXPECT_FALSE(holds("https:"));
  // Nothing is loaded by the document itself but its inline parts.
  EXPECT_FALSE(holds("src="));
  EXPECT_FALSE(holds("@import"));
  EXPECT_FALSE(holds("url("));
  EXPECT_FALSE(holds("<link rel=\"stylesheet\""));
  // The one link: an empty icon, so that the browser asks for no favicon.
  EXPECT_TRUE(holds("<link rel=\"icon\" href=\"data:,\">"));
  EXPECT_EQ(1, count("href="));
}

TEST(StatusPage, PutsTheServicesTextsIntoThePageAsTextOnly) {
  for (const char* markup :
       {"innerHTML", "outerHTML", "insertAdjacentHTML", "document.write", "eval(", "new Function"})
    EXPECT_FALSE(holds(markup)) << markup;
  EXPECT_TRUE(holds(".textContent ="));
  EXPECT_TRUE(holds("document.createTextNode((event.alert ? \" \" : \"\") + String(event.text))"));
}

}  // namespace
