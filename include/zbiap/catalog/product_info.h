// ZBIAPProductInfo (protocol) and ZBIAPProductInfoV1: one dynamic product info (DPI), the
// catalogue's description of a product (texts in the user's language, colours, old price,
// visibility, groups, features, metadata), built from its JSON object; its current price comes
// from the store product the manager attaches later.
//
// DPIs are shared as std::shared_ptr. Everything is read-only once built except product,
// featureSet, featureMetadata and metadata (each get or set indivisible, any thread) and the two
// colours (not synchronised: set them only while nobody reads them). create() returns null for a
// value it cannot read, after writing the reasons to the system log. Text accessors return null
// for an absent text; the pointer lives as long as the DPI. Observers are called synchronously,
// on the setter's thread, outside the DPI's lock.
#ifndef ZBIAP_CATALOG_PRODUCT_INFO_H_
#define ZBIAP_CATALOG_PRODUCT_INFO_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "zbiap/catalog/key_table.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/small_set.h"
#include "zbiap/export.h"
#include "zbiap/foundation/color.h"
#include "zbiap/foundation/decimal.h"
#include "zbiap/foundation/value.h"
#include "zbiap/platform/observer_list.h"
#include "zbiap/store/store_product.h"

namespace zbiap {

// A set of values with Foundation's rules (numbers compare by value, strings never equal numbers).
using ValueSet = SmallSet<Value>;

}  // namespace zbiap

class ZBIAP_EXPORT ZBIAPProductInfo {
 public:
  virtual ~ZBIAPProductInfo() = default;

  // The first feature of featureMetadata() whose identifier is `identifier`, or null.
  virtual zbiap::ProductFeaturePtr metadataForFeatureIdentifier(
      std::string_view identifier) const = 0;
  virtual const std::string& productIdentifier() const = 0;
  // Null until the manager attaches one.
  virtual ZBIAPStoreProductPtr product() const = 0;
  virtual void setProduct(ZBIAPStoreProductPtr product) = 0;
  virtual bool active() const = 0;
  // Nil or a dictionary.
  virtual const zbiap::Value& featureGroup() const = 0;
  // Null when absent.
  virtual std::shared_ptr<const zbiap::ValueSet> featureSet() const = 0;
  virtual void setFeatureSet(std::shared_ptr<const zbiap::ValueSet> featureSet) = 0;
  virtual std::shared_ptr<const zbiap::ProductFeatureSet> featureMetadata() const = 0;
  virtual void setFeatureMetadata(
      std::shared_ptr<const zbiap::ProductFeatureSet> featureMetadata) = 0;
  // The dictionary the DPI was built from; saving it and building again gives an equal DPI.
  virtual const zbiap::Value& dictionaryRepresentation() const = 0;

  virtual bool isEqual(const ZBIAPProductInfo& other) const = 0;
  virtual size_t hash() const = 0;
  virtual std::string description() const = 0;
};

class ZBIAP_EXPORT ZBIAPProductInfoV1 final : public ZBIAPProductInfo {
 public:
  // The fields the key table fills.
  enum class Field : uint8_t {
    kBackgroundColor,
    kLocalizedDescription,
    kLocalizedFreeTrialTitle,
    kLocalizedFreeTrialDescription,
    kIconText,
    kProductIdentifier,
    kInactive,
    kOldPrice,
    kLocalizedPreBuyDialogTitle,
    kLocalizedPreBuyDialogMessage,
    kLocalizedPreBuyDialogActionTitle,
    kLocalizedSubtitle,
    kLocalizedHeader,
    kLocalizedTitle,
    kTitleColor,
    kDefaultVisible,
    kIgnoreSubscriptionGroupForNewCustomers,
    kRequiresAccount,
    kFeatureGroupID,
    kFeatureGroup,
    kFeatureSet,
    kFeatureMetadata,
    kMetadata,
    kSubscriptionGroupID,
    kSortKey,
  };

