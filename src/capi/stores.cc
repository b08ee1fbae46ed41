// The C API's stores (App Store, account, compound) and the catalogue fetcher.
#include <string>

#include "capi/handles.h"
#include "zbiap/foundation/json.h"
#include "zbiap/store/compound_store.h"
#include "zbiap/store/store_apple.h"
#include "zbiap/store/store_morvane.h"

using zbiap::capi::fail;
using zbiap::capi::guarded;
using zbiap::capi::nullArgument;

struct zbiap_headers {
  ZBIAPStoreMorvaneHeaders fields;
};

namespace zbiap::capi {
namespace {

// The purchase record keys that hold dates. The kept list is JSON, which has no dates: they are
// written as microseconds since 1970, exactly, and read back under these keys.
constexpr const char* kDateKeys[] = {
    ZBIAPReceiptKeyIAPPurchaseDate, ZBIAPReceiptKeyIAPOriginalPurchaseDate,
    ZBIAPReceiptKeyIAPSubscriptionExpirationDate, ZBIAPReceiptKeyIAPCancellationDate};

std::string purchasesToText(const Array& purchases) {
  Array out;
  for (const Value& purchase : purchases) {
    const Dictionary* fields = purchase.asDictionary();
    if (fields == nullptr) continue;
    Dictionary copy;
    for (const auto& [key, value] : *fields) {
      const Date* date = value.asDate();
      copy.set(key, date ? Value(date->microsSince1970()) : value);
    }
    out.push_back(Value(std::move(copy)));
  }
  return toJSON(Value(std::move(out)));
}

Value purchasesFromText(const char* text) {
  std::optional<Value> parsed = parseJSON(text);
  if (!parsed || !parsed->isArray()) return Value();
  Array out;
  for (const Value& purchase : *parsed->asArray()) {
    const Dictionary* fields = purchase.asDictionary();
    if (fields == nullptr) continue;
    Dictionary copy = *fields;
    for (const char* key : kDateKeys) {
      if (std::optional<int64_t> micros = (*fields)[key].int64Value()) {
        copy.set(key, Value(Date::fromMicrosSince1970(*micros)));
      }
    }
    out.push_back(Value(std::move(copy)));
  }
  return Value(std::move(out));
}

// The host's side of the account store, through the option struct's callbacks.
class AccountHost final : public ZBIAPStoreMorvaneDelegate {
 public:
  explicit AccountHost(const zbiap_account_store_options& options) : options_(options) {}

  void store(ZBIAPStoreMorvane&, bool isRetrying, HeadersCompletion completion) override {
    zbiap_headers headers;
    if (options_.request_headers != nullptr &&
        options_.request_headers(options_.context, isRetrying ? 1 : 0, &headers) != 0) {
      return completion({}, ZBIAPError::make(kErrorDomain, ZBIAP_ERROR_FAILED,
                                             {{kNSLocalizedDescriptionKey,
                                               Value("the host gave no request headers")}}));
    }
    completion(std::move(headers.fields), nullptr);
  }
  void store(ZBIAPStoreMorvane&, const Array& purchases) override {
    if (options_.save_purchases != nullptr) {
      options_.save_purchases(options_.context, purchasesToText(purchases).c_str());
    }
  }
  Value readInAppPurchasesForStore(ZBIAPStoreMorvane&) override {
    const char* text =
        options_.read_purchases != nullptr ? options_.read_purchases(options_.context) : nullptr;
    return text != nullptr ? purchasesFromText(text) : Value();
  }

 private:
  const zbiap_account_store_options options_;
};

int newStore(std::shared_ptr<ZBIAPStore> store, std::vector<std::shared_ptr<void>> keep,
             zbiap_store** out) {
  *out = new zbiap_store{std::move(store), std::move(keep)};
  ++liveObjects();
  return ZBIAP_OK;
}

}  // namespace
}  // namespace zbiap::capi

using zbiap::capi::newStore;

