#include "zbiap/platform/http_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testing/http_test_server.h"

namespace zbiap {
namespace {

using testing::HttpTestServer;

struct Outcome {
  std::shared_ptr<const HttpResponse> response;
  ZBIAPErrorPtr error;
  std::thread::id thread;
};

// Sends and waits for the completion (a guard against hangs, not a timing check).
Outcome exchange(HttpClient& client, HttpRequest request) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto future = promise->get_future();
  client.send(std::move(request), [promise](auto response, auto error) {
    promise->set_value({std::move(response), std::move(error), std::this_thread::get_id()});
  });
  if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    ADD_FAILURE() << "no completion";
    return {};
  }
  return future.get();
}

HttpRequest get(std::string url) {
  HttpRequest request;
  request.url = std::move(url);
  return request;
}

class HttpClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& s = server_.server();
    s.Get("/hello", [](const httplib::Request&, httplib::Response& res) {
      res.set_header("X-Custom-Thing", "one");
      res.set_header("X-Custom-Thing", "two");
      res.set_content("hello world", "text/plain");
    });
    s.Post("/echo", [this](const httplib::Request& req, httplib::Response& res) {
      {
        std::lock_guard lock(mutex_);
        lastRequest_ = req;
      }
      res.status = 201;
      res.set_content(req.body, "application/octet-stream");
    });
    s.Get("/status/500", [](const httplib::Request&, httplib::Response& res) {
      res.status = 500;
      res.set_content("{\"error\":true}", "application/json");
    });
    s.Get("/redirect", [](const httplib::Request&, httplib::Response& res) {
      res.set_header("X-Redirect-Only", "yes");
      res.set_redirect("/hello");
    });
    s.Get("/large", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(largeJSON(), "application/json");
    });
    s.Get("/silent", [this](const httplib::Request&, httplib::Response& res) {
      server_.holdUntilReleased();
      res.set_content("late", "text/plain");
    });
    s.Get("/parked", [this](const httplib::Request&, httplib::Response& res) {
      {
        std::lock_guard lock(mutex_);
        maxInFlight_ = std::max(maxInFlight_, ++inFlight_);
      }
      server_.holdUntilReleased();
      {
        std::lock_guard lock(mutex_);
        --inFlight_;
      }
      res.set_content("done", "text/plain");
    });
    s.Get("/cookie", [this](const httplib::Request& req, httplib::Response& res) {
      {
        std::lock_guard lock(mutex_);
        cookiesSeen_.push_back(req.get_header_value("Cookie"));
      }
      res.set_header("Set-Cookie", "session=abc; Path=/");
      res.set_content("ok", "text/plain");
    });
    s.Get(R"(/n/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content("number " + req.matches[1].str(), "text/plain");
    });
    ASSERT_TRUE(server_.start());
  }

  static std::string largeJSON() {
    std::string text = "[";
    for (int i = 0; i < 5000; ++i)
      text += "{\"identifier\":\"com.example.p" + std::to_string(i) + "\"},";
    text.back() = ']';
    return text;
  }

  HttpTestServer server_;
  std::shared_ptr<HttpClient> client_ = HttpClient::createCurl();
  std::mutex mutex_;
  httplib::Request lastRequest_;
  std::vector<std::string> cookiesSeen_;
  int inFlight_ = 0;
  int maxInFlight_ = 0;
};

TEST_F(HttpClientTest, GetAnswersOnTheNetworkThreadWithHeadersAndBody) {
  Outcome out = exchange(*client_, get(server_.url("/hello")));
  ASSERT_EQ(out.error, nullptr);
  ASSERT_NE(out.response, nullptr);
  EXPECT_NE(out.thread, std::this_thread::get_id());
  EXPECT_EQ(out.response->statusCode, 200);
  EXPECT_EQ(out.response->bodyText(), "hello world");
  EXPECT_EQ(out.response->url, server_.url("/hello"));
  EXPECT_EQ(out.response->headerValue("content-type"), "text/plain");
  EXPECT_EQ(out.response->headerValue("X-CUSTOM-THING"), "one, two");
  EXPECT_EQ(out.response->headerValue("x-custom-thing"), "one, two");
  EXPECT_EQ(out.response->headerValue("X-Absent"), std::nullopt);
}

