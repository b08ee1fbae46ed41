#include "zbiap/foundation/error.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

ZBIAPError::ZBIAPError(std::string domain, int64_t code, zbiap::Dictionary userInfo,
                       ZBIAPErrorPtr underlying)
    : domain_(std::move(domain)),
      code_(code),
      userInfo_(std::move(userInfo)),
      underlying_(std::move(underlying)) {}

ZBIAPErrorPtr ZBIAPError::make(std::string domain, int64_t code, zbiap::Dictionary userInfo,
                               ZBIAPErrorPtr underlying) {
  return ZBIAPErrorPtr(
      new ZBIAPError(std::move(domain), code, std::move(userInfo), std::move(underlying)));
}

std::string ZBIAPError::description() const {
  // NSError puts its localized description in the quotes: the user info's own one when given,
  // else "(null)". The user info follows as {key=value, ...}, keys sorted so that the text is
  // stable, the underlying error last under its key.
  const zbiap::Value& localized = userInfo_[zbiap::kNSLocalizedDescriptionKey];
  const std::string quoted = localized.isString() ? *localized.asString() : "(null)";
  std::string out = fmt::format("Error Domain={} Code={} \"{}\"", domain_, code_, quoted);
  if (userInfo_.empty() && !underlying_) return out;
  std::vector<const zbiap::Dictionary::Entry*> entries;
  for (const auto& e : userInfo_) {
    if (!(underlying_ && e.first == zbiap::kNSUnderlyingErrorKey)) entries.push_back(&e);
  }
  std::sort(entries.begin(), entries.end(),
            [](const auto* a, const auto* b) { return a->first < b->first; });
  out += " UserInfo={";
  bool first = true;
  for (const auto* e : entries) {
    if (!first) out += ", ";
    first = false;
    out += e->first;
    out += '=';
    out += e->second.description();
  }
  if (underlying_) {
    if (!first) out += ", ";
    out += zbiap::kNSUnderlyingErrorKey;
    out += '=';
    out += underlying_->description();
  }
  out += '}';
  return out;
}

bool ZBIAPError::isEqual(const ZBIAPError& other) const {
  if (this == &other) return true;
  if (code_ != other.code_ || domain_ != other.domain_ || !(userInfo_ == other.userInfo_)) {
    return false;
  }
  if (!underlying_ || !other.underlying_) return !underlying_ && !other.underlying_;
  return underlying_->isEqual(*other.underlying_);
}
