// ZBIAPProductInfoV1Fetcher: obtains the catalogue of dynamic product infos, from the catalogue
// server (a POST of the device characteristics, signed with OAuth 1.0, whose answer must carry a
// valid RSA signature in "X-Tessil-Signature" when a signature key is set) or from the copy in
// the application bundle (resource "ZBIAPPInfos"), and parses it into a ZBIAPProductInfoResponse.
//
// Callers that ask while a fetch runs join it: one request serves them all and every one of them
// receives the same outcome, in the order they asked. Server answers are handled and delivered on
// the HTTP client's network thread, bundle loads on the calling thread before the call returns;
// the fetcher never switches to the main thread. Every fetcher made without an HTTP client of
// its own shares the process's one network thread with the account store: a callback that
// blocks there delays every other answer, so hand long work to another thread. A failure callback may receive a null error.
// The fetcher holds its owner weakly and stays alive until a running request has answered.
#ifndef ZBIAP_CATALOG_PRODUCT_INFO_V1_FETCHER_H_
#define ZBIAP_CATALOG_PRODUCT_INFO_V1_FETCHER_H_

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/catalog/product_info_fetcher.h"
#include "zbiap/catalog/product_info_response.h"
#include "zbiap/export.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"

class ZBIAPLogger;

namespace zbiap {
class HttpClient;
struct HttpResponse;
class OAuth1Signer;
class RSAPublicKey;
}  // namespace zbiap

// The domain of catalogue errors (code 1) and the user-info key of their message.
inline constexpr char ZBIAPErrorDomain[] = "ZBIAPErrorDomain";
inline constexpr char ZBIAPErrorInternalDescriptionKey[] = "ZBIAPErrorInternalDescription";

// One waiting caller's pair of callbacks.
class ZBIAP_EXPORT ZBIAPProductInfoV1FetcherBlocks {
 public:
  ZBIAPProductInfoFetcher::SuccessBlock success;
  ZBIAPProductInfoFetcher::FailureBlock failure;
};
using ZBIAPProductInfoV1FetcherBlocksArray =
    std::vector<std::shared_ptr<ZBIAPProductInfoV1FetcherBlocks>>;

class ZBIAP_EXPORT ZBIAPProductInfoV1Fetcher final
    : public ZBIAPProductInfoFetcher,
      public std::enable_shared_from_this<ZBIAPProductInfoV1Fetcher> {
 public:
  // The catalogue path appended, as text, to the base URL.
  static constexpr char kProductsDescriptionPath[] =
      "/api/v1/in_app_purchases/products_description";
  // The bundle resource (no extension) holding the catalogue copy.
  static constexpr char kBundleResourceName[] = "ZBIAPPInfos";
  static constexpr char kSignatureHeader[] = "X-Tessil-Signature";

  // `consumerKey` and `publicKey` (the consumer secret) sign the requests; `signatureKey` is the
  // base64 text of the PKCS #1 RSA public key that signs the answers: nullopt, or a text that is
  // not such a key, leaves answers unchecked. Null (after "Failed to initialize OAuth!" in the
  // system log) when the OAuth signer cannot be made, that is for an empty consumer key.
  static std::shared_ptr<ZBIAPProductInfoV1Fetcher> initWithBaseURL(
      std::string baseURL, std::string acceptHeader, std::string consumerKey, std::string publicKey,
      std::optional<std::string> signatureKey = std::nullopt);

  ~ZBIAPProductInfoV1Fetcher() override;
  ZBIAPProductInfoV1Fetcher(const ZBIAPProductInfoV1Fetcher&) = delete;
  ZBIAPProductInfoV1Fetcher& operator=(const ZBIAPProductInfoV1Fetcher&) = delete;

  // ZBIAPProductInfoFetcher.
  using ZBIAPProductInfoFetcher::fetchWithSuccess;
  void fetchWithSuccess(SuccessBlock success, FailureBlock failure, bool tryBundleData) override;
  std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner() const override;
  void setOwner(std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner) override;

  // Parses an answer and calls every one of `blocks`: success with one shared response, or
  // failure with one ZBIAPErrorDomain error (code 1, message under
  // ZBIAPErrorInternalDescriptionKey). Any bytes are safe.
  void processResponse(std::string_view bytes, const ZBIAPProductInfoV1FetcherBlocksArray& blocks);

  // The request body: the owner's store country (else its fallback code, else "DE") and its
  // store's purchases; "DE" and no purchases without an owner.
  zbiap::Dictionary deviceCharacteristics() const;

  // Whether an answer passes: always without a key; else the signature text must be strict
  // base64 of a PKCS #1 v1.5 SHA-256 signature of the non-empty `data` under `key`.
  static bool validateSignature(const std::optional<std::string>& signature,
                                const zbiap::RSAPublicKey* key, const std::string_view* data);
  // The key of a base64 PKCS #1 text; null for nullopt or a text that is not such a key.
  static std::shared_ptr<const zbiap::RSAPublicKey> private_getPublicKeyRef(
      const std::optional<std::string>& base64Key);

  const std::shared_ptr<ZBIAPLogger>& logger() const { return logger_; }
  const std::string& baseURL() const { return baseURL_; }
  const std::string& acceptHeader() const { return acceptHeader_; }
  const std::shared_ptr<zbiap::OAuth1Signer>& oAuth() const { return oAuth_; }
  // Null when answers are not checked.
  const std::shared_ptr<const zbiap::RSAPublicKey>& signatureKey() const { return signatureKey_; }
  // The callers waiting for the running fetch (a copy); empty when idle.
  ZBIAPProductInfoV1FetcherBlocksArray completionBlocks() const;

  // The client requests go through; null (the default) means zbiap::HttpClient::shared() at the
  // time of each request.
  void setHttpClient(std::shared_ptr<zbiap::HttpClient> client);

  // Told of each element of an answer's "products" as it is read, in order: its index and its
  // record, null when the element was rejected. For tools that show how an answer reads (the
  // record's messages are in the system log just before the call); runs on the thread that
  // parses the answer. Null (the default): nobody is told.
  using ProductObserver =
      std::function<void(size_t index, const std::shared_ptr<ZBIAPProductInfoV1>& info)>;
  void setProductObserver(ProductObserver observer);

 private:
  ZBIAPProductInfoV1Fetcher() = default;

  void sendRequest();
  // The end of a fetch: serves every caller waiting at this moment.
  void complete(std::string_view data, bool hasData, const zbiap::HttpResponse* response,
                ZBIAPErrorPtr error);
  void failAll(const ZBIAPProductInfoV1FetcherBlocksArray& blocks, const ZBIAPErrorPtr& error);

  std::shared_ptr<ZBIAPLogger> logger_;
  std::string baseURL_;
  std::string acceptHeader_;
  std::shared_ptr<zbiap::OAuth1Signer> oAuth_;
  std::shared_ptr<const zbiap::RSAPublicKey> signatureKey_;

  mutable std::mutex lock_;  // guards completionBlocks_, owner_, httpClient_, productObserver_
  ZBIAPProductInfoV1FetcherBlocksArray completionBlocks_;
  std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner_;
  std::shared_ptr<zbiap::HttpClient> httpClient_;
  ProductObserver productObserver_;
};

#endif  // ZBIAP_CATALOG_PRODUCT_INFO_V1_FETCHER_H_
