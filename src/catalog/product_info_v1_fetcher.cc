#include "zbiap/catalog/product_info_v1_fetcher.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "catalog/oauth1_signer.h"
#include "catalog/rsa_verifier.h"
#include "zbiap/catalog/device_characteristics.h"
#include "zbiap/catalog/key_table.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/foundation/json.h"
#include "zbiap/platform/http_client.h"
#include "zbiap/platform/platform.h"
#include "zbiap/store/store.h"
#include "zbiap/support/logger.h"

namespace {

constexpr char kLoggerName[] = "DPI Fetcher";
constexpr char kLoggerKey[] = "ZBIAPDYNAMICPRODUCTINFOFETCHER_LOGGING";
constexpr char kDefaultCountry[] = "DE";
constexpr char kFallbackLanguage[] = "de";
// NSJSONSerialization's error for text that is not JSON.
constexpr int64_t kJSONReadingErrorCode = 3840;

std::string describe(const ZBIAPErrorPtr& error) {
  return error ? error->description() : std::string("(null)");
}

ZBIAPErrorPtr envelopeError(std::string_view message, ZBIAPErrorPtr underlying = nullptr) {
  zbiap::Dictionary info{{ZBIAPErrorInternalDescriptionKey, zbiap::Value(message)}};
  return ZBIAPError::make(ZBIAPErrorDomain, 1, std::move(info), std::move(underlying));
}

// "gold_description": a plain string, or the entry of the catalogue's language, else of the
// fallback language; anything else gives no header.
std::optional<std::string> resolveGoldDescription(const zbiap::Value& value,
                                                  zbiap::CatalogLanguage& language) {
  if (const std::string* text = value.asString()) return *text;
  if (!value.isDictionary()) return std::nullopt;
  if (const std::string* text = value[language.get()].asString()) return *text;
  if (const std::string* text = value[kFallbackLanguage].asString()) return *text;
  return std::nullopt;
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return bytes;
}

}  // namespace

std::shared_ptr<ZBIAPProductInfoV1Fetcher> ZBIAPProductInfoV1Fetcher::initWithBaseURL(
    std::string baseURL, std::string acceptHeader, std::string consumerKey, std::string publicKey,
    std::optional<std::string> signatureKey) {
  std::shared_ptr<ZBIAPProductInfoV1Fetcher> fetcher(new ZBIAPProductInfoV1Fetcher());
  fetcher->logger_ = ZBIAPLogger::createWithName(kLoggerName, kLoggerKey);
  fetcher->baseURL_ = std::move(baseURL);
  fetcher->acceptHeader_ = std::move(acceptHeader);
  fetcher->oAuth_ = zbiap::OAuth1Signer::create(std::move(consumerKey), std::move(publicKey), "_");
  if (!fetcher->oAuth_) {
    zbiap::Platform::current().systemLog("Failed to initialize OAuth!");
    return nullptr;
  }
  fetcher->signatureKey_ = private_getPublicKeyRef(signatureKey);
  return fetcher;
}

ZBIAPProductInfoV1Fetcher::~ZBIAPProductInfoV1Fetcher() = default;

std::weak_ptr<zbiap::ProductInfoFetcherOwner> ZBIAPProductInfoV1Fetcher::owner() const {
  std::lock_guard lock(lock_);
  return owner_;
}

void ZBIAPProductInfoV1Fetcher::setOwner(std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner) {
  std::lock_guard lock(lock_);
  owner_ = std::move(owner);
}

ZBIAPProductInfoV1FetcherBlocksArray ZBIAPProductInfoV1Fetcher::completionBlocks() const {
  std::lock_guard lock(lock_);
  return completionBlocks_;
}

void ZBIAPProductInfoV1Fetcher::setHttpClient(std::shared_ptr<zbiap::HttpClient> client) {
  std::lock_guard lock(lock_);
  httpClient_ = std::move(client);
}

void ZBIAPProductInfoV1Fetcher::setProductObserver(ProductObserver observer) {
  std::lock_guard lock(lock_);
  productObserver_ = std::move(observer);
}

