// A fast reader for the RFC 3339 shapes that receipts and servers actually send, giving exactly
// what the ICU formatters of ZBIAPDateTools give for them:
//   yyyy-MM-ddTHH:mm:ss[.fffff](Z|+HH:MM|-HH:MM|+HHMM|-HHMM)
// with a four-digit year from 1600 on. Anything else (other lengths, years before the
// Gregorian calendar settled, out-of-range fields, leap seconds) is left to ICU, which stays
// the reference.
#ifndef ZBIAP_SUPPORT_RFC3339_FAST_PATH_H_
#define ZBIAP_SUPPORT_RFC3339_FAST_PATH_H_

#include <cstdint>
#include <optional>
#include <string_view>

namespace zbiap {

// Microseconds since 1970 of `text`, or nullopt when `text` is not one of the shapes above
// and must go through ICU. Like ICU, fractions are cut to whole milliseconds.
std::optional<int64_t> parseRFC3339Fast(std::string_view text);

}  // namespace zbiap

#endif  // ZBIAP_SUPPORT_RFC3339_FAST_PATH_H_
