#include "zbiap/platform/linux_platform.h"

#include <errno.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

#include "zbiap/platform/preferred_languages.h"

namespace zbiap {

namespace {

std::optional<std::string> getEnv(std::string_view name) {
  const char* value = std::getenv(std::string(name).c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::filesystem::path executableDirectory() {
  std::error_code ec;
  std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec || !exe.has_parent_path()) return std::filesystem::current_path(ec);
  return exe.parent_path();
}

std::string trim(std::string s) {
  size_t begin = s.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  size_t end = s.find_last_not_of(" \t\r\n");
  return s.substr(begin, end - begin + 1);
}

std::string processName() {
  std::ifstream in("/proc/self/comm");
  std::string name;
  std::getline(in, name);
  name = trim(name);
  return name.empty() ? "zbiap" : name;
}

}  // namespace

LinuxPlatform::LinuxPlatform() : LinuxPlatform(Options()) {}

LinuxPlatform::LinuxPlatform(Options options) : pool_(options.globalQueueThreads) {
  std::filesystem::path bundleDir = options.bundleDir;
  if (bundleDir.empty()) {
    std::optional<std::string> fromEnv = getEnv("ZBIAP_BUNDLE_DIR");
    bundleDir =
        fromEnv && !fromEnv->empty() ? std::filesystem::path(*fromEnv) : executableDirectory();
  }
  bundle_ = std::make_unique<DirectoryBundle>(std::move(bundleDir));
  userDefaultsPath_ = options.userDefaultsPath;
  if (userDefaultsPath_.empty()) {
    std::optional<std::string> fromEnv = getEnv("ZBIAP_USER_DEFAULTS_PATH");
    if (fromEnv && !fromEnv->empty()) userDefaultsPath_ = *fromEnv;
  }
}

LinuxPlatform::~LinuxPlatform() = default;

EventLoop* LinuxPlatform::mainEventLoop() {
  auto* platform = dynamic_cast<LinuxPlatform*>(&Platform::current());
  return platform ? &platform->loop_ : nullptr;
}

std::optional<std::string> LinuxPlatform::environmentValue(std::string_view name) {
  return getEnv(name);
}

UserDefaults& LinuxPlatform::standardUserDefaults() {
  std::call_once(defaultsOnce_, [this] {
    std::filesystem::path path = userDefaultsPath_;
    if (path.empty()) {
      const Value& identifier = bundle_->infoDictionary()["CFBundleIdentifier"];
      const std::string* app = identifier.asString();
      path = defaultUserDefaultsPath(app ? *app : "default");
    }
    defaults_ = std::make_unique<SQLiteUserDefaults>(
        path, [this](std::string_view line) { systemLog(line); });
  });
  return *defaults_;
}

DeviceInfo LinuxPlatform::deviceInfo() {
  std::call_once(deviceOnce_, [this] {
    struct utsname names;
    if (::uname(&names) == 0) {
      device_.systemName = names.sysname;
      device_.systemVersion = names.release;
      device_.machineModel = names.machine;
    } else {
      device_.systemName = "Linux";
    }
    std::ifstream product("/sys/class/dmi/id/product_name");
    std::string model;
    if (product) std::getline(product, model);
    model = trim(model);
    device_.model = model.empty() ? "Linux" : model;
  });
  return device_;
}

std::vector<std::string> LinuxPlatform::preferredLanguages() {
  return preferredLanguagesFromLocale(getEnv);
}

void LinuxPlatform::systemLog(std::string_view line) { writeSystemLogLine(line); }

void writeSystemLogLine(std::string_view line) {
  static const std::string name = processName();
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  struct tm local;
  ::localtime_r(&now.tv_sec, &local);
  char stamp[64];
  size_t n = ::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(stamp + n, sizeof stamp - n, ".%03ld", now.tv_nsec / 1000000);
  std::string text = stamp;
  text += ' ';
  text += name;
  text += '[';
  text += std::to_string(::getpid());
  text += "] ";
  text += line;
  text += '\n';
  // One write keeps lines from different threads whole.
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t written = ::write(STDERR_FILENO, p, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    p += written;
    left -= static_cast<size_t>(written);
  }
}

}  // namespace zbiap
