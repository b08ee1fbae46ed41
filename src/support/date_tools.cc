#include "zbiap/support/date_tools.h"

struct ZBIAPDateTools::Impl {};

ZBIAPDateTools& ZBIAPDateTools::dateTools() {
  thread_local ZBIAPDateTools tools;
  return tools;
}

ZBIAPDateTools::ZBIAPDateTools() : impl_(std::make_unique<Impl>()) {}
ZBIAPDateTools::~ZBIAPDateTools() = default;

std::string ZBIAPDateTools::rfc3339StringFromDate(const zbiap::Date&) { return {}; }
std::optional<std::string> ZBIAPDateTools::rfc3339StringFromDate(
    const std::optional<zbiap::Date>& date) {
  if (!date) return std::nullopt;
  return rfc3339StringFromDate(*date);
}
std::optional<zbiap::Date> ZBIAPDateTools::dateFromRFC3339String(std::string_view) {
  return std::nullopt;
}
std::optional<zbiap::Date> ZBIAPDateTools::dateFromRFC3339StringWithICU(std::string_view) {
  return std::nullopt;
}
std::optional<zbiap::DateComponents> ZBIAPDateTools::componentsFromDurationString(
    std::string_view) {
  return std::nullopt;
}
std::optional<zbiap::DateComponents> ZBIAPDateTools::componentsForRemainingDuration(
    const std::optional<zbiap::Date>&, const std::optional<zbiap::Date>&) {
  return std::nullopt;
}
zbiap::Date ZBIAPDateTools::dateAtMidnight(const zbiap::Date& date) { return date; }
std::optional<zbiap::Date> ZBIAPDateTools::dateFromComponents(const zbiap::DateComponents&) {
  return std::nullopt;
}

namespace zbiap {
std::string DateComponents::description() const { return "{}"; }
}  // namespace zbiap