  // The DPI read from `dictionary`, or null: silently when it is not a dictionary, with messages
  // in the system log when a required key is missing or unreadable. Texts are picked in
  // CatalogLanguage::current(), or in `language` (one choice for a whole catalogue).
  static std::shared_ptr<ZBIAPProductInfoV1> initWithDictionary(const zbiap::Value& dictionary);
  static std::shared_ptr<ZBIAPProductInfoV1> initWithDictionary(const zbiap::Value& dictionary,
                                                    zbiap::CatalogLanguage& language);

  // Only the reader can make a Key: use create().
  class Key {
    friend class zbiap::RecordReader;
    Key() = default;
  };
  explicit ZBIAPProductInfoV1(Key);
  ~ZBIAPProductInfoV1() override;
  ZBIAPProductInfoV1(const ZBIAPProductInfoV1&) = delete;
  ZBIAPProductInfoV1& operator=(const ZBIAPProductInfoV1&) = delete;

  // ZBIAPProductInfo.
  zbiap::ProductFeaturePtr metadataForFeatureIdentifier(std::string_view identifier) const override;
  const std::string& productIdentifier() const override;
  ZBIAPStoreProductPtr product() const override;
  // Tells the observers of product, price, localizedPrice and localizedOldPrice, every time.
  void setProduct(ZBIAPStoreProductPtr product) override;
  bool active() const override { return !inactive_; }
  const zbiap::Value& featureGroup() const override { return featureGroup_; }
  std::shared_ptr<const zbiap::ValueSet> featureSet() const override;
  void setFeatureSet(std::shared_ptr<const zbiap::ValueSet> featureSet) override;
  std::shared_ptr<const zbiap::ProductFeatureSet> featureMetadata() const override;
  void setFeatureMetadata(std::shared_ptr<const zbiap::ProductFeatureSet> featureMetadata) override;
  const zbiap::Value& dictionaryRepresentation() const override {
    return dictionaryRepresentation_;
  }

  bool inactive() const { return inactive_; }
  // Always false: the catalogue has no key for it.
  bool hasPreBuyDialog() const { return hasPreBuyDialog_; }
  bool defaultVisible() const { return defaultVisible_; }
  // Read from "new_customers_visible".
  bool ignoreSubscriptionGroupForNewCustomers() const {
    return ignoreSubscriptionGroupForNewCustomers_;
  }
  bool requiresAccount() const { return requiresAccount_; }
  // A number, or nil (an inactive DPI may lack it).
  const zbiap::Value& sortKey() const { return sortKey_; }
  const std::string* localizedTitle() const { return localizedTitle_.asString(); }
  const std::string* localizedSubtitle() const { return localizedSubtitle_.asString(); }
  const std::string* localizedDescription() const { return localizedDescription_.asString(); }
  const std::string* localizedHeader() const { return localizedHeader_.asString(); }
  const std::string* localizedFreeTrialTitle() const { return localizedFreeTrialTitle_.asString(); }
  const std::string* localizedFreeTrialDescription() const {
    return localizedFreeTrialDescription_.asString();
  }
  const std::string* iconText() const { return iconText_.asString(); }
  const std::optional<ZBIAPColor>& titleColor() const { return titleColor_; }
  void setTitleColor(std::optional<ZBIAPColor> color) { titleColor_ = color; }
  const std::optional<ZBIAPColor>& backgroundColor() const { return backgroundColor_; }
  void setBackgroundColor(std::optional<ZBIAPColor> color) { backgroundColor_ = color; }
  // Not-a-number when "old_price" was a text that is no number.
  const std::optional<zbiap::Decimal>& oldPrice() const { return oldPrice_; }
  const std::string* localizedPreBuyDialogTitle() const {
    return localizedPreBuyDialogTitle_.asString();
  }
  const std::string* localizedPreBuyDialogMessage() const {
    return localizedPreBuyDialogMessage_.asString();
  }
  const std::string* localizedPreBuyDialogActionTitle() const {
    return localizedPreBuyDialogActionTitle_.asString();
  }
  const std::string* featureGroupID() const { return featureGroupID_.asString(); }
  // Read from "iap_group".
  const std::string* subscriptionGroupID() const { return subscriptionGroupID_.asString(); }
  // Nil or a dictionary.
  zbiap::Value metadata() const;
  void setMetadata(zbiap::Value metadata);

