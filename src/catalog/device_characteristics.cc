#include "zbiap/catalog/device_characteristics.h"

#include "zbiap/platform/platform.h"
#include "zbiap/support/date_tools.h"

namespace {

// What "%@" makes of an info dictionary entry.
std::string formatObject(const zbiap::Value& value) {
  if (value.isNil()) return "(null)";
  if (const std::string* text = value.asString()) return *text;
  if (auto number = value.numberStringValue()) return *number;
  return value.description();
}

}  // namespace

zbiap::Dictionary ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases(
    const std::vector<ZBIAPReceiptIAPPtr>& inAppPurchases, std::string_view storeCountry) {
  zbiap::Platform& platform = zbiap::Platform::current();
  zbiap::DeviceInfo device = platform.deviceInfo();
  zbiap::Dictionary body;
  body.set(ZBIAPDeviceCharacteristicsKeyClientDevice, zbiap::Value(device.model));
  body.set(ZBIAPDeviceCharacteristicsKeyClientDeviceVersion, zbiap::Value(device.systemVersion));

  zbiap::Dictionary info = platform.mainBundle().infoDictionary();
  std::string clientVersion = formatObject(info["CFBundleShortVersionString"]) + " - " +
                              formatObject(info["CFBundleVersion"]);
  if (!clientVersion.empty()) {
    body.set(ZBIAPDeviceCharacteristicsKeyClientVersion, zbiap::Value(std::move(clientVersion)));
  }
  if (!storeCountry.empty()) {
    body.set(ZBIAPDeviceCharacteristicsKeyStoreCountry, zbiap::Value(storeCountry));
  }

  ZBIAPDateTools& dateTools = ZBIAPDateTools::dateTools();
  zbiap::Array purchases;
  for (const ZBIAPReceiptIAPPtr& purchase : inAppPurchases) {
    if (!purchase || purchase->cancellationDate()) continue;
    zbiap::Dictionary entry;
    entry.set(ZBIAPDeviceCharacteristicsKeyProductID, zbiap::Value(purchase->productIdentifier()));
    if (const auto& expiration = purchase->subscriptionExpirationDate()) {
      entry.set(ZBIAPDeviceCharacteristicsKeyExpiration,
                zbiap::Value(dateTools.rfc3339StringFromDate(*expiration)));
    }
    purchases.emplace_back(std::move(entry));
  }
  if (!purchases.empty()) {
    body.set(ZBIAPDeviceCharacteristicsKeyAvailableIAPs, zbiap::Value(std::move(purchases)));
  }
  return body;
}

std::string ZBIAPDeviceCharacteristics::machineModel() {
  std::string model = zbiap::Platform::current().deviceInfo().machineModel;
  return model.empty() ? "Just an Apple Computer" : model;
}
