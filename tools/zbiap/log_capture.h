// LogCapturingPlatform: a platform whose system log is caught in memory, so that a command can
// show which messages the library wrote while it read one piece of input. Everything else is the
// wrapped platform's. Thread-safe.
#ifndef ZBIAP_TOOLS_LOG_CAPTURE_H_
#define ZBIAP_TOOLS_LOG_CAPTURE_H_

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/platform/platform_wrapper.h"

namespace zbiap::cli {

class LogCapturingPlatform final : public PlatformWrapper {
 public:
  using PlatformWrapper::PlatformWrapper;

  // The lines logged since the last call, oldest first.
  std::vector<std::string> takeLines();

  void systemLog(std::string_view line) override;

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_LOG_CAPTURE_H_