  // The attached product's price; nullopt without a product.
  std::optional<zbiap::Decimal> price() const;
  // The product's price, or oldPrice(), as a currency text in the product's price locale
  // ("9,99 €" for de_DE@currency=EUR). nullopt without a product, and without an old price.
  std::optional<std::string> localizedPrice() const;
  std::optional<std::string> localizedOldPrice() const;

  // Observers, told on every setProduct() (price and the two texts depend on product).
  zbiap::ObserverList<ZBIAPStoreProductPtr>& productObservers();
  zbiap::ObserverList<std::optional<zbiap::Decimal>>& priceObservers();
  zbiap::ObserverList<std::optional<std::string>>& localizedPriceObservers();
  zbiap::ObserverList<std::optional<std::string>>& localizedOldPriceObservers();

  // True for the same object; else the other must be a ZBIAPProductInfoV1 equal in identifier,
  // inactive, defaultVisible, ignoreSubscriptionGroupForNewCustomers, product (the same object),
  // the texts except the free-trial ones, colours, oldPrice, hasPreBuyDialog, requiresAccount,
  // featureGroupID, featureMetadata and metadata. sortKey, the free-trial texts,
  // subscriptionGroupID, featureGroup and featureSet do not count.
  bool isEqual(const ZBIAPProductInfo& other) const override;
  // The hash of productIdentifier().
  size_t hash() const override;
  // "<ZBIAPProductInfoV1:0x... 'id' (ACTIVE) (requires account) 9,99 € ... - title>".
  std::string description() const override;

  friend bool operator==(const ZBIAPProductInfoV1& a, const ZBIAPProductInfoV1& b) {
    return a.isEqual(b);
  }

 private:
  friend class zbiap::RecordReader;
  struct Observers;

  Observers& observers();

  bool inactive_ = false;
  bool hasPreBuyDialog_ = false;
  bool defaultVisible_ = false;
  bool ignoreSubscriptionGroupForNewCustomers_ = false;
  bool requiresAccount_ = false;
  zbiap::Value productIdentifier_;  // A string once built.
  zbiap::Value featureGroup_;
  zbiap::Value dictionaryRepresentation_;
  zbiap::Value sortKey_;
  zbiap::Value localizedTitle_;
  zbiap::Value localizedSubtitle_;
  zbiap::Value localizedDescription_;
  zbiap::Value localizedHeader_;
  zbiap::Value localizedFreeTrialTitle_;
  zbiap::Value localizedFreeTrialDescription_;
  zbiap::Value iconText_;
  std::optional<ZBIAPColor> titleColor_;
  std::optional<ZBIAPColor> backgroundColor_;
  std::optional<zbiap::Decimal> oldPrice_;
  zbiap::Value localizedPreBuyDialogTitle_;
  zbiap::Value localizedPreBuyDialogMessage_;
  zbiap::Value localizedPreBuyDialogActionTitle_;
  zbiap::Value featureGroupID_;
  zbiap::Value subscriptionGroupID_;

  // Guards the settable properties below and the creation of observers_.
  mutable std::mutex mutex_;
  ZBIAPStoreProductPtr product_;
  std::shared_ptr<const zbiap::ValueSet> featureSet_;
  std::shared_ptr<const zbiap::ProductFeatureSet> featureMetadata_;
  zbiap::Value metadata_;
  // Made on first use: most DPIs are never observed.
  std::unique_ptr<Observers> observers_;
};

// The key table of ZBIAPProductInfoV1, in the order the reader walks it (the order matters: the
// reader stops at the first immediate failure).
extern const std::array<zbiap::KeyTableEntry<ZBIAPProductInfoV1>, 25> gEntries;

template <>
struct std::hash<ZBIAPProductInfoV1> {
  size_t operator()(const ZBIAPProductInfoV1& info) const { return info.hash(); }
};

#endif  // ZBIAP_CATALOG_PRODUCT_INFO_H_
