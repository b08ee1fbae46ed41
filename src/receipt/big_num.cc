#include "zbiap/receipt/big_num.h"

std::shared_ptr<ZBIAPBigNum> ZBIAPBigNum::initWithData(zbiap::Data data) {
  return std::make_shared<ZBIAPBigNum>(std::move(data));
}

std::string ZBIAPBigNum::description() const {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "<ZBIAPBigNum: 0x";
  for (uint8_t b : data_) {
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 15]);
  }
  out.push_back('>');
  return out;
}
