// Duration strings from the catalogue: any bytes give a duration or nothing, never a crash, and
// a duration has exactly one unit field set to a count that is not negative.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "zbiap/support/date_tools.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto components = tools.componentsFromDurationString(text);
  if (!components) return 0;
  int set = 0;
  for (const auto* field :
       {&components->day, &components->weekOfYear, &components->month, &components->year}) {
    if (field->has_value()) {
      ++set;
      if (**field < 0) std::abort();
    }
  }
  if (set != 1 || components->era || components->hour || components->minute || components->second) {
    std::abort();
  }
  // The manager turns durations into dates for its sort; that must not crash either.
  (void)tools.dateFromComponents(*components);
  return 0;
}
