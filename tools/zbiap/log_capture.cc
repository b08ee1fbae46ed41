#include "log_capture.h"

#include <utility>

namespace zbiap::cli {

std::vector<std::string> LogCapturingPlatform::takeLines() {
  std::lock_guard lock(mutex_);
  return std::exchange(lines_, {});
}

void LogCapturingPlatform::systemLog(std::string_view line) {
  std::lock_guard lock(mutex_);
  lines_.emplace_back(line);
}

}  // namespace zbiap::cli
