// ZBIAPLogger: a named logger that a component owns, switched on per component by an
// environment variable or user-defaults entry (or for all components by "ZBIAP_LOGGING").
//
// A disabled logger is no object: createWithName() returns null, the owner keeps the null, and
// ZBIAP_LOG(owner_logger, ...) is then a no-op that does not evaluate its arguments. Loggers
// are safe to call from any thread; lines go to the platform's system log behind `prefix`.
// A host may replace the logger type for the whole library by setting gZBIAPCustomLoggerClass
// (for instance to &ZBIAPMemoryLogger::initWithName) before creating the library's objects.
#ifndef ZBIAP_SUPPORT_LOGGER_H_
#define ZBIAP_SUPPORT_LOGGER_H_

#include <fmt/format.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "zbiap/export.h"

class ZBIAPLogger;

// A logger "class": builds a logger for a name and a switch key, or returns null when off.
using ZBIAPLoggerFactory = std::shared_ptr<ZBIAPLogger> (*)(std::string_view name,
                                                            std::string_view key);

// The factory every logger of the library is created with; null means ZBIAPLogger's own.
// Read at each creation.
extern ZBIAP_EXPORT std::atomic<ZBIAPLoggerFactory> gZBIAPCustomLoggerClass;

class ZBIAP_EXPORT ZBIAPLogger {
 public:
  // Builds a logger through gZBIAPCustomLoggerClass when it is set, else through
  // ZBIAPLogger::initWithName. Null when logging is off for `key`.
  static std::shared_ptr<ZBIAPLogger> createWithName(std::string_view name, std::string_view key);

  // A ZBIAPLogger, or null unless `key` or "ZBIAP_LOGGING" is switched on. A new logger writes
  // "Logging enabled." at once.
  static std::shared_ptr<ZBIAPLogger> initWithName(std::string_view name, std::string_view key);

  virtual ~ZBIAPLogger();
  ZBIAPLogger(const ZBIAPLogger&) = delete;
  ZBIAPLogger& operator=(const ZBIAPLogger&) = delete;

  // Formats with {fmt} and writes one line behind the prefix.
  template <typename... Args>
  void log(fmt::format_string<Args...> format, Args&&... args) {
    logMessage(fmt::format(format, std::forward<Args>(args)...));
  }
  // Writes `message` as it stands (braces and percent signs included) behind the prefix.
  virtual void logMessage(std::string_view message);

  std::string prefix() const;
  void setPrefix(std::string prefix);

 protected:
  // Sets the prefix to "[<name>] ".
  explicit ZBIAPLogger(std::string_view name);

 private:
  mutable std::mutex prefix_mutex_;
  std::string prefix_;
};

namespace zbiap {

// Whether logging is on for `key`: the environment, else the standard user defaults, holds
// "1" or "YES" (any case) under it. Evaluated afresh at every call.
ZBIAP_EXPORT bool checkKey(std::string_view key);

// The global switch key.
inline constexpr char kZBIAPLoggingKey[] = "ZBIAP_LOGGING";

}  // namespace zbiap

// Logs through `logger` (a pointer or shared_ptr that may be null); with a null logger nothing
// happens and the arguments are not evaluated.
#define ZBIAP_LOG(logger, ...)                      \
  do {                                              \
    if (const auto& zbiap_log_logger_ = (logger)) { \
      zbiap_log_logger_->log(__VA_ARGS__);          \
    }                                               \
  } while (0)

#define ZBIAP_LOG_MESSAGE(logger, message)          \
  do {                                              \
    if (const auto& zbiap_log_logger_ = (logger)) { \
      zbiap_log_logger_->logMessage(message);       \
    }                                               \
  } while (0)

#endif  // ZBIAP_SUPPORT_LOGGER_H_
