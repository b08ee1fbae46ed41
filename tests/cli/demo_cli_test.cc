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

// A user's own StoreKit configuration (version 5, Japanese and Chinese titles, an unknown time
// rate) that lacks the built-in catalogue's products.
constexpr char kOwnStoreKit[] = R"({"products": [
  {"productID": "org.me.forever", "type": "NonConsumable", "displayPrice": "4.99",
   "localizations": [{"locale": "ja", "displayName": "永久ライセンス", "description": "解除"}]}],
  "subscriptionGroups": [{"id": "1", "subscriptions": [
    {"productID": "org.me.monthly", "type": "RecurringSubscription", "displayPrice": "1.99",
     "recurringSubscriptionPeriod": "P1M", "groupNumber": 1, "introductoryOffers": [
       {"paymentMode": "free", "subscriptionPeriod": "P1W", "displayPrice": "1.99"}],
     "localizations": [{"locale": "zh_CN", "displayName": "专业版月度"}]}]}],
  "settings": {"_storefront": "JPN", "_locale": "ja", "_timeRate": 12},
  "version": {"major": 5, "minor": 0}})";

// Whatever the files and options, the demo runs through or stops at once saying why.
TEST_F(DemoCLITest, OwnFilesAndOptions) {
  std::string long30;
  for (int i = 0; i < 30; ++i) long30 += "長";
  auto product = [](const std::string& id, const std::string& title, const std::string& more) {
    return R"({"identifier":")" + id + R"(","inactive":false,"sort_key":1,"default_visible":true,)" +
           R"("title":{"ja":")" + title + "\"}" + more + "}";
  };
  const std::string ownCatalog =
      R"({"products":[)" +
      product("org.me.forever", "永久ライセンス", R"(,"description":{"ja":")" + long30 + "\"}") +
      "," + product("org.me.monthly", "专业版月度", "") + "," + product("org.me.gone", "無", "") +
      "]}";
  const struct {
    std::string options;
    std::string storeKit;  // empty: the built-in one
    std::string catalog;   // empty: the built-in one
    int status;
    std::vector<std::string> says;  // on standard output or error
  } cases[] = {
      {"--json --lang de --storefront DEU",
       "",
       "",
       0,
       {R"("title":"Dauerhafte Freischaltung")", "\"price\":\"9,99\xC2\xA0\xE2\x82\xAC\"",
        R"({"event":"country","country":"DE"})"}},
      // A catalogue of one product: the demo buys what there is.
      {"--json --lang en",
       "",
       R"({"products":[{"identifier":"com.example.app.coins100","inactive":false,)"
       R"("sort_key":1,"default_visible":true,"title":{"en":"Just coins"}}]})",
       0,
       {R"("title":"Just coins")", R"("price":"$0.99")",
        R"({"event":"purchase","product":"com.example.app.coins100")", R"({"event":"summary")"}},
      // Cards keep their width in terminal columns: wide characters take two, a long text is
      // cut with an ellipsis.
      {"--lang ja",
       kOwnStoreKit,
       ownCatalog,
       0,
       {"   永久ライセンス" + std::string(45, ' ') + "\n",
        "   " + long30.substr(0, 28 * 3) + "\u2026  \n",
        "   专业版月度" + std::string(49, ' ') + "\n", "App Store country: JP",
        "purchased org.me.forever",
        "warning: the StoreKit configuration lacks these products of the catalogue: org.me.gone",
        "ignores these fields of the configuration: subscriptions[].groupNumber\n",
        "does not know _timeRate 12 (0 to 4); subscriptions renew in real time\n"}},
      {"--json",
       kOwnStoreKit,
       "",
       1,
       {R"("step":"start-up","message":"the StoreKit configuration has none of the catalogue's )"
        R"(products: com.example.app.coins100, com.example.app.lifetime, )"
        R"(com.example.app.pro.monthly, com.example.app.pro.yearly (--catalog FILE gives)"}},
      {"--json",
       "",
       "[]",
       1,
       {R"("step":"start-up","message":"the app rejects the catalogue: Top-level JSON object )"
        R"(is not a dictionary."})"}},
      {"--json", "{not json", "", 1, {R"({"event":"error","step":"setup")"}},
  };
  for (const auto& c : cases) {
    std::string options = c.options;
    if (!c.storeKit.empty())
      options += " --storekit '" + file("own.storekit", c.storeKit).string() + "'";
    if (!c.catalog.empty())
      options += " --catalog '" + file("catalog.json", c.catalog).string() + "'";
    SCOPED_TRACE(options);
    CliOutcome outcome = run("demo " + options);
    EXPECT_EQ(outcome.status, c.status) << outcome.err;
    for (const std::string& text : c.says) {
      EXPECT_NE((outcome.out + outcome.err).find(text), std::string::npos)
          << text << "\n"
          << outcome.out << outcome.err;
    }
  }
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
}

}  // namespace
