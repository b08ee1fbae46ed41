#include "manager/manager_internal.h"

namespace zbiap::manager_internal {

std::string describe(const ZBIAPErrorPtr& error) { return error ? error->description() : "(null)"; }

std::string describe(const ZBIAPManager::ProductInfoPtr& dpi) {
  return dpi ? dpi->description() : "(null)";
}

std::string describe(const ZBIAPManager::ProductInfos& dpis) {
  if (dpis.empty()) return "(\n)";
  std::string text = "(\n";
  for (size_t i = 0; i < dpis.size(); ++i) {
    text += "    ";
    text += describe(dpis[i]);
    text += i + 1 < dpis.size() ? ",\n" : "\n";
  }
  text += ")";
  return text;
}

bool sameProductInfos(const std::optional<ZBIAPManager::ProductInfos>& current,
                      const ZBIAPManager::ProductInfos& other) {
  if (!current || current->size() != other.size()) return false;
  for (size_t i = 0; i < other.size(); ++i) {
    const ZBIAPManager::ProductInfoPtr& a = (*current)[i];
    const ZBIAPManager::ProductInfoPtr& b = other[i];
    if (a == b) continue;
    if (!a || !b || !a->isEqual(*b)) return false;
  }
  return true;
}

}  // namespace zbiap::manager_internal
