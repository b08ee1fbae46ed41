// The development account server's own edges that the demo and the tests stand on: dates of any
// year, and a server that starts again after a stop.
#include "zbiap/devserver/account_server.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <string>

namespace zbiap {
namespace {

TEST(AccountServerTest, DatesOfAnyYearAndAStartAfterAStop) {
  EXPECT_EQ(AccountServer::rfc3339(Date::fromMicrosSince1970(0)), "1970-01-01T00:00:00Z");
  EXPECT_EQ(AccountServer::rfc3339(Date::fromMicrosSince1970(253402300800LL * 1000000)),
            "10000-01-01T00:00:00Z");

  AccountServer server("api");
  ASSERT_TRUE(server.start());
  EXPECT_EQ(server.baseURL(), "http://127.0.0.1:" + std::to_string(server.port()) + "/api/");
  server.stop();
  server.stop();  // twice is fine
  ASSERT_TRUE(server.start());
  server.setProducts("t", {AccountServer::Product::make("p", Date::fromMicrosSince1970(0))});
  httplib::Client client("127.0.0.1", server.port());
  auto refused = client.Get("/api/v1/users/products");
  auto served = client.Get("/api/v1/users/products", {{"Authorization", "Bearer t"}});
  ASSERT_TRUE(refused && served);
  EXPECT_EQ(refused->status, 401);
  EXPECT_EQ(served->status, 200);
  EXPECT_EQ(server.requestCount(), 2u);
}

}  // namespace
}  // namespace zbiap
