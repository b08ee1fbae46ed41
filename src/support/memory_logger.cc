#include "zbiap/support/memory_logger.h"

#include <mutex>

#include "zbiap/platform/platform.h"

std::atomic<uint64_t> gZBIAPMemoryLoggerMaximumEntries{0};

namespace {

constexpr uint64_t kDefaultMaximumEntries = 10000;

// The process-wide text and its line count. Leaked on purpose so that loggers used during
// static destruction still find them.
struct MemoryLog {
  std::mutex mutex;
  std::string text;
  uint64_t count = 0;
};

MemoryLog& memoryLog() {
  static MemoryLog* log = new MemoryLog;
  return *log;
}

// Runs `block` under the memory log's lock. The lock is not re-entrant: `block` must not log.
template <typename Block>
auto runLocked(Block&& block) {
  MemoryLog& log = memoryLog();
  std::lock_guard<std::mutex> lock(log.mutex);
  return block(log);
}

}  // namespace

std::shared_ptr<ZBIAPLogger> ZBIAPMemoryLogger::initWithName(std::string_view name,
                                                             std::string_view /*key*/) {
  return std::shared_ptr<ZBIAPLogger>(new ZBIAPMemoryLogger(name));
}

void ZBIAPMemoryLogger::logMessage(std::string_view message) {
  const std::string prefix_text = prefix();
  uint64_t limit = gZBIAPMemoryLoggerMaximumEntries.load(std::memory_order_relaxed);
  if (limit == 0) limit = kDefaultMaximumEntries;
  runLocked([&](MemoryLog& log) {
    if (log.count >= limit) return;
    std::string date = zbiap::Platform::current().now().description();
    log.text.reserve(log.text.size() + date.size() + prefix_text.size() + message.size() + 2);
    log.text.append(date).append(" ").append(prefix_text).append(message).append("\n");
    ++log.count;
  });
}

std::string ZBIAPMemoryLogger::combinedLogString() {
  return runLocked([](MemoryLog& log) { return log.text; });
}

void ZBIAPMemoryLogger::clearLog() {
  runLocked([](MemoryLog& log) {
    log.text = std::string();
    log.count = 0;
  });
}
