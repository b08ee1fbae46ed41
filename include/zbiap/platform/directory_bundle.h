// zbiap::DirectoryBundle: the main bundle as a plain directory holding the resources and
// Info.json (the info dictionary). Info.json is read on each infoDictionary() call, so a file
// written later is seen. Thread-safe.
#ifndef ZBIAP_PLATFORM_DIRECTORY_BUNDLE_H_
#define ZBIAP_PLATFORM_DIRECTORY_BUNDLE_H_

#include <filesystem>
#include <mutex>
#include <optional>
#include <string_view>

#include "zbiap/export.h"
#include "zbiap/platform/platform.h"

namespace zbiap {

class ZBIAP_EXPORT DirectoryBundle final : public Bundle {
 public:
  // The receipt URL defaults to <directory>/_MASReceipt/receipt.
  explicit DirectoryBundle(std::filesystem::path directory);
  DirectoryBundle(const DirectoryBundle&) = delete;
  DirectoryBundle& operator=(const DirectoryBundle&) = delete;

  std::filesystem::path bundlePath() const override { return directory_; }
  // <directory>/<name>.<type> (just <name> when `type` is empty) when it is a regular file.
  // Names that would leave the directory ("..", "/") find nothing.
  std::optional<std::filesystem::path> pathForResource(std::string_view name,
                                                       std::string_view type) const override;
  Dictionary infoDictionary() const override;
  std::filesystem::path appStoreReceiptURL() const override;

  void setAppStoreReceiptURL(std::filesystem::path path);

 private:
  const std::filesystem::path directory_;
  mutable std::mutex mu_;
  std::filesystem::path receiptURL_;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_DIRECTORY_BUNDLE_H_