TEST_F(HttpClientTest, PostSendsMethodBodyAndHeaders) {
  HttpRequest request;
  request.method = "POST";
  request.url = server_.url("/echo");
  request.setHeader("Accept", "application/vnd.example+json");
  request.setHeader("Content-Type", "application/json");
  request.setHeader("content-type", "application/json; charset=utf-8");  // replaces
  request.setHeader("Accept-Language", "en-US;q=1");
  std::string body = "{\"store_country\":\"DE\",\"bytes\":\"\\u0000\"}";
  body.push_back('\0');
  request.setBody(body);

  Outcome out = exchange(*client_, request);
  ASSERT_NE(out.response, nullptr) << out.error->description();
  EXPECT_EQ(out.response->statusCode, 201);
  EXPECT_EQ(out.response->bodyText(), body);
  std::lock_guard lock(mutex_);
  EXPECT_EQ(lastRequest_.method, "POST");
  EXPECT_EQ(lastRequest_.body, body);
  EXPECT_EQ(lastRequest_.get_header_value("Accept"), "application/vnd.example+json");
  EXPECT_EQ(lastRequest_.get_header_value_count("Content-Type"), 1u);
  EXPECT_EQ(lastRequest_.get_header_value("Content-Type"), "application/json; charset=utf-8");
  EXPECT_EQ(lastRequest_.get_header_value("Accept-Language"), "en-US;q=1");
  EXPECT_EQ(lastRequest_.get_header_value("Accept-Encoding"), "gzip, deflate");
  EXPECT_FALSE(lastRequest_.has_header("Expect"));
}

TEST_F(HttpClientTest, CompressedBodyComesBackDecoded) {
  Outcome out = exchange(*client_, get(server_.url("/large")));
  ASSERT_NE(out.response, nullptr) << out.error->description();
  EXPECT_EQ(out.response->headerValue("Content-Encoding"), "gzip");
  EXPECT_EQ(out.response->bodyText(), largeJSON());
}

TEST_F(HttpClientTest, AnyStatusIsAnAnswer) {
  Outcome out = exchange(*client_, get(server_.url("/status/500")));
  ASSERT_NE(out.response, nullptr);
  EXPECT_EQ(out.error, nullptr);
  EXPECT_EQ(out.response->statusCode, 500);
  EXPECT_EQ(out.response->bodyText(), "{\"error\":true}");
  out = exchange(*client_, get(server_.url("/nowhere")));
  ASSERT_NE(out.response, nullptr);
  EXPECT_EQ(out.response->statusCode, 404);
}

TEST_F(HttpClientTest, RedirectsAreFollowedAndOnlyTheFinalHeadersKept) {
  Outcome out = exchange(*client_, get(server_.url("/redirect")));
  ASSERT_NE(out.response, nullptr);
  EXPECT_EQ(out.response->statusCode, 200);
  EXPECT_EQ(out.response->url, server_.url("/hello"));
  EXPECT_EQ(out.response->bodyText(), "hello world");
  EXPECT_EQ(out.response->headerValue("X-Redirect-Only"), std::nullopt);
}

TEST_F(HttpClientTest, NothingIsKeptBetweenRequests) {
  ASSERT_NE(exchange(*client_, get(server_.url("/cookie"))).response, nullptr);
  ASSERT_NE(exchange(*client_, get(server_.url("/cookie"))).response, nullptr);
  std::lock_guard lock(mutex_);
  ASSERT_EQ(cookiesSeen_.size(), 2u);
  EXPECT_EQ(cookiesSeen_[1], "");
}

