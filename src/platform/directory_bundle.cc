#include "zbiap/platform/directory_bundle.h"

#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>

#include "zbiap/foundation/json.h"

namespace zbiap {

namespace {

// Info.json larger than this is not an info dictionary.
constexpr std::uintmax_t kMaxInfoSize = 16 * 1024 * 1024;

bool isPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

}  // namespace

DirectoryBundle::DirectoryBundle(std::filesystem::path directory)
    : directory_(std::move(directory)), receiptURL_(directory_ / "_MASReceipt" / "receipt") {}

std::optional<std::filesystem::path> DirectoryBundle::pathForResource(std::string_view name,
                                                                      std::string_view type) const {
  std::string file(name);
  if (!type.empty()) {
    file += '.';
    file += type;
  }
  if (!isPlainName(file)) return std::nullopt;
  std::filesystem::path path = directory_ / file;
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return std::nullopt;
  return path;
}

Dictionary DirectoryBundle::infoDictionary() const {
  std::filesystem::path path = directory_ / "Info.json";
  std::error_code ec;
  std::uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec || size > kMaxInfoSize) return Dictionary();
  std::ifstream in(path, std::ios::binary);
  if (!in) return Dictionary();
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::optional<Value> parsed = parseJSON(text);
  if (!parsed || !parsed->isDictionary()) return Dictionary();
  return *parsed->asDictionary();
}

std::filesystem::path DirectoryBundle::appStoreReceiptURL() const {
  std::lock_guard<std::mutex> lock(mu_);
  return receiptURL_;
}

void DirectoryBundle::setAppStoreReceiptURL(std::filesystem::path path) {
  std::lock_guard<std::mutex> lock(mu_);
  receiptURL_ = std::move(path);
}

}  // namespace zbiap
