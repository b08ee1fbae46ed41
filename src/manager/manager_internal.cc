#include "manager/manager_internal.h"

namespace zbiap::manager_internal {

std::string describe(const ZBIAPErrorPtr& error) { return error ? error->description() : "(null)"; }

std::string describe(const ZBIAPManager::ProductInfoPtr& dpi) {
  return dpi ? dpi->description() : "(null)";
}


}  // namespace zbiap::manager_internal
