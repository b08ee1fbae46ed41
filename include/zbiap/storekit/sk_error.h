// StoreKit's error domain and codes, and the App Store server's domain, as the StoreKit seam
// reports them. Codes are StoreKit's own numbers, whatever the host's headers say.
#ifndef ZBIAP_STOREKIT_SK_ERROR_H_
#define ZBIAP_STOREKIT_SK_ERROR_H_

#include <cstdint>

inline constexpr char SKErrorDomain[] = "SKErrorDomain";

enum SKErrorCode : int64_t {
  SKErrorUnknown = 0,
  SKErrorClientInvalid = 1,
  SKErrorPaymentCancelled = 2,
  SKErrorPaymentInvalid = 3,
  SKErrorPaymentNotAllowed = 4,
  SKErrorStoreProductNotAvailable = 5,
  SKErrorCloudServiceNetworkConnectionFailed = 7,
};

// Errors of the App Store's servers; code 3532: the user is already subscribed.
inline constexpr char SSServerErrorDomain[] = "SSServerErrorDomain";
inline constexpr int64_t SSServerErrorAlreadySubscribed = 3532;

#endif  // ZBIAP_STOREKIT_SK_ERROR_H_
