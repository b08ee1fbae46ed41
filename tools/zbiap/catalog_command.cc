// zbiap catalog check|verify|fetch: the catalogue as an app reads it.
//
//   check [--lang CODE] [--json] FILE     reads a saved answer through the fetcher's own parser
//   verify --signature-key B64 --signature B64 FILE
//   fetch --base-url URL --accept TEXT --consumer-key K --consumer-secret S
//         [--signature-key B64] [--country CC] [--json]
//
// check and fetch exit 0 when the answer is accepted and 1 when it is rejected; verify 0 for a
// valid signature and 1 for an invalid one; all three 1 for a FILE they cannot read and 2 on bad
// usage. sign and preview, the vendor's side, live in catalog_sign.cc and catalog_preview.cc.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "catalog_preview.h"
#include "catalog_report.h"
#include "catalog_sign.h"
#include "commands.h"
#include "input.h"
#include "log_capture.h"
#include "options.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/foundation/json.h"
#include "zbiap/platform/linux_platform.h"

namespace zbiap::cli {
namespace {

constexpr char kUsage[] =
    "usage: zbiap catalog check [--lang CODE] [--json] FILE\n"
    "       zbiap catalog verify --signature-key B64 --signature B64 FILE\n"
    "       zbiap catalog sign --key PRIVATE.pem [--out DIR] [--nginx [--base-path PATH]\n"
    "                          [--listen ADDR]] FILE\n"
    "       zbiap catalog preview [--lang CODE] [--storefront ABC] [--storekit FILE] FILE\n"
    "       zbiap catalog fetch --base-url URL --accept TEXT --consumer-key K\n"
    "                           --consumer-secret S [--signature-key B64] [--country CC] "
    "[--json]\n";

// Longer than the fetcher's own 60-second request time-out, so that its error is what shows.
constexpr auto kFetchWait = std::chrono::seconds(75);

// The platform of a catalogue command: the default one, its system log caught for the report.
std::shared_ptr<LogCapturingPlatform> installCapturingPlatform() {
  auto platform = std::make_shared<LogCapturingPlatform>(std::make_shared<LinuxPlatform>());
  Platform::install(platform);
  return platform;
}

int printReport(const CatalogReport& report, bool json) {
  if (json) {
    std::printf("%s\n", toJSON(report.toValue()).c_str());
  } else {
    report.print(stdout);
  }
  return report.accepted() ? 0 : 1;
}

// The country the request body reports: a fetcher's owner that knows nothing but it.
class FixedCountryOwner final : public ProductInfoFetcherOwner {
 public:
  explicit FixedCountryOwner(std::optional<std::string> country) : country_(std::move(country)) {}
  std::optional<std::string> appStoreCountry() const override { return country_; }
  std::optional<std::string> appStoreFallbackCountryCode() const override { return std::nullopt; }
  std::shared_ptr<ZBIAPStore> storeForRequests() const override { return nullptr; }

