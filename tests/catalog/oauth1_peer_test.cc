// Our signatures judged by an independent OAuth 1.0 implementation: testing/oauth_peer.py
// checks every request it receives with python3-oauthlib.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <string>

#include "catalog/oauth1_signer.h"
#include "testing/testdata.h"
#include "zbiap/platform/http_client.h"

extern char** environ;

namespace zbiap {
namespace {

constexpr char kPython[] = "/usr/bin/python3";
constexpr char kConsumerKey[] = "zbiap-test-consumer";
constexpr char kConsumerSecret[] = "s3cr*t&=%/ key";

// Runs the peer and reads the port it announces.
class OAuthPeer {
 public:
  OAuthPeer() {
    int fds[2];
    if (pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::string script = (testing::sourceDir() / "testing" / "oauth_peer.py").string();
    const char* argv[] = {kPython, script.c_str(), kConsumerKey, kConsumerSecret, "_", "", nullptr};
    if (posix_spawn(&pid_, kPython, &actions, nullptr, const_cast<char**>(argv), environ) != 0) {
      pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    FILE* out = fdopen(fds[0], "r");
    char line[64] = {};
    if (out && fgets(line, sizeof(line), out)) sscanf(line, "PORT %d", &port_);
    if (out) fclose(out);
  }
  ~OAuthPeer() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  OAuthPeer(const OAuthPeer&) = delete;
  OAuthPeer& operator=(const OAuthPeer&) = delete;

  bool running() const { return pid_ > 0 && port_ > 0; }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
};

class OAuth1PeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kPython, X_OK) != 0) GTEST_SKIP() << "no " << kPython;
    peer_ = std::make_unique<OAuthPeer>();
    if (!peer_->running()) GTEST_SKIP() << "the OAuth peer did not start (python3-oauthlib?)";
  }

  // The peer's status and report: 200 when the signature holds, 401 when not.
  std::string send(HttpRequest request) {
    std::promise<std::string> promise;
    client_->send(std::move(request), [&](auto response, auto error) {
      promise.set_value(response ? std::to_string(response->statusCode) + " " +
                                       std::string(response->bodyText())
                                 : error->description());
    });
    auto future = promise.get_future();
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return "no answer";
    return future.get();
  }

  std::unique_ptr<OAuthPeer> peer_;
  std::shared_ptr<HttpClient> client_ = HttpClient::createCurl();
  std::shared_ptr<OAuth1Signer> signer_ = OAuth1Signer::create(kConsumerKey, kConsumerSecret, "_");
};

// The catalogue request, and queries and form bodies with awkward characters; and the peer does
// judge: a request signed with another secret fails.
TEST_F(OAuth1PeerTest, AcceptsSignedRequestsOnly) {
  HttpRequest catalogue;
  catalogue.method = "POST";
  catalogue.url = peer_->url("/api/v1/in_app_purchases/products_description");
  catalogue.setHeader("Accept", "application/vnd.zbiap.v1+json");
  catalogue.setHeader("Content-Type", "application/json");
  catalogue.setBody(R"({"client_device":"Linux PC","store_country":"DE"})");
  HttpRequest get;
  get.url = peer_->url("/v1/users/products?q=a+b%2Bc&empty=&name=%E2%82%AC%20x&dup=2&dup=1&flag");
  HttpRequest form;
  form.method = "POST";
  form.url = peer_->url("/form?z=1");
  form.setHeader("Content-Type", "application/x-www-form-urlencoded");
  form.setBody("status=Hello%20Ladies%20%2B%20Gentlemen&a=%C3%A6%C3%A5%C3%B8&b=~-._*");
  for (HttpRequest& request : {std::ref(catalogue), std::ref(get), std::ref(form)}) {
    HttpRequest other = request;
    ASSERT_TRUE(signer_->authorizeRequest(request));
    EXPECT_THAT(send(request), ::testing::StartsWith("200 "));
    ASSERT_TRUE(OAuth1Signer::create(kConsumerKey, "other secret", "_")->authorizeRequest(other));
    EXPECT_THAT(send(other), ::testing::StartsWith("401 "));
  }
}

}  // namespace
}  // namespace zbiap
