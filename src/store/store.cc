#include "zbiap/store/store.h"

namespace zbiap {

ZBIAPErrorPtr makeStoreError(ZBIAPStoreErrorCode code, ZBIAPErrorPtr underlying) {
  return ZBIAPError::make(ZBIAPStoreErrorDomain, code, {}, std::move(underlying));
}

}  // namespace zbiap