void ZBIAPProductInfoV1Fetcher::fetchWithSuccess(SuccessBlock success, FailureBlock failure,
                                                 bool tryBundleData) {
  auto blocks = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
  blocks->success = std::move(success);
  blocks->failure = std::move(failure);
  {
    std::lock_guard lock(lock_);
    bool running = !completionBlocks_.empty();
    completionBlocks_.push_back(std::move(blocks));
    if (running) {
      ZBIAP_LOG(logger_, "Operation still in progress.");
      return;
    }
  }

  if (tryBundleData) {
    ZBIAP_LOG(logger_, "Loading local product infos from bundle");
    auto path = zbiap::Platform::current().mainBundle().pathForResource(kBundleResourceName, "");
    std::optional<std::string> bytes = path ? readWholeFile(*path) : std::nullopt;
    if (bytes) {
      complete(*bytes, true, nullptr, nullptr);
    } else {
      complete({}, false, nullptr, ZBIAPError::make(ZBIAPErrorDomain, 1));
    }
    return;
  }
  sendRequest();
}

void ZBIAPProductInfoV1Fetcher::sendRequest() {
  zbiap::Dictionary characteristics = deviceCharacteristics();
  zbiap::HttpRequest request;
  request.method = "POST";
  request.url = baseURL_ + kProductsDescriptionPath;
  request.timeout = std::chrono::seconds(60);
  request.setBody(zbiap::toJSON(zbiap::Value(characteristics)));
  request.setHeader("Accept-Encoding", "gzip, deflate");
  request.setHeader("Accept", acceptHeader_);
  request.setHeader("Content-Type", "application/json");
  request.setHeader("Accept-Language", "en-US;q=1");
  bool signedRequest = oAuth_->authorizeRequest(request);
  ZBIAP_LOG(logger_, "Fetching with characteristics: {}",
            zbiap::Value(characteristics).description());
  if (!signedRequest) {
    // Only a base URL that is no absolute URL gets here; the transport would refuse it as well.
    zbiap::Dictionary info{{zbiap::kNSLocalizedDescriptionKey, zbiap::Value("bad URL")},
                           {zbiap::kNSErrorFailingURLStringKey, zbiap::Value(request.url)}};
    complete({}, false, nullptr,
             ZBIAPError::make(zbiap::kNSURLErrorDomain, zbiap::kNSURLErrorBadURL, std::move(info)));
    return;
  }

  std::shared_ptr<zbiap::HttpClient> client;
  {
    std::lock_guard lock(lock_);
    client = httpClient_;
  }
  if (!client) client = zbiap::HttpClient::shared();
  // The handler holds the fetcher until the answer has been delivered.
  client->send(std::move(request),
               [self = shared_from_this()](std::shared_ptr<const zbiap::HttpResponse> response,
                                           ZBIAPErrorPtr error) {
                 if (response) {
                   self->complete(response->bodyText(), true, response.get(), std::move(error));
                 } else {
                   self->complete({}, false, nullptr, std::move(error));
                 }
               });
}

void ZBIAPProductInfoV1Fetcher::complete(std::string_view data, bool hasData,
                                         const zbiap::HttpResponse* response, ZBIAPErrorPtr error) {
  ZBIAPProductInfoV1FetcherBlocksArray blocks;
  {
    std::lock_guard lock(lock_);
    blocks.swap(completionBlocks_);
  }
  if (response) {
    std::optional<std::string> signature = response->headerValue(kSignatureHeader);
    if (!validateSignature(signature, signatureKey_.get(), hasData ? &data : nullptr)) {
      ZBIAP_LOG(logger_, "Signature verification failed");
      failAll(blocks, error);
      return;
    }
  }
  if (hasData && !data.empty() && !error) {
    processResponse(data, blocks);
    return;
  }
  ZBIAP_LOG(logger_, "Fetching failed with error: {}", describe(error));
  failAll(blocks, error);
}

void ZBIAPProductInfoV1Fetcher::failAll(const ZBIAPProductInfoV1FetcherBlocksArray& blocks,
                                        const ZBIAPErrorPtr& error) {
  for (const auto& caller : blocks) {
    if (caller->failure) caller->failure(error);
  }
}

