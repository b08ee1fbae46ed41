// The development account server over real loopback HTTP, through the platform's client.
#include "zbiap/devserver/account_server.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <future>
#include <string>

#include "zbiap/foundation/json.h"
#include "zbiap/platform/http_client.h"

namespace zbiap {
namespace {

using Product = AccountServer::Product;

const Date kMarch = Date::fromMicrosSince1970(1709633630LL * 1000000);  // 2024-03-05 10:13:50

class AccountServerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.start()); }

  // GET `url` with an optional Authorization value; waits for the answer.
  std::shared_ptr<const HttpResponse> get(const std::string& url,
                                          std::optional<std::string> authorization) {
    HttpRequest request;
    request.url = url;
    if (authorization) request.setHeader("Authorization", *authorization);
    std::promise<std::shared_ptr<const HttpResponse>> answer;
    client_->send(request, [&](std::shared_ptr<const HttpResponse> response, ZBIAPErrorPtr) {
      answer.set_value(std::move(response));
    });
    return answer.get_future().get();
  }
  std::shared_ptr<const HttpResponse> products(std::optional<std::string> authorization) {
    return get(server_.baseURL() + "v1/users/products", std::move(authorization));
  }

  AccountServer server_;
  std::shared_ptr<HttpClient> client_ = HttpClient::createCurl();
};

TEST_F(AccountServerTest, AnswersTheAccountOfTheBearerToken) {
  server_.setProducts("alice", {Product::make("com.example.pro", kMarch),
                                Product::make("com.example.sub", kMarch, kMarch)});
  server_.setExistingCustomer("alice", true);
  server_.addProduct("bob", Product{"com.example.bob", "2024-03-05T10:13:50+01:00", {}});

  auto alice = products("Bearer alice");
  ASSERT_TRUE(alice);
  EXPECT_EQ(alice->statusCode, 200);
  EXPECT_EQ(alice->headerValue("Content-Type"), "application/json");
  std::optional<Value> body = parseJSON(alice->bodyText());
  ASSERT_TRUE(body);
  EXPECT_EQ(*body, *parseJSON(R"({"products":[)"
                              R"({"product_identifier":"com.example.pro",)"
                              R"("purchased_at":"2024-03-05T10:13:50Z"},)"
                              R"({"product_identifier":"com.example.sub",)"
                              R"("purchased_at":"2024-03-05T10:13:50Z",)"
                              R"("valid_until":"2024-03-05T10:13:50Z"}],)"
                              R"("is_existing_customer":true})"));
  EXPECT_EQ(alice->bodyText(), *server_.bodyForToken("alice"));

  auto bob = products("bearer bob");
  ASSERT_TRUE(bob);
  EXPECT_EQ(bob->statusCode, 200);
  EXPECT_EQ((*parseJSON(bob->bodyText()))["is_existing_customer"], Value()) << "left out";
  EXPECT_FALSE(server_.bodyForToken("carol"));
}

TEST_F(AccountServerTest, UnknownOrMissingTokensAreRefused) {
  server_.setProducts("alice", {});
  for (std::optional<std::string> authorization :
       {std::optional<std::string>(), std::optional<std::string>("Bearer mallory"),
        std::optional<std::string>("Basic YWxpY2U6")}) {
    auto response = products(authorization);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->statusCode, 401);
    EXPECT_EQ(response->headerValue("WWW-Authenticate"), "Bearer");
  }
  server_.removeAccount("alice");
  EXPECT_EQ(products("Bearer alice")->statusCode, 401);
  EXPECT_EQ(get(server_.baseURL() + "v1/users/other", "Bearer alice")->statusCode, 404);

  std::vector<AccountServer::Request> requests = server_.requests();
  ASSERT_EQ(requests.size(), 4u) << "unknown paths are not recorded";
  EXPECT_FALSE(requests[0].token);
  EXPECT_EQ(requests[1].token, "mallory");
  EXPECT_FALSE(requests[2].token);
  EXPECT_EQ(requests[3].status, 401);
  EXPECT_EQ(requests[1].header("authorization"), "Bearer mallory");
}

TEST_F(AccountServerTest, ScriptedAnswersComeFirstInOrder) {
  server_.setProducts("alice", {});
  server_.enqueueResponse(500, "down", "text/plain");
  server_.enqueueResponse(204, "", "");
  EXPECT_EQ(server_.pendingResponses(), 2u);
  auto first = products("Bearer alice");
  EXPECT_EQ(first->statusCode, 500);
  EXPECT_EQ(first->bodyText(), "down");
  auto second = products(std::nullopt);
  EXPECT_EQ(second->statusCode, 204);
  EXPECT_TRUE(second->body.empty());
  EXPECT_EQ(products("Bearer alice")->statusCode, 200);
  EXPECT_EQ(server_.pendingResponses(), 0u);
  EXPECT_EQ(server_.requestCount(), 3u);
  server_.clearRequests();
  EXPECT_EQ(server_.requestCount(), 0u);
}

TEST(AccountServerSetupTest, BasePathAndDates) {
  AccountServer server("api");
  ASSERT_TRUE(server.start());
  EXPECT_EQ(server.baseURL(), "http://127.0.0.1:" + std::to_string(server.port()) + "/api/");
  EXPECT_EQ(AccountServer::rfc3339(kMarch), "2024-03-05T10:13:50Z");
  EXPECT_EQ(AccountServer::rfc3339(Date::fromMicrosSince1970(0)), "1970-01-01T00:00:00Z");
  EXPECT_EQ(AccountServer::rfc3339(Date::fromMicrosSince1970(253402300800LL * 1000000)),
            "10000-01-01T00:00:00Z");
  server.stop();
  server.stop();  // twice is fine
  // Started again, it listens again.
  ASSERT_TRUE(server.start());
  httplib::Client client("127.0.0.1", server.port());
  auto answer = client.Get("/api/v1/users/products");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 401);
}

}  // namespace
}  // namespace zbiap
