// ZBIAPProductFeature (protocol) and ZBIAPProductFeatureV1: one feature description of the
// catalogue, an identifier with free-form metadata, built from its JSON object.
//
// Features are shared as std::shared_ptr and are read-only once built, except metadata, which
// may be replaced from any thread (each get or set is indivisible). create() returns null for a
// value it cannot read, after writing the reason to the system log. Equality compares identifier
// and metadata, but hash() is the object's identity; zbiap::ProductFeatureSet therefore holds
// features by identity, so two separately built feature sets never compare equal.
#ifndef ZBIAP_CATALOG_PRODUCT_FEATURE_H_
#define ZBIAP_CATALOG_PRODUCT_FEATURE_H_

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "zbiap/catalog/key_table.h"
#include "zbiap/catalog/small_set.h"
#include "zbiap/export.h"
#include "zbiap/foundation/value.h"

class ZBIAP_EXPORT ZBIAPProductFeature {
 public:
  virtual ~ZBIAPProductFeature() = default;

  virtual const std::string& identifier() const = 0;
  // Nil or a dictionary.
  virtual zbiap::Value metadata() const = 0;
  virtual void setMetadata(zbiap::Value metadata) = 0;
  // The dictionary the feature was built from.
  virtual const zbiap::Value& dictionaryRepresentation() const = 0;

  virtual bool isEqual(const ZBIAPProductFeature& other) const = 0;
  virtual size_t hash() const = 0;
  virtual std::string description() const = 0;
};

class ZBIAP_EXPORT ZBIAPProductFeatureV1 final : public ZBIAPProductFeature {
 public:
  // The fields the key table fills.
  enum class Field : uint8_t { kIdentifier, kMetadata };

  // The feature read from `dictionary`, or null when it is not a dictionary (no message) or
  // lacks a readable "identifier" (a message in the system log).
  static std::shared_ptr<ZBIAPProductFeatureV1> initWithDictionary(const zbiap::Value& dictionary);

  // Only the reader can make a Key: use create().
  class Key {
    friend class zbiap::RecordReader;
    Key() = default;
  };
  explicit ZBIAPProductFeatureV1(Key) {}
  ZBIAPProductFeatureV1(const ZBIAPProductFeatureV1&) = delete;
  ZBIAPProductFeatureV1& operator=(const ZBIAPProductFeatureV1&) = delete;

  const std::string& identifier() const override;
  zbiap::Value metadata() const override;
  void setMetadata(zbiap::Value metadata) override;
  const zbiap::Value& dictionaryRepresentation() const override {
    return dictionaryRepresentation_;
  }

  // True for the same object; else the other must be a ZBIAPProductFeatureV1 with an equal
  // identifier and equal metadata (nil only equals nil).
  bool isEqual(const ZBIAPProductFeature& other) const override;
  // The object's identity, deliberately not derived from the values isEqual() compares.
  size_t hash() const override;
  // "<ZBIAPProductFeatureV1:0x... 'identifier' - metadata>".
  std::string description() const override;

  friend bool operator==(const ZBIAPProductFeatureV1& a, const ZBIAPProductFeatureV1& b) {
    return a.isEqual(b);
  }

 private:
  friend class zbiap::RecordReader;

  zbiap::Value identifier_;   // A string once built.
  mutable std::mutex mutex_;  // Guards metadata_.
  zbiap::Value metadata_;
  zbiap::Value dictionaryRepresentation_;
};

// The key table of ZBIAPProductFeatureV1, in the order the reader walks it.
extern const std::array<zbiap::KeyTableEntry<ZBIAPProductFeatureV1>, 2> gFeatureEntries;

namespace zbiap {

using ProductFeaturePtr = std::shared_ptr<ZBIAPProductFeatureV1>;
// A set of features by identity (see the file comment).
using ProductFeatureSet = SmallSet<ProductFeaturePtr>;

}  // namespace zbiap

template <>
struct std::hash<ZBIAPProductFeatureV1> {
  size_t operator()(const ZBIAPProductFeatureV1& feature) const { return feature.hash(); }
};

#endif  // ZBIAP_CATALOG_PRODUCT_FEATURE_H_
