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
  if (future.wait_for(std::chrono::seconds(30)) == std::future_status::ready) return future.get();
  ADD_FAILURE() << "no completion";
  return {};
}

HttpRequest get(std::string url) {
  HttpRequest request;
  request.url = std::move(url);
  return request;
}

std::string largeJSON() {
  std::string text = "[";
  for (int i = 0; i < 5000; ++i)
    text += "{\"identifier\":\"com.example.p" + std::to_string(i) + "\"},";
  text.back() = ']';
  return text;
}

class HttpClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& s = server_.server();
    s.Get("/hello", [](const httplib::Request&, httplib::Response& res) {
      res.set_header("X-Custom-Thing", "one");
      res.set_header("X-Custom-Thing", "two");
      res.set_header("Set-Cookie", "session=abc; Path=/");
      res.set_content("hello world", "text/plain");
    });
    s.Post("/echo", [this](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard lock(mutex_);
      seen_.push_back(req);
      res.status = 201;
      res.set_content(req.body, "application/octet-stream");
    });
    s.Get("/redirect", [](const httplib::Request&, httplib::Response& res) {
      res.set_header("X-Redirect-Only", "yes");
      res.set_redirect("/hello");
    });
    s.Get("/large", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(largeJSON(), "application/json");
    });
    s.Get(R"(/parked/(\d+))", [this](const httplib::Request& req, httplib::Response& res) {
      {
        std::lock_guard lock(mutex_);
        seen_.push_back(req);
        maxInFlight_ = std::max(maxInFlight_, ++inFlight_);
      }
      server_.holdUntilReleased();
      std::lock_guard lock(mutex_);
      --inFlight_;
      res.set_content("number " + req.matches[1].str(), "text/plain");
    });
    ASSERT_TRUE(server_.start());
  }

  HttpTestServer server_;
  std::shared_ptr<HttpClient> client_ = HttpClient::createCurl();
  std::mutex mutex_;
  std::vector<httplib::Request> seen_;
  int inFlight_ = 0;
  int maxInFlight_ = 0;
};

TEST_F(HttpClientTest, AnswersOnTheNetworkThreadWithAnyStatus) {
  Outcome out = exchange(*client_, get(server_.url("/hello")));
  ASSERT_NE(out.response, nullptr);
  EXPECT_EQ(out.error, nullptr);
  EXPECT_NE(out.thread, std::this_thread::get_id());
  EXPECT_EQ(out.response->statusCode, 200);
  EXPECT_EQ(out.response->bodyText(), "hello world");
  EXPECT_EQ(out.response->url, server_.url("/hello"));
  EXPECT_EQ(out.response->headerValue("content-type"), "text/plain");
  // Repeated headers are joined with ", " and found in any case.
  EXPECT_EQ(out.response->headerValue("X-CUSTOM-THING"), "one, two");
  EXPECT_EQ(out.response->headerValue("X-Absent"), std::nullopt);

  // Any status is an answer.
  EXPECT_EQ(exchange(*client_, get(server_.url("/nowhere"))).response->statusCode, 404);

  // Redirects are followed and only the final headers kept.
  out = exchange(*client_, get(server_.url("/redirect")));
  EXPECT_EQ(out.response->url, server_.url("/hello"));
  EXPECT_EQ(out.response->bodyText(), "hello world");
  EXPECT_EQ(out.response->headerValue("X-Redirect-Only"), std::nullopt);

  // A compressed body comes back decoded.
  out = exchange(*client_, get(server_.url("/large")));
  EXPECT_EQ(out.response->headerValue("Content-Encoding"), "gzip");
  EXPECT_EQ(out.response->bodyText(), largeJSON());
}

TEST_F(HttpClientTest, PostSendsMethodBodyAndHeadersAndNoCookie) {
  HttpRequest request;
  request.method = "POST";
  request.url = server_.url("/echo");
  request.setHeader("Accept", "application/vnd.example+json");
  request.setHeader("Content-Type", "application/json");
  request.setHeader("content-type", "application/json; charset=utf-8");  // replaces
  std::string body = "{\"store_country\":\"DE\",\"bytes\":\"\\u0000\"}";
  body.push_back('\0');
  request.setBody(body);
  ASSERT_NE(exchange(*client_, get(server_.url("/hello"))).response, nullptr);  // sets a cookie

  Outcome out = exchange(*client_, request);
  ASSERT_NE(out.response, nullptr) << out.error->description();
  EXPECT_EQ(out.response->statusCode, 201);
  EXPECT_EQ(out.response->bodyText(), body);
  std::lock_guard lock(mutex_);
  const httplib::Request& seen = seen_.back();
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.body, body);
  EXPECT_EQ(seen.get_header_value("Accept"), "application/vnd.example+json");
  EXPECT_EQ(seen.get_header_value_count("Content-Type"), 1u);
  EXPECT_EQ(seen.get_header_value("Content-Type"), "application/json; charset=utf-8");
  EXPECT_EQ(seen.get_header_value("Accept-Encoding"), "gzip, deflate");
  EXPECT_FALSE(seen.has_header("Expect"));
  EXPECT_FALSE(seen.has_header("Cookie"));
}

