// The README's host application (examples/host-app) as a user builds it: start-up from the
// bundled catalogue on the StoreKit simulator, then a restore against the development account
// server that brings the account's purchase to the manager.
#include <string>

#include "tests/cli/cli_runner.h"
#include "zbiap/devserver/account_server.h"

namespace zbiap::testing {
namespace {

using HostAppTest = CliTest;

TEST_F(HostAppTest, RestoresTheAccountsPurchasesThroughItsDelegate) {
  AccountServer server;
  ASSERT_TRUE(server.start());
  server.setProducts("reader", {AccountServer::Product::make(
                                   "com.example.web.pro", Date::fromMicrosSince1970(0))});
  const std::string examples = std::string(ZBIAP_SOURCE_DIR) + "/examples/";
  CliOutcome outcome = runProgram(
      ZBIAP_HOST_APP_PATH, "'" + examples + "Example.storekit' '" + examples + "catalog.json'", "",
      "ZBIAP_CATALOG_URL=http://127.0.0.1:9 ZBIAP_ACCOUNT_TOKEN=reader ZBIAP_ACCOUNT_URL='" +
          server.baseURL() + "'");
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_NE(outcome.out.find("state: "), std::string::npos);
  EXPECT_NE(outcome.out.find("restore: done"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("purchase com.example.web.pro"), std::string::npos);
  // Signed in by the delegate's header, at the first try.
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].token, "reader");
}

}  // namespace
}  // namespace zbiap::testing
