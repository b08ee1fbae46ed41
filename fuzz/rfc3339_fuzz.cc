// RFC 3339 reading: any bytes give a date or nothing, never a crash; and the fast reader must
// agree with ICU on every input, so a difference aborts.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "zbiap/support/date_tools.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto date = tools.dateFromRFC3339String(text);
  const auto reference = tools.dateFromRFC3339StringWithICU(text);
  if (date != reference) std::abort();
  if (date) {
    // What is read can be written again and read back.
    const auto again = tools.dateFromRFC3339String(tools.rfc3339StringFromDate(*date));
    if (!again) std::abort();
  }
  return 0;
}