TEST_F(HttpClientTest, ManyConcurrentRequestsEachGetTheirOwnAnswer) {
  constexpr int kCount = 64;
  std::mutex mutex;
  std::vector<std::string> bodies(kCount);
  std::atomic<int> done = 0;
  std::promise<void> all;
  for (int i = 0; i < kCount; ++i) {
    client_->send(get(server_.url("/n/" + std::to_string(i))), [&, i](auto response, auto error) {
      {
        std::lock_guard lock(mutex);
        bodies[i] = response ? std::string(response->bodyText()) : error->description();
      }
      if (++done == kCount) all.set_value();
    });
  }
  ASSERT_EQ(all.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
  for (int i = 0; i < kCount; ++i) EXPECT_EQ(bodies[i], "number " + std::to_string(i));
}

TEST_F(HttpClientTest, ConnectionsPerHostAreLimited) {
  HttpClient::Options options;
  options.maxConnectionsPerHost = 3;
  auto client = HttpClient::createCurl(options);
  constexpr int kCount = 7;
  std::atomic<int> answered = 0;
  std::promise<void> all;
  for (int i = 0; i < kCount; ++i) {
    client->send(get(server_.url("/parked")), [&](auto response, auto) {
      if (response && response->statusCode == 200 && ++answered == kCount) all.set_value();
    });
  }
  while (server_.heldCount() < 3) std::this_thread::yield();
  server_.release();
  ASSERT_EQ(all.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  std::lock_guard lock(mutex_);
  EXPECT_EQ(maxInFlight_, 3);
}

TEST_F(HttpClientTest, SendFromACompletionWorks) {
  std::promise<std::string> second;
  client_->send(get(server_.url("/hello")), [&](auto, auto) {
    client_->send(get(server_.url("/n/2")), [&](auto response, auto) {
      second.set_value(response ? std::string(response->bodyText()) : "error");
    });
  });
  auto future = second.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(future.get(), "number 2");
}

TEST_F(HttpClientTest, SilentServerTimesOut) {
  HttpClient::Options options;
  options.maxTimeout = std::chrono::milliseconds(300);
  auto client = HttpClient::createCurl(options);
  Outcome out = exchange(*client, get(server_.url("/silent")));
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.response, nullptr);
  EXPECT_EQ(out.error->domain(), kNSURLErrorDomain);
  EXPECT_EQ(out.error->code(), kNSURLErrorTimedOut);
  EXPECT_EQ(out.error->userInfo()[kNSErrorFailingURLStringKey], Value(server_.url("/silent")));
  EXPECT_EQ(out.error->userInfo()[kNSLocalizedDescriptionKey], Value("The request timed out."));
}

TEST_F(HttpClientTest, DestroyingTheClientCancelsWhatIsRunning) {
  std::promise<ZBIAPErrorPtr> result;
  client_->send(get(server_.url("/silent")),
                [&](auto, ZBIAPErrorPtr error) { result.set_value(error); });
  while (server_.heldCount() == 0) std::this_thread::yield();
  client_.reset();  // completes before returning
  auto future = result.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  auto error = future.get();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), kNSURLErrorCancelled);
}

TEST_F(HttpClientTest, TransportFailuresMapToURLErrors) {
  HttpTestServer closed;
  ASSERT_TRUE(closed.start());
  std::string closedURL = closed.url("/");
  closed.stop();
  Outcome out = exchange(*client_, get(closedURL));
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->domain(), kNSURLErrorDomain);
  EXPECT_EQ(out.error->code(), kNSURLErrorCannotConnectToHost);

  out = exchange(*client_, get("ftp://127.0.0.1/file"));
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->code(), kNSURLErrorUnsupportedURL);

  out = exchange(*client_, get("http://[::1"));
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->code(), kNSURLErrorBadURL);

  out = exchange(*client_, get(""));
  ASSERT_NE(out.error, nullptr);
  EXPECT_NE(out.error->code(), 0);
}

TEST_F(HttpClientTest, BadRequestsFailWithoutReachingTheServer) {
  HttpRequest injected = get(server_.url("/hello"));
  injected.setHeader("X-Evil", "a\r\nX-Injected: 1");
  Outcome out = exchange(*client_, injected);
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->code(), kNSURLErrorUnknown);

  HttpRequest badMethod = get(server_.url("/hello"));
  badMethod.method = "GET /other";
  out = exchange(*client_, badMethod);
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->code(), kNSURLErrorUnknown);
}

TEST_F(HttpClientTest, OversizedBodyFails) {
  HttpClient::Options options;
  options.maxResponseBytes = 1000;
  auto client = HttpClient::createCurl(options);
  Outcome out = exchange(*client, get(server_.url("/large")));
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.error->code(), kNSURLErrorDataLengthExceedsMaximum);
  EXPECT_NE(exchange(*client, get(server_.url("/hello"))).response, nullptr);
}

TEST(HttpClientSharedTest, InstalledClientReplacesTheDefault) {
  auto fallback = HttpClient::shared();
  ASSERT_NE(fallback, nullptr);
  EXPECT_EQ(HttpClient::shared(), fallback);
  auto mine = HttpClient::createCurl();
  EXPECT_EQ(HttpClient::installShared(mine), nullptr);
  EXPECT_EQ(HttpClient::shared(), mine);
  EXPECT_EQ(HttpClient::installShared(nullptr), mine);
  EXPECT_EQ(HttpClient::shared(), fallback);
}

}  // namespace
}  // namespace zbiap