extern "C" {

int zbiap_headers_add(zbiap_headers* headers, const char* name, const char* value) {
  return guarded([&] {
    if (headers == nullptr) return nullArgument("headers");
    if (name == nullptr || *name == '\0') return nullArgument("name");
    if (value == nullptr) return nullArgument("value");
    headers->fields.emplace_back(name, value);
    return int{ZBIAP_OK};
  });
}

int zbiap_store_create_app_store(zbiap_store** out) {
  return guarded([&] {
    if (out == nullptr) return nullArgument("out");
    *out = nullptr;
    if (int status = zbiap::capi::requirePlatform()) return status;
    return newStore(ZBIAPStoreApple::create(), {}, out);
  });
}

int zbiap_store_create_account_store(const zbiap_account_store_options* options,
                                     zbiap_store** out) {
  return guarded([&] {
    if (out == nullptr) return nullArgument("out");
    *out = nullptr;
    if (options == nullptr) return nullArgument("options");
    if (options->base_url == nullptr || *options->base_url == '\0') {
      return nullArgument("options->base_url");
    }
    if (int status = zbiap::capi::requirePlatform()) return status;
    auto host = std::make_shared<zbiap::capi::AccountHost>(*options);
    auto store = ZBIAPStoreMorvane::initWithBaseURL(options->base_url);
    store->setMorvaneStoreDelegate(host);
    return newStore(std::move(store), {host}, out);
  });
}

int zbiap_store_create_compound(zbiap_store* const* stores, size_t count, zbiap_store** out) {
  return guarded([&] {
    if (out == nullptr) return nullArgument("out");
    *out = nullptr;
    if (stores == nullptr || count == 0) {
      return fail(ZBIAP_ERROR_INVALID_ARGUMENT, "a compound store needs stores");
    }
    std::vector<std::shared_ptr<ZBIAPStore>> members;
    std::vector<std::shared_ptr<void>> keep;
    for (size_t i = 0; i < count; ++i) {
      if (stores[i] == nullptr) return nullArgument("stores[i]");
      members.push_back(stores[i]->store);
      keep.insert(keep.end(), stores[i]->keep.begin(), stores[i]->keep.end());
    }
    return newStore(ZBIAPCompoundStore::initWithStores(std::move(members)), std::move(keep), out);
  });
}

int zbiap_store_destroy(zbiap_store* store) {
  if (store == nullptr) return nullArgument("store");
  delete store;
  --zbiap::capi::liveObjects();
  return ZBIAP_OK;
}

int zbiap_fetcher_create(const zbiap_fetcher_options* options, zbiap_fetcher** out) {
  return guarded([&] {
    if (out == nullptr) return nullArgument("out");
    *out = nullptr;
    if (options == nullptr) return nullArgument("options");
    if (options->base_url == nullptr || *options->base_url == '\0') {
      return nullArgument("options->base_url");
    }
    if (options->consumer_key == nullptr || *options->consumer_key == '\0') {
      return nullArgument("options->consumer_key");
    }
    if (options->signature_key != nullptr &&
        !ZBIAPProductInfoV1Fetcher::private_getPublicKeyRef(options->signature_key)) {
      return fail(ZBIAP_ERROR_INVALID_ARGUMENT,
                  "options->signature_key is not a base64 PKCS #1 RSA public key");
    }
    if (int status = zbiap::capi::requirePlatform()) return status;
    auto fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL(
        options->base_url, options->accept ? options->accept : "application/json",
        options->consumer_key, options->consumer_secret ? options->consumer_secret : "",
        options->signature_key ? std::optional<std::string>(options->signature_key) : std::nullopt);
    if (!fetcher) return fail(ZBIAP_ERROR_FAILED, "cannot make the OAuth 1.0 signer");
    *out = new zbiap_fetcher{std::move(fetcher)};
    ++zbiap::capi::liveObjects();
    return int{ZBIAP_OK};
  });
}

int zbiap_fetcher_destroy(zbiap_fetcher* fetcher) {
  if (fetcher == nullptr) return nullArgument("fetcher");
  delete fetcher;
  --zbiap::capi::liveObjects();
  return ZBIAP_OK;
}

}  // extern "C"
