#include "zbiap/support/logger.h"

#include <strings.h>

#include <optional>

#include "zbiap/platform/platform.h"

std::atomic<ZBIAPLoggerFactory> gZBIAPCustomLoggerClass{nullptr};

namespace zbiap {
namespace {

bool isSwitchOn(const std::optional<std::string>& value) {
  if (!value) return false;
  if (*value == "1") return true;
  return value->size() == 3 && strncasecmp(value->c_str(), "YES", 3) == 0;
}

}  // namespace

bool checkKey(std::string_view key) {
  Platform& platform = Platform::current();
  if (isSwitchOn(platform.environmentValue(key))) return true;
  return isSwitchOn(platform.standardUserDefaults().stringForKey(key));
}

}  // namespace zbiap

std::shared_ptr<ZBIAPLogger> ZBIAPLogger::createWithName(std::string_view name,
                                                         std::string_view key) {
  ZBIAPLoggerFactory factory = gZBIAPCustomLoggerClass.load(std::memory_order_acquire);
  if (factory == nullptr) factory = &ZBIAPLogger::initWithName;
  return factory(name, key);
}

std::shared_ptr<ZBIAPLogger> ZBIAPLogger::initWithName(std::string_view name,
                                                       std::string_view key) {
  if (!zbiap::checkKey(key) && !zbiap::checkKey(zbiap::kZBIAPLoggingKey)) return nullptr;
  std::shared_ptr<ZBIAPLogger> logger(new ZBIAPLogger(name));
  logger->log("Logging enabled.");
  return logger;
}

ZBIAPLogger::ZBIAPLogger(std::string_view name) : prefix_(fmt::format("[{}] ", name)) {}

ZBIAPLogger::~ZBIAPLogger() = default;

void ZBIAPLogger::logMessage(std::string_view message) {
  std::string line = prefix();
  line.append(message);
  zbiap::Platform::current().systemLog(line);
}

std::string ZBIAPLogger::prefix() const {
  std::lock_guard<std::mutex> lock(prefix_mutex_);
  return prefix_;
}

void ZBIAPLogger::setPrefix(std::string prefix) {
  std::lock_guard<std::mutex> lock(prefix_mutex_);
  prefix_ = std::move(prefix);
}
