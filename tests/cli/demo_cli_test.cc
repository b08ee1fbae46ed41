// zbiap demo, run as a user runs it: the whole system (development servers, StoreKit simulator,
// a manager over the compound store) from start-up to restore, its --json events checked.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "cli_runner.h"
#include "zbiap/foundation/json.h"

namespace {

using zbiap::Value;
using zbiap::testing::CliOutcome;

class DemoCLITest : public zbiap::testing::CliTest {
 protected:
  // The events of a --json run, in order; every line must be one JSON object with "event".
  std::vector<Value> events(const std::string& options, int expectedStatus = 0) {
    CliOutcome outcome = run("demo --json " + options);
    EXPECT_EQ(outcome.status, expectedStatus) << outcome.out << outcome.err;
    std::vector<Value> parsed;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) {
      std::optional<Value> event = zbiap::parseJSON(line);
      EXPECT_TRUE(event && (*event)["event"].isString()) << line;
      if (event) parsed.push_back(std::move(*event));
    }
    EXPECT_EQ(outcome.out.find('\x1b'), std::string::npos) << "no escapes in JSON output";
    return parsed;
  }

  static const Value* first(const std::vector<Value>& events, const std::string& name) {
    for (const Value& event : events) {
      if (event["event"] == Value(name)) return &event;
    }
    return nullptr;
  }

  static std::map<std::string, Value> byIdentifier(const Value& catalog) {
    std::map<std::string, Value> products;
    for (const Value& product : *catalog["products"].asArray()) {
      products[*product["identifier"].asString()] = product;
    }
    return products;
  }
};

TEST_F(DemoCLITest, RunsFromStartUpToRestore) {
  std::vector<Value> run = events("--lang en");
  ASSERT_FALSE(run.empty());

  // Ready with store products, announced by state changes and notifications as they happened.
  std::vector<std::string> states;
  bool becameReady = false;
  for (const Value& event : run) {
    if (event["event"] == Value("state")) states.push_back(*event["name"].asString());
    becameReady |= event["name"] == Value("ZBIAPManagerDidBecomeReadyStateNotification");
  }
  ASSERT_FALSE(states.empty());
  EXPECT_EQ(states.front(), "Configuring");
  EXPECT_EQ(states.back(), "ReadyStoreProducts");
  EXPECT_TRUE(becameReady);

  const Value* country = first(run, "country");
  ASSERT_NE(country, nullptr);
  EXPECT_EQ((*country)["country"], Value("US"));

  // The catalogue with the store's localized prices and the catalogue's own texts and colours.
  const Value* catalog = first(run, "catalog");
  ASSERT_NE(catalog, nullptr);
  auto products = byIdentifier(*catalog);
  ASSERT_EQ(products.size(), 4u);
  const Value& lifetime = products["com.example.app.lifetime"];
  EXPECT_EQ(lifetime["title"], Value("Lifetime Unlock"));
  EXPECT_EQ(lifetime["price"], Value("$9.99"));
  EXPECT_EQ(lifetime["oldPrice"], Value("$14.99"));
  EXPECT_EQ(lifetime["backgroundColor"], Value("#37474f"));
  EXPECT_EQ(products["com.example.app.coins100"]["oldPrice"], Value::null());

  // The purchase, then the manager learning of it from the new receipt.
  const Value* purchase = first(run, "purchase");
  ASSERT_NE(purchase, nullptr);
  EXPECT_EQ((*purchase)["success"], Value(true));
  const Value* update = first(run, "receipt-update");
  ASSERT_NE(update, nullptr);
  EXPECT_EQ(zbiap::toJSON((*update)["purchases"]), R"(["com.example.app.lifetime"])");
  EXPECT_GT((*update)["receiptBytes"].int64Value().value_or(0), 0);

  // The restore brings the account server's purchase behind the App Store's.
  const Value* restore = first(run, "restore");
  ASSERT_NE(restore, nullptr);
  EXPECT_EQ((*restore)["result"], Value("changed"));
  EXPECT_EQ(zbiap::toJSON((*restore)["purchases"]),
            R"(["com.example.app.lifetime","com.example.web.pro"])");

  const Value& summary = run.back();
  EXPECT_EQ(summary["event"], Value("summary"));
  EXPECT_EQ(summary["catalogRequests"], summary["catalogRequestsSigned"]);
  EXPECT_GE(summary["catalogRequests"].int64Value().value_or(0), 1);
  EXPECT_EQ(first(run, "error"), nullptr);
}

TEST_F(DemoCLITest, LanguageAndStorefrontChangeTextsAndCurrency) {
  std::vector<Value> run = events("--lang de --storefront DEU");
  const Value* catalog = first(run, "catalog");
  ASSERT_NE(catalog, nullptr);
  auto products = byIdentifier(*catalog);
  const Value& lifetime = products["com.example.app.lifetime"];
  EXPECT_EQ(lifetime["title"], Value("Dauerhafte Freischaltung"));
  EXPECT_EQ(lifetime["price"], Value("9,99\xC2\xA0\xE2\x82\xAC"));  // ICU's no-break space
  const Value* country = first(run, "country");
  ASSERT_NE(country, nullptr);
  EXPECT_EQ((*country)["country"], Value("DE"));
}

TEST_F(DemoCLITest, OwnFilesReplaceTheBuiltInExamples) {
  // A catalogue of one product: the store screen shows just it.
  const std::string catalog =
      R"({"products":[{"identifier":"com.example.app.coins100","inactive":false,)"
      R"("sort_key":1,"default_visible":true,"title":{"en":"Just coins"}}]})";
  std::vector<Value> run =
      events("--lang en --catalog '" + file("catalog.json", catalog).string() + "'");
  const Value* screen = first(run, "catalog");
  ASSERT_NE(screen, nullptr);
  auto products = byIdentifier(*screen);
  ASSERT_EQ(products.size(), 1u);
  EXPECT_EQ(products["com.example.app.coins100"]["title"], Value("Just coins"));
  EXPECT_EQ(products["com.example.app.coins100"]["price"], Value("$0.99"));
  // Without the usual product on sale, the demo buys what there is.
  const Value* purchase = first(run, "purchase");
  ASSERT_NE(purchase, nullptr);
  EXPECT_EQ((*purchase)["product"], Value("com.example.app.coins100"));
  EXPECT_EQ(run.back()["event"], Value("summary"));
}

TEST_F(DemoCLITest, BadInputIsRefusedClearly) {
  CliOutcome unknown = run("demo --colour");
  EXPECT_EQ(unknown.status, 2);
  EXPECT_NE(unknown.err.find("unknown option '--colour'"), std::string::npos) << unknown.err;
  EXPECT_NE(unknown.err.find("usage: zbiap demo"), std::string::npos);

  for (const char* help : {"demo --help", "help demo"}) {
    CliOutcome usage = run(help);
    EXPECT_EQ(usage.status, 0) << help;
    EXPECT_NE(usage.out.find("usage: zbiap demo"), std::string::npos) << help;
  }

  std::vector<Value> broken =
      events("--storekit '" + file("bad.storekit", "{not json").string() + "'", 1);
  ASSERT_EQ(broken.size(), 1u);
  EXPECT_EQ(broken[0]["event"], Value("error"));
  EXPECT_EQ(broken[0]["step"], Value("setup"));
}

}  // namespace
