// Reading the account server's answer to "v1/users/products": the products the signed-in user
// holds, turned into purchase records in the server's order, and the existing-customer flag.
//
// Any input is safe (empty, huge, not UTF-8, deeply nested). One bad product fails the whole
// answer. Dates are read with the calling thread's ZBIAPDateTools.
#ifndef ZBIAP_STORE_STORE_MORVANE_BODY_H_
#define ZBIAP_STORE_STORE_MORVANE_BODY_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/foundation/error.h"
#include "zbiap/receipt/receipt_iap.h"

namespace zbiap {

struct AccountProductsBody {
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases;
  bool isExistingCustomer = false;
};

// Why an answer was refused: the line to log, and the JSON decoder's error when the body was no
// JSON at all (null otherwise).
struct AccountBodyFailure {
  std::string message;
  ZBIAPErrorPtr underlying;
};

// The transaction identifier the records carry: the server sends none.
inline constexpr char kAccountDummyTransactionID[] = "dummy";

// The products and flag of `body`, or nullopt with the reason in `failure` (when given).
std::optional<AccountProductsBody> parseAccountProductsBody(std::string_view body,
                                                            AccountBodyFailure* failure);

}  // namespace zbiap

#endif  // ZBIAP_STORE_STORE_MORVANE_BODY_H_
