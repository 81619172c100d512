// GET / of a real qorhost: the status page, on the control socket and on the
// read-only TCP listener alike, as one self-contained HTML document. How the
// page behaves in a browser is statuspage_test.py's part.
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/socket.h>

#include <memory>
#include <regex>
#include <string>

#include "qorpage.h"
#include "support/qortest.h"

namespace {

class StatusRoute : public ::testing::Test {
 protected:
  void SetUp() override {
    host.reset(new qortest::Child({qortest::binaryDir() + "/tools/qorhost", "--cap-dir", dir.path(),
                                   "--ip-dir", dir.path(), "--trace-level", "128", "--trace-file",
                                   dir.file("trace"), "--http", "127.0.0.1:0"}));
    ASSERT_TRUE(host->waitForOutput("qorhost: service started", 20000)) << host->out() << host->err();
    const std::string marker = "qorhost: read-only HTTP on 127.0.0.1:";
    const size_t at = host->out().find(marker);
    ASSERT_NE(std::string::npos, at) << host->out();
    port = std::atoi(host->out().c_str() + at + marker.size());
    ASSERT_GT(port, 0) << host->out();
  }
  void TearDown() override {
    if (!host) return;
    host->signal(SIGTERM);
    EXPECT_EQ(0, host->wait(20000)) << host->err();
  }

  std::unique_ptr<httplib::Client> socketClient() {
    std::unique_ptr<httplib::Client> client(new httplib::Client(dir.file("qorhost.sock")));
    client->set_address_family(AF_UNIX);
    return client;
  }
  std::unique_ptr<httplib::Client> tcpClient() {
    return std::unique_ptr<httplib::Client>(new httplib::Client("127.0.0.1", port));
  }

  // The page as `client` gets it, with its status and content type checked.
  static void expectThePage(httplib::Client& client) {
    httplib::Result got = client.Get("/");
    ASSERT_TRUE(got) << httplib::to_string(got.error());
    EXPECT_EQ(200, got->status);
    EXPECT_EQ("text/html; charset=utf-8", got->get_header_value("Content-Type"));
    EXPECT_EQ(qorpage::html(), got->body);
    EXPECT_NE(std::string::npos, got->body.find("<table id=\"agents\">"));
    EXPECT_EQ(std::string::npos, got->body.find("http://"));
    EXPECT_EQ(std::string::npos, got->body.find("https://"));
    // No src or href names another origin, nor any path at all.
    static const std::regex kReference("(src|href)\\s*=\\s*\"([^\"]*)\"");
    for (std::sregex_iterator it(got->body.begin(), got->body.end(), kReference), end; it != end; ++it)
      EXPECT_EQ("data:,", (*it)[2].str()) << (*it)[0].str();
  }

  qortest::TempDir dir;
  std::unique_ptr<qortest::Child> host;
  int port = 0;
};

TEST_F(StatusRoute, GetSlashAnswersTheSelfContainedPageOnTheControlSocket) { expectThePage(*socketClient()); }

TEST_F(StatusRoute, GetSlashAnswersTheSamePageOnTheReadOnlyTcpListener) { expectThePage(*tcpClient()); }

TEST_F(StatusRoute, APostToSlashIsNotAllowedOnTheSocketAndRefusedOnTcp) {
  httplib::Result onSocket = socketClient()->Post("/");
  ASSERT_TRUE(onSocket);
  EXPECT_EQ(405, onSocket->status);
  EXPECT_EQ("GET", onSocket->get_header_value("Allow"));
  httplib::Result onTcp = tcpClient()->Post("/");
  ASSERT_TRUE(onTcp);
  EXPECT_EQ(403, onTcp->status);
  EXPECT_EQ("{\"error\":\"commands are only taken on the unix socket\"}\n", onTcp->body);
}

}  // namespace
