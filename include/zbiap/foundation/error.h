// ZBIAPError: the library's NSError: a domain, an integer code, a user-info dictionary and an
// optional underlying error.
//
// Immutable; passed as std::shared_ptr<const ZBIAPError> (ErrorPtr), null meaning "no error".
// The underlying error is held beside the user info and shown under "NSUnderlyingError" in
// description() and userInfoWithUnderlying(). Expected failures are reported with these,
// never thrown.
#ifndef ZBIAP_FOUNDATION_ERROR_H_
#define ZBIAP_FOUNDATION_ERROR_H_

#include <cstdint>
#include <memory>
#include <string>

#include "zbiap/export.h"
#include "zbiap/foundation/value.h"

namespace zbiap {

inline constexpr char kNSUnderlyingErrorKey[] = "NSUnderlyingError";
inline constexpr char kNSLocalizedDescriptionKey[] = "NSLocalizedDescription";
inline constexpr char kNSPOSIXErrorDomain[] = "NSPOSIXErrorDomain";
inline constexpr char kNSURLErrorDomain[] = "NSURLErrorDomain";
inline constexpr char kNSCocoaErrorDomain[] = "NSCocoaErrorDomain";

}  // namespace zbiap

// The library's public types carry the ZBIAP prefix and live in the global namespace; helpers
// of our own live in namespace zbiap.
class ZBIAPError;
using ZBIAPErrorPtr = std::shared_ptr<const ZBIAPError>;

class ZBIAP_EXPORT ZBIAPError {
 public:
  // `userInfo` is a dictionary or nil.
  static ZBIAPErrorPtr make(std::string domain, int64_t code, zbiap::Dictionary userInfo = {},
                            ZBIAPErrorPtr underlying = nullptr);

  const std::string& domain() const { return domain_; }
  int64_t code() const { return code_; }
  const zbiap::Dictionary& userInfo() const { return userInfo_; }
  // Null when there is none.
  const ZBIAPErrorPtr& underlyingError() const { return underlying_; }

  // "Error Domain=D Code=N \"…\" UserInfo={…}", as NSError's description.
  std::string description() const;
  // Same domain, code and user info, and equal underlying errors.
  bool isEqual(const ZBIAPError& other) const;

 private:
  ZBIAPError(std::string domain, int64_t code, zbiap::Dictionary userInfo,
             ZBIAPErrorPtr underlying);
  std::string domain_;
  int64_t code_;
  zbiap::Dictionary userInfo_;
  ZBIAPErrorPtr underlying_;
};

#endif  // ZBIAP_FOUNDATION_ERROR_H_
