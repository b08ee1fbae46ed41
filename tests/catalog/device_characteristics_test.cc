#include "zbiap/catalog/device_characteristics.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "testing/test_platform.h"
#include "zbiap/foundation/json.h"
#include "zbiap/support/date_tools.h"

namespace zbiap {
namespace {

class DeviceCharacteristicsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_.writeInfoJSON(R"({"CFBundleShortVersionString":"2.1","CFBundleVersion":"210"})");
    platform_.setDeviceInfo({"iPhone", "iOS", "17.4", "iPhone15,2"});
  }
  static Dictionary body(const std::vector<ZBIAPReceiptIAPPtr>& purchases, const char* country) {
    return ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases(purchases, country);
  }
  static ZBIAPReceiptIAPPtr purchase(std::string product, std::optional<Date> expiration,
                                     std::optional<Date> cancellation = std::nullopt) {
    Date bought = Date::fromTimeIntervalSince1970(1700000000);
    return ZBIAPReceiptIAP::initWithProductIdentifier(std::move(product), 1, "1000", std::nullopt,
                                                      bought, bought, expiration, cancellation, 0,
                                                      true);
  }
  testing::TestPlatform platform_;
};

TEST_F(DeviceCharacteristicsTest, ListsHeldPurchasesInOrder) {
  EXPECT_EQ(body({}, ""), (Dictionary{{"client_device", Value("iPhone")},
                                      {"client_device_version", Value("17.4")},
                                      {"client_version", Value("2.1 - 210")}}));
  Date future = Date::fromTimeIntervalSince1970(1900000000.5);
  Date past = Date::fromTimeIntervalSince1970(1600000000);
  Dictionary held =
      body({purchase("com.example.monthly", future),
            purchase("com.example.cancelled", future, past), nullptr,
            purchase("com.example.lifetime", std::nullopt), purchase("com.example.lapsed", past)},
           "CH");
  EXPECT_EQ(held["store_country"], Value("CH"));
  // Expiration stamps are whole seconds; the body is what goes over the wire.
  auto stamp = [](Date d) { return ZBIAPDateTools::dateTools().rfc3339StringFromDate(d); };
  EXPECT_EQ(*parseJSON(toJSON(Value(held))),
            *parseJSON(R"({"client_device":"iPhone","client_device_version":"17.4",)"
                       R"("client_version":"2.1 - 210","store_country":"CH","available_iaps":[)"
                       R"({"product_id":"com.example.monthly","expiration":")" +
                       stamp(Date::fromTimeIntervalSince1970(1900000000)) +
                       R"("},{"product_id":"com.example.lifetime"},)"
                       R"({"product_id":"com.example.lapsed","expiration":")" +
                       stamp(past) + R"("}]})"));
  // Only cancelled purchases leave no list.
  EXPECT_FALSE(
      body({purchase("com.example.monthly", future, future)}, "DE").contains("available_iaps"));
}

TEST_F(DeviceCharacteristicsTest, VersionAndMachineAsTheFormatterWritesThem) {
  auto version = [] { return body({}, "")["client_version"]; };
  platform_.writeInfoJSON(R"({"CFBundleShortVersionString":"3.0","CFBundleVersion":42})");
  EXPECT_EQ(version(), Value("3.0 - 42"));
  platform_.writeInfoJSON("{}");
  EXPECT_EQ(version(), Value("(null) - (null)"));
  std::filesystem::remove(platform_.bundleDir() / "Info.json");
  EXPECT_EQ(version(), Value("(null) - (null)"));
  EXPECT_EQ(ZBIAPDeviceCharacteristics::machineModel(), "iPhone15,2");
  platform_.setDeviceInfo({"Linux", "Linux", "6.1", ""});
  EXPECT_EQ(ZBIAPDeviceCharacteristics::machineModel(), "Just an Apple Computer");
}

}  // namespace
}  // namespace zbiap