 private:
  std::optional<std::string> country_;
};

int check(const Args& args) {
  OptionParser parser("zbiap catalog check", kUsage);
  std::string lang;
  bool json = false;
  parser.value("--lang", &lang);
  parser.flag("--json", &json);
  std::vector<std::string> files;
  if (!parser.parse(args, &files, 1, 1)) return parser.exitCode();
  std::optional<std::string> bytes = readInput("zbiap catalog check", files[0]);
  if (!bytes) return 1;
  // The catalogue's language is read from the environment, as an app's override would be.
  if (!lang.empty()) setenv("ZBIAP_OVERRIDE_LOCALE", lang.c_str(), 1);

  AnswerReading reading(*bytes);
  return printReport(reading.report(), json);
}

int verify(const Args& args) {
  OptionParser parser("zbiap catalog verify", kUsage);
  std::string key, signature;
  parser.value("--signature-key", &key);
  parser.value("--signature", &signature);
  parser.require("--signature-key");
  parser.require("--signature");
  std::vector<std::string> files;
  if (!parser.parse(args, &files, 1, 1)) return parser.exitCode();
  auto publicKey = ZBIAPProductInfoV1Fetcher::private_getPublicKeyRef(key);
  if (!publicKey) return parser.fail("--signature-key is not a base64 PKCS #1 RSA public key");
  std::optional<std::string> bytes = readInput("zbiap catalog verify", files[0]);
  if (!bytes) return 1;
  std::string_view data(*bytes);
  bool valid = ZBIAPProductInfoV1Fetcher::validateSignature(signature, publicKey.get(), &data);
  std::printf("%s\n", valid ? "valid" : "invalid");
  return valid ? 0 : 1;
}

int fetch(const Args& args) {
  OptionParser parser("zbiap catalog fetch", kUsage);
  std::string baseURL, accept, consumerKey, consumerSecret, signatureKey, country;
  bool json = false;
  parser.value("--base-url", &baseURL);
  parser.value("--accept", &accept);
  parser.value("--consumer-key", &consumerKey);
  parser.value("--consumer-secret", &consumerSecret);
  parser.value("--signature-key", &signatureKey);
  parser.value("--country", &country);
  parser.flag("--json", &json);
  for (const char* name : {"--base-url", "--accept", "--consumer-key", "--consumer-secret"}) {
    parser.require(name);
  }
  if (!parser.parse(args, nullptr, 0, 0)) return parser.exitCode();
  if (consumerKey.empty()) return parser.fail("--consumer-key must not be empty");
  std::optional<std::string> checkedKey;
  if (!signatureKey.empty()) {
    if (!ZBIAPProductInfoV1Fetcher::private_getPublicKeyRef(signatureKey)) {
      return parser.fail("--signature-key is not a base64 PKCS #1 RSA public key");
    }
    checkedKey = signatureKey;
  }

  auto platform = installCapturingPlatform();
  auto fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL(baseURL, accept, consumerKey,
                                                            consumerSecret, checkedKey);
  auto owner = std::make_shared<FixedCountryOwner>(
      country.empty() ? std::nullopt : std::optional<std::string>(country));
  fetcher->setOwner(owner);
  // The callbacks share what they fill, so that an answer arriving after the wait has given up
  // still finds it alive.
  struct Outcome {
    std::mutex mutex;
    std::condition_variable answered;
    bool done = false;
  };
  auto outcome = std::make_shared<Outcome>();
  auto report = std::make_shared<CatalogReport>(*fetcher, *platform);
  auto finish = [outcome] {
    std::lock_guard lock(outcome->mutex);
    outcome->done = true;
    outcome->answered.notify_all();
  };
  fetcher->fetchWithSuccess(
      [report, finish](std::shared_ptr<ZBIAPProductInfoResponse> response) {
        report->succeeded(std::move(response));
        finish();
      },
      [report, finish](ZBIAPErrorPtr error) {
        report->failed(std::move(error));
        finish();
      });
  bool answered;
  {
    std::unique_lock lock(outcome->mutex);
    answered = outcome->answered.wait_for(lock, kFetchWait, [&] { return outcome->done; });
  }
  if (!answered) {
    std::fprintf(stderr, "zbiap catalog fetch: no answer within %lld s\n",
                 static_cast<long long>(kFetchWait.count()));
    return 1;
  }
  int status = printReport(*report, json);
  Platform::install(nullptr);
  return status;
}

int run(const Args& args) {
  if (args.empty()) {
    std::fprintf(stderr, "zbiap catalog: a subcommand is needed\n%s", kUsage);
    return 2;
  }
  if (args[0] == "--help" || args[0] == "-h") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  const Args rest(args.begin() + 1, args.end());
  if (args[0] == "check") return check(rest);
  if (args[0] == "verify") return verify(rest);
  if (args[0] == "fetch") return fetch(rest);
  if (args[0] == "sign") return catalogSign(rest);
  if (args[0] == "preview") return catalogPreview(rest);
  std::fprintf(stderr, "zbiap catalog: unknown subcommand '%s'\n%s", args[0].c_str(), kUsage);
  return 2;
}

}  // namespace

ZBIAP_REGISTER_COMMAND(catalog, "catalog",
                       "check, verify, fetch, sign or preview a catalogue answer", run);

}  // namespace zbiap::cli
