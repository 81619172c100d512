// The status page qorhost serves at GET /: one self-contained HTML document
// (its style and script inline, nothing fetched from anywhere but its own
// origin's /v1 endpoints), so that it works on a host without Internet access.
// Pure and constant: safe from any thread.
#ifndef QOR_TOOLS_QORPAGE_H
#define QOR_TOOLS_QORPAGE_H

#include <string>

namespace qorpage {

// The content type the page is served with.
extern const char kContentType[];

// The page, the same bytes on every call.
const std::string& html();

}  // namespace qorpage

#endif  // QOR_TOOLS_QORPAGE_H
