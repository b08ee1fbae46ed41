// Any bytes: parsing never crashes; what parses writes back to JSON that parses to an equal
// value, and from then on the text is stable (a first read may turn -0.0 into "-0", then 0).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zbiap/foundation/json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto value = zbiap::parseJSON(text);
  if (!value) return 0;
  (void)value->description();
  (void)value->hash();
  const std::string written = zbiap::toJSON(*value);
  std::string error;
  const auto again = zbiap::parseJSON(written, &error);
  if (!again || !(*again == *value)) std::abort();
  const std::string rewritten = zbiap::toJSON(*again);
  const auto third = zbiap::parseJSON(rewritten);
  if (!third || zbiap::toJSON(*third) != rewritten) std::abort();
  return 0;
}
