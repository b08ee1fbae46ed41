// Helpers shared by the manager's source files: texts for log lines and the sequence
// comparisons the merge uses.
#ifndef ZBIAP_MANAGER_MANAGER_INTERNAL_H_
#define ZBIAP_MANAGER_MANAGER_INTERNAL_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/foundation/error.h"
#include "zbiap/manager/manager.h"

namespace zbiap::manager_internal {

inline constexpr char kProductInfosKey[] = "ZBIAPProductInfos";
inline constexpr char kBaselineFeatureMetadataKey[] = "ZBIAPBaselineFeatureMetadata";

// The error's description, "(null)" for none, as a log line shows a nil object.
std::string describe(const ZBIAPErrorPtr& error);
std::string describe(const ZBIAPManager::ProductInfoPtr& dpi);

}  // namespace zbiap::manager_internal

#endif  // ZBIAP_MANAGER_MANAGER_INTERNAL_H_
