#include "zbiap/catalog/device_characteristics.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "zbiap/foundation/json.h"
#include "zbiap/platform/linux_platform.h"
#include "zbiap/support/date_tools.h"

namespace zbiap {
namespace {

// The default platform on a temporary bundle, with a device of our choosing.
class FixedDevicePlatform final : public Platform {
 public:
  FixedDevicePlatform(const std::filesystem::path& bundle, DeviceInfo device)
      : base_(LinuxPlatform::Options{bundle, bundle / "defaults.sqlite", 1}),
        device_(std::move(device)) {}

  MainQueue& mainQueue() override { return base_.mainQueue(); }
  TaskQueue& globalQueue() override { return base_.globalQueue(); }
  Date now() override { return base_.now(); }
  std::optional<std::string> environmentValue(std::string_view) override { return std::nullopt; }
  UserDefaults& standardUserDefaults() override { return base_.standardUserDefaults(); }
  Bundle& mainBundle() override { return base_.mainBundle(); }
  DeviceInfo deviceInfo() override { return device_; }
  std::vector<std::string> preferredLanguages() override { return {"en"}; }
  void systemLog(std::string_view) override {}

 private:
  LinuxPlatform base_;
  DeviceInfo device_;
};

class DeviceCharacteristicsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "zbiap-device-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    bundle_ = pattern;
    writeInfo(R"({"CFBundleShortVersionString":"2.1","CFBundleVersion":"210"})");
    install({"iPhone", "iOS", "17.4", "iPhone15,2"});
  }
  void TearDown() override {
    Platform::install(nullptr);
    std::filesystem::remove_all(bundle_);
  }

  void install(DeviceInfo device) {
    Platform::install(std::make_shared<FixedDevicePlatform>(bundle_, std::move(device)));
  }
  void writeInfo(const std::string& json) { std::ofstream(bundle_ / "Info.json") << json; }

  static ZBIAPReceiptIAPPtr purchase(std::string product, std::optional<Date> expiration,
                                     std::optional<Date> cancellation = std::nullopt) {
    Date bought = Date::fromTimeIntervalSince1970(1700000000);
    return ZBIAPReceiptIAP::create(std::move(product), 1, "1000", std::nullopt, bought, bought,
                                   expiration, cancellation, 0, true);
  }

  std::filesystem::path bundle_;
};

TEST_F(DeviceCharacteristicsTest, BareBodyHoldsDeviceAndVersionOnly) {
  Dictionary body = ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases({}, "");
  EXPECT_EQ(body, (Dictionary{{"client_device", Value("iPhone")},
                              {"client_device_version", Value("17.4")},
                              {"client_version", Value("2.1 - 210")}}));
}

TEST_F(DeviceCharacteristicsTest, ListsHeldPurchasesInOrder) {
  Date future = Date::fromTimeIntervalSince1970(1900000000.5);
  Date past = Date::fromTimeIntervalSince1970(1600000000);
  std::vector<ZBIAPReceiptIAPPtr> purchases{
      purchase("com.example.monthly", future),
      purchase("com.example.cancelled", future, past),
      nullptr,
      purchase("com.example.lifetime", std::nullopt),
      purchase("com.example.lapsed", past),
  };
  Dictionary body = ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases(purchases, "CH");
  EXPECT_EQ(body["store_country"], Value("CH"));
  const Array* listed = body["available_iaps"].asArray();
  ASSERT_NE(listed, nullptr);
  ASSERT_EQ(listed->size(), 3u);
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  EXPECT_EQ((*listed)[0],
            Value(Dictionary{{"product_id", Value("com.example.monthly")},
                             {"expiration", Value(tools.rfc3339StringFromDate(future))}}));
  EXPECT_EQ((*listed)[1], Value(Dictionary{{"product_id", Value("com.example.lifetime")}}));
  EXPECT_EQ((*listed)[2]["product_id"], Value("com.example.lapsed"));
  // The stamp reads back as the same second.
  auto stamp = (*listed)[0]["expiration"].asString();
  ASSERT_NE(stamp, nullptr);
  EXPECT_EQ(tools.dateFromRFC3339String(*stamp), Date::fromTimeIntervalSince1970(1900000000));

  // The body is what goes over the wire.
  auto reread = parseJSON(toJSON(Value(body)));
  ASSERT_TRUE(reread);
  EXPECT_EQ(*reread, Value(body));
}

TEST_F(DeviceCharacteristicsTest, OnlyCancelledPurchasesLeaveNoList) {
  Date future = Date::fromTimeIntervalSince1970(1900000000);
  Dictionary body = ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases(
      {purchase("com.example.monthly", future, future)}, "DE");
  EXPECT_FALSE(body.contains("available_iaps"));
  EXPECT_EQ(body.size(), 4u);
}

TEST_F(DeviceCharacteristicsTest, VersionEntriesAsTheFormatterWritesThem) {
  writeInfo("{}");
  EXPECT_EQ(ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases({}, "")["client_version"],
            Value("(null) - (null)"));
  writeInfo(R"({"CFBundleShortVersionString":"3.0","CFBundleVersion":42})");
  EXPECT_EQ(ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases({}, "")["client_version"],
            Value("3.0 - 42"));
  std::filesystem::remove(bundle_ / "Info.json");
  EXPECT_EQ(ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases({}, "")["client_version"],
            Value("(null) - (null)"));
}

TEST_F(DeviceCharacteristicsTest, MachineModel) {
  EXPECT_EQ(ZBIAPDeviceCharacteristics::machineModel(), "iPhone15,2");
  install({"Linux", "Linux", "6.1", ""});
  EXPECT_EQ(ZBIAPDeviceCharacteristics::machineModel(), "Just an Apple Computer");
}

}  // namespace
}  // namespace zbiap