// Requests beyond the limit wait for a connection; each gets its own answer.
TEST_F(HttpClientTest, ConnectionsPerHostAreLimited) {
  HttpClient::Options options;
  options.maxConnectionsPerHost = 3;
  auto client = HttpClient::createCurl(options);
  constexpr int kCount = 7;
  std::vector<std::string> bodies(kCount);
  std::atomic<int> answered = 0;
  std::promise<void> all;
  for (int i = 0; i < kCount; ++i) {
    client->send(get(server_.url("/parked/" + std::to_string(i))), [&, i](auto response, auto) {
      bodies[i] = response ? std::string(response->bodyText()) : "error";
      if (++answered == kCount) all.set_value();
    });
  }
  while (server_.heldCount() < 3) std::this_thread::yield();
  server_.release();
  ASSERT_EQ(all.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  for (int i = 0; i < kCount; ++i) EXPECT_EQ(bodies[i], "number " + std::to_string(i));
  std::lock_guard lock(mutex_);
  EXPECT_EQ(maxInFlight_, 3);
}

TEST_F(HttpClientTest, SendFromACompletionWorks) {
  std::promise<std::string> second;
  client_->send(get(server_.url("/hello")), [&](auto, auto) {
    client_->send(get(server_.url("/hello")), [&](auto response, auto) {
      second.set_value(response ? std::string(response->bodyText()) : "error");
    });
  });
  auto future = second.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(future.get(), "hello world");
}

TEST_F(HttpClientTest, SilentServerTimesOutAndDestroyingTheClientCancels) {
  HttpClient::Options options;
  options.maxTimeout = std::chrono::milliseconds(300);
  Outcome out = exchange(*HttpClient::createCurl(options), get(server_.url("/parked/1")));
  ASSERT_NE(out.error, nullptr);
  EXPECT_EQ(out.response, nullptr);
  EXPECT_EQ(out.error->domain(), kNSURLErrorDomain);
  EXPECT_EQ(out.error->code(), kNSURLErrorTimedOut);
  EXPECT_EQ(out.error->userInfo()[kNSErrorFailingURLStringKey], Value(server_.url("/parked/1")));
  EXPECT_EQ(out.error->userInfo()[kNSLocalizedDescriptionKey], Value("The request timed out."));

  std::promise<ZBIAPErrorPtr> result;
  client_->send(get(server_.url("/parked/2")),
                [&](auto, ZBIAPErrorPtr error) { result.set_value(error); });
  while (server_.heldCount() < 2) std::this_thread::yield();
  client_.reset();  // completes before returning
  auto future = result.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  EXPECT_EQ(future.get()->code(), kNSURLErrorCancelled);
}

TEST_F(HttpClientTest, FailuresMapToURLErrors) {
  HttpTestServer closed;
  ASSERT_TRUE(closed.start());
  std::string closedURL = closed.url("/");
  closed.stop();
  HttpRequest injected = get(server_.url("/hello"));
  injected.setHeader("X-Evil", "a\r\nX-Injected: 1");
  HttpRequest badMethod = get(server_.url("/hello"));
  badMethod.method = "GET /other";
  const std::pair<HttpRequest, int64_t> rows[] = {
      {get(closedURL), kNSURLErrorCannotConnectToHost},
      {get("ftp://127.0.0.1/file"), kNSURLErrorUnsupportedURL},
      {get("http://[::1"), kNSURLErrorBadURL},
      {get(""), kNSURLErrorBadURL},
      // Requests that would smuggle another request never reach the server.
      {injected, kNSURLErrorUnknown},
      {badMethod, kNSURLErrorUnknown},
  };
  for (const auto& [request, code] : rows) {
    Outcome out = exchange(*client_, request);
    ASSERT_NE(out.error, nullptr) << request.url;
    EXPECT_EQ(out.error->domain(), kNSURLErrorDomain);
    EXPECT_EQ(out.error->code(), code) << request.url;
  }

  HttpClient::Options options;
  options.maxResponseBytes = 1000;
  auto small = HttpClient::createCurl(options);
  EXPECT_EQ(exchange(*small, get(server_.url("/large"))).error->code(),
            kNSURLErrorDataLengthExceedsMaximum);
  EXPECT_NE(exchange(*small, get(server_.url("/hello"))).response, nullptr);
}

}  // namespace
}  // namespace zbiap
