// ZBIAPBigNum: an ASN.1 INTEGER too long for any number type (17 content octets or more),
// kept as its content octets, big-endian two's complement, unchanged. Immutable.
#ifndef ZBIAP_RECEIPT_BIG_NUM_H_
#define ZBIAP_RECEIPT_BIG_NUM_H_

#include <memory>
#include <string>

#include "zbiap/export.h"
#include "zbiap/foundation/value.h"

class ZBIAP_EXPORT ZBIAPBigNum {
 public:
  // Copies the octets. Never null.
  static std::shared_ptr<ZBIAPBigNum> initWithData(zbiap::Data data);

  explicit ZBIAPBigNum(zbiap::Data data) : data_(std::move(data)) {}

  const zbiap::Data& dataRepresentation() const { return data_; }
  bool isEqual(const ZBIAPBigNum& other) const { return data_ == other.data_; }
  friend bool operator==(const ZBIAPBigNum& a, const ZBIAPBigNum& b) { return a.isEqual(b); }
  // "<ZBIAPBigNum: 0x0102…>": the octets in hexadecimal.
  std::string description() const;

 private:
  zbiap::Data data_;
};

#endif  // ZBIAP_RECEIPT_BIG_NUM_H_
