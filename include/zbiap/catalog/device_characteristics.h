// ZBIAPDeviceCharacteristics: builds the body of a catalogue request, a description of the
// device, the app's version, the store country and the purchases the user holds. Stateless;
// callable from any thread (dates are written with the calling thread's ZBIAPDateTools).
#ifndef ZBIAP_CATALOG_DEVICE_CHARACTERISTICS_H_
#define ZBIAP_CATALOG_DEVICE_CHARACTERISTICS_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/value.h"
#include "zbiap/receipt/receipt_iap.h"

// Keys of the request body.
inline constexpr char ZBIAPDeviceCharacteristicsKeyClientDevice[] = "client_device";
inline constexpr char ZBIAPDeviceCharacteristicsKeyClientDeviceVersion[] = "client_device_version";
inline constexpr char ZBIAPDeviceCharacteristicsKeyClientVersion[] = "client_version";
inline constexpr char ZBIAPDeviceCharacteristicsKeyStoreCountry[] = "store_country";
inline constexpr char ZBIAPDeviceCharacteristicsKeyAvailableIAPs[] = "available_iaps";
inline constexpr char ZBIAPDeviceCharacteristicsKeyProductID[] = "product_id";
inline constexpr char ZBIAPDeviceCharacteristicsKeyExpiration[] = "expiration";

class ZBIAP_EXPORT ZBIAPDeviceCharacteristics {
 public:
  ZBIAPDeviceCharacteristics() = delete;

  // "client_device" and "client_device_version" from the platform's device, "client_version"
  // as "<CFBundleShortVersionString> - <CFBundleVersion>" of the main bundle ("(null)" for a
  // missing entry), "store_country" when `storeCountry` is non-empty, and "available_iaps"
  // listing every purchase without a cancellation date, in order, as {"product_id"} plus
  // "expiration" (RFC 3339) when it has an expiration date; left out when none qualifies.
  // Null entries of `inAppPurchases` are skipped. An absent (nil) array or country is passed
  // as an empty one: the body is the same.
  static zbiap::Dictionary characteristicsWithInAppPurchases(
      const std::vector<ZBIAPReceiptIAPPtr>& inAppPurchases, std::string_view storeCountry);

  // The hardware model identifier the platform reports; "Just an Apple Computer" when it
  // reports none. Offered to the host; the body does not use it.
  static std::string machineModel();
};

#endif  // ZBIAP_CATALOG_DEVICE_CHARACTERISTICS_H_
