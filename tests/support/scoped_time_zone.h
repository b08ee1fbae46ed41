// Sets the process's TZ for the life of the object and makes ICU read it again, so that
// ZBIAPDateTools instances built inside the scope work in that zone.
#ifndef ZBIAP_TESTS_SUPPORT_SCOPED_TIME_ZONE_H_
#define ZBIAP_TESTS_SUPPORT_SCOPED_TIME_ZONE_H_

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "zbiap/support/date_tools.h"

namespace zbiap::testing {

class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) previous_ = old;
    ::setenv("TZ", zone, 1);
    ::tzset();
    ZBIAPDateTools::resetSystemTimeZone();
  }
  ~ScopedTimeZone() {
    if (previous_) {
      ::setenv("TZ", previous_->c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
    ZBIAPDateTools::resetSystemTimeZone();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  std::optional<std::string> previous_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_SUPPORT_SCOPED_TIME_ZONE_H_
