// ZBIAPMemoryLogger: a logger that keeps the lines of every logger of the process in one
// bounded in-memory text, instead of the system log. Always on, whatever the switches say.
//
// Set gZBIAPCustomLoggerClass = &ZBIAPMemoryLogger::initWithName to route the whole library
// here. The text is process-wide and guarded by one lock; any thread may log, read or clear.
// At most gZBIAPMemoryLoggerMaximumEntries lines (0: 10000) are kept; later ones are dropped
// until clearLog().
#ifndef ZBIAP_SUPPORT_MEMORY_LOGGER_H_
#define ZBIAP_SUPPORT_MEMORY_LOGGER_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "zbiap/export.h"
#include "zbiap/support/logger.h"

// Limit of lines the memory logger keeps; 0 means 10000.
extern ZBIAP_EXPORT std::atomic<uint64_t> gZBIAPMemoryLoggerMaximumEntries;

class ZBIAP_EXPORT ZBIAPMemoryLogger : public ZBIAPLogger {
 public:
  // Never null; the key is ignored and no "Logging enabled." line is written.
  static std::shared_ptr<ZBIAPLogger> initWithName(std::string_view name, std::string_view key);

  // Appends "<date> <prefix><message>\n" unless the limit is reached.
  void logMessage(std::string_view message) override;

  // A copy of the whole text.
  static std::string combinedLogString();
  // Empties the text and resets the line count.
  static void clearLog();

 private:
  explicit ZBIAPMemoryLogger(std::string_view name) : ZBIAPLogger(name) {}
};

#endif  // ZBIAP_SUPPORT_MEMORY_LOGGER_H_
