// The catalogue fetcher's inputs from the network: answer bodies, signature texts and keys, and
// the URLs and form texts the OAuth signer reads. The first byte picks what the rest is fed to.
// Any input gives a result or a clean refusal, and an answer always reaches exactly one callback
// of every caller, once.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "catalog/base64.h"
#include "catalog/oauth1_signer.h"
#include "catalog/rsa_verifier.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/platform/platform.h"

namespace {

// The default platform with a silent system log and a fixed language.
class QuietPlatform final : public zbiap::Platform {
 public:
  explicit QuietPlatform(zbiap::Platform& base) : base_(base) {}
  zbiap::MainQueue& mainQueue() override { return base_.mainQueue(); }
  zbiap::TaskQueue& globalQueue() override { return base_.globalQueue(); }
  zbiap::Date now() override { return base_.now(); }
  std::optional<std::string> environmentValue(std::string_view) override { return std::nullopt; }
  zbiap::UserDefaults& standardUserDefaults() override { return base_.standardUserDefaults(); }
  zbiap::Bundle& mainBundle() override { return base_.mainBundle(); }
  zbiap::DeviceInfo deviceInfo() override { return base_.deviceInfo(); }
  std::vector<std::string> preferredLanguages() override { return {"en-US"}; }
  void systemLog(std::string_view) override {}

 private:
  zbiap::Platform& base_;
};

void check(bool condition) {
  if (!condition) std::abort();
}

struct Fixture {
  Fixture() {
    zbiap::Platform::install(std::make_shared<QuietPlatform>(zbiap::Platform::current()));
    EVP_PKEY* pair = EVP_RSA_gen(1024);
    unsigned char* der = nullptr;
    int length = i2d_PublicKey(pair, &der);
    std::string text = zbiap::base64Encode(std::span<const uint8_t>(der, length > 0 ? length : 0));
    OPENSSL_free(der);
    EVP_PKEY_free(pair);
    fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL("https://catalog.test", "application/json",
                                                         "key", "secret", text);
    check(fetcher != nullptr && fetcher->signatureKey() != nullptr);
  }
  std::shared_ptr<ZBIAPProductInfoV1Fetcher> fetcher;
};

void answerBody(Fixture& fixture, std::string_view body) {
  int calls[2] = {0, 0};
  ZBIAPProductInfoV1FetcherBlocksArray blocks;
  for (int& count : calls) {
    auto caller = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
    caller->success = [&count](std::shared_ptr<ZBIAPProductInfoResponse> response) {
      check(response != nullptr && response->productInfos().has_value());
      ++count;
    };
    caller->failure = [&count](ZBIAPErrorPtr error) {
      check(error != nullptr && error->domain() == ZBIAPErrorDomain && error->code() == 1);
      ++count;
    };
    blocks.push_back(std::move(caller));
  }
  fixture.fetcher->processResponse(body, blocks);
  check(calls[0] == 1 && calls[1] == 1);
}

void signatureAndKey(Fixture& fixture, std::string_view text) {
  if (auto bytes = zbiap::base64DecodeStrict(text)) {
    check(zbiap::base64DecodeStrict(zbiap::base64Encode(*bytes)) == *bytes);
    (void)zbiap::RSAPublicKey::fromPKCS1DER(*bytes);
  }
  auto raw = std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  (void)zbiap::RSAPublicKey::fromPKCS1DER(raw);
  std::string_view data = "{\"products\":[]}";
  check(!ZBIAPProductInfoV1Fetcher::validateSignature(
      std::string(text), fixture.fetcher->signatureKey().get(), &data));
}

void oauthInputs(std::string_view text) {
  zbiap::OAuthParameters form = zbiap::parseFormURLEncoded(text);
  (void)zbiap::oauthNormalizedParameters(form);
  auto uri = zbiap::oauthBaseStringURI(text);
  auto base = zbiap::oauthSignatureBaseString("POST", text, form);
  check(uri.has_value() == base.has_value());
  static const auto signer = zbiap::OAuth1Signer::create("key", "secret", "_");
  zbiap::HttpRequest request;
  request.method = "POST";
  request.url = std::string(text);
  request.setHeader("Content-Type", "application/x-www-form-urlencoded");
  request.setBody(text);
  bool signedRequest = signer->authorizeRequest(request, "nonce", "1700000000");
  check(signedRequest == uri.has_value());
  check(request.headerValue("Authorization").has_value() == signedRequest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture fixture;
  if (size == 0) return 0;
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 3) {
    case 0:
      answerBody(fixture, rest);
      break;
    case 1:
      signatureAndKey(fixture, rest);
      break;
    default:
      oauthInputs(rest);
      break;
  }
  return 0;
}