void ZBIAPProductInfoV1Fetcher::processResponse(
    std::string_view bytes, const ZBIAPProductInfoV1FetcherBlocksArray& blocks) {
  auto fail = [&](std::string_view message, std::string_view logLine,
                  ZBIAPErrorPtr underlying = nullptr) {
    ZBIAP_LOG_MESSAGE(logger_, logLine);
    failAll(blocks, envelopeError(message, std::move(underlying)));
  };

  std::string reason;
  std::optional<zbiap::Value> parsed = zbiap::parseJSONDocument(bytes, &reason);
  if (!parsed) {
    zbiap::Dictionary info{{zbiap::kNSDebugDescriptionKey, zbiap::Value(reason)}};
    ZBIAPErrorPtr parseError =
        ZBIAPError::make(zbiap::kNSCocoaErrorDomain, kJSONReadingErrorCode, std::move(info));
    ZBIAP_LOG(logger_, "Response parsing failed with error: {}", parseError->description());
    failAll(blocks, envelopeError("JSON parsing failed.", parseError));
    return;
  }
  const zbiap::Dictionary* envelope = parsed->asDictionary();
  if (!envelope) {
    fail("Top-level JSON object is not a dictionary.", "Response malformed (top-level).");
    return;
  }

  zbiap::CatalogLanguage language;
  std::optional<std::string> goldDescription;
  if (const zbiap::Value* gold = envelope->find("gold_description")) {
    goldDescription = resolveGoldDescription(*gold, language);
  }

  std::optional<zbiap::Dictionary> featureGroups;
  if (const zbiap::Value* groups = envelope->find("feature_groups")) {
    if (!groups->isDictionary()) {
      // The same log line as for the gold description, as the catalogue tools expect.
      fail("Feature Groups is not a dictionary.", "Response malformed (gold).");
      return;
    }
    featureGroups = *groups->asDictionary();
  }

  std::optional<ZBIAPProductInfoResponse::FeatureSet> featureSet;
  if (const zbiap::Value* metadata = envelope->find("features_metadata")) {
    const zbiap::Array* features = metadata->asArray();
    if (!features) {
      fail("Feature metadata array has wrong type.", "Response malformed (feature metadata).");
      return;
    }
    featureSet.emplace();
    for (const zbiap::Value& element : *features) {
      if (!element.isDictionary()) continue;
      if (auto feature = ZBIAPProductFeatureV1::initWithDictionary(element)) featureSet->insert(feature);
    }
  }

  const zbiap::Value* productsValue = envelope->find("products");
  const zbiap::Array* products = productsValue ? productsValue->asArray() : nullptr;
  if (!products) {
    fail("No products array or object has wrong type.", "Response malformed (products).");
    return;
  }
  ProductObserver observer;
  {
    std::lock_guard lock(lock_);
    observer = productObserver_;
  }
  ZBIAPProductInfoResponse::ProductInfos infos;
  infos.reserve(products->size());
  for (size_t index = 0; index < products->size(); ++index) {
    std::shared_ptr<ZBIAPProductInfoV1> info =
        ZBIAPProductInfoV1::initWithDictionary((*products)[index], language);
    if (observer) observer(index, info);
    if (info) infos.push_back(std::move(info));
  }
  if (infos.empty() && !products->empty()) {
    fail("All products failed to parse.", "Response malformed (products content).");
    return;
  }
  if (infos.size() < products->size()) {
    ZBIAP_LOG(logger_, "Response partially malformed (products content). Can continue.");
  } else {
    ZBIAP_LOG(logger_, "Response successfully parsed.");
  }

  auto response = ZBIAPProductInfoResponse::initWithProductInfos(std::move(infos), std::move(goldDescription),
                                                   std::move(featureGroups), std::move(featureSet));
  for (const auto& caller : blocks) {
    if (caller->success) caller->success(response);
  }
}

zbiap::Dictionary ZBIAPProductInfoV1Fetcher::deviceCharacteristics() const {
  std::string country = kDefaultCountry;
  std::vector<ZBIAPReceiptIAPPtr> purchases;
  if (auto owner = this->owner().lock()) {
    if (auto storeCountry = owner->appStoreCountry(); storeCountry && !storeCountry->empty()) {
      country = *storeCountry;
    } else if (auto fallback = owner->appStoreFallbackCountryCode()) {
      country = *fallback;
    }
    if (auto store = owner->storeForRequests()) purchases = store->inAppPurchases();
  }
  return ZBIAPDeviceCharacteristics::characteristicsWithInAppPurchases(purchases, country);
}

bool ZBIAPProductInfoV1Fetcher::validateSignature(const std::optional<std::string>& signature,
                                                  const zbiap::RSAPublicKey* key,
                                                  const std::string_view* data) {
  if (!key) return true;
  if (!signature || !data || data->empty()) return false;
  auto message = std::span(reinterpret_cast<const uint8_t*>(data->data()), data->size());
  return key->verifySHA256(message, std::string_view(*signature));
}

std::shared_ptr<const zbiap::RSAPublicKey> ZBIAPProductInfoV1Fetcher::private_getPublicKeyRef(
    const std::optional<std::string>& base64Key) {
  if (!base64Key) return nullptr;
  return zbiap::RSAPublicKey::fromBase64(*base64Key);
}
