#include "catalog/base64.h"

#include <array>

namespace zbiap {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t kInvalid = 0xff;

constexpr std::array<uint8_t, 256> makeDecodeTable() {
  std::array<uint8_t, 256> table{};
  for (auto& entry : table) entry = kInvalid;
  for (uint8_t i = 0; i < 64; ++i) table[static_cast<uint8_t>(kAlphabet[i])] = i;
  return table;
}

constexpr std::array<uint8_t, 256> kDecodeTable = makeDecodeTable();

}  // namespace

std::string base64Encode(std::span<const uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t group = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    out.push_back(kAlphabet[(group >> 18) & 63]);
    out.push_back(kAlphabet[(group >> 12) & 63]);
    out.push_back(kAlphabet[(group >> 6) & 63]);
    out.push_back(kAlphabet[group & 63]);
  }
  size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t group = bytes[i] << 16;
    if (rest == 2) group |= bytes[i + 1] << 8;
    out.push_back(kAlphabet[(group >> 18) & 63]);
    out.push_back(kAlphabet[(group >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(group >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

std::optional<std::vector<uint8_t>> base64DecodeStrict(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  std::vector<uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    bool last = i + 4 == text.size();
    uint32_t group = 0;
    for (size_t j = 0; j < 4; ++j) {
      char c = text[i + j];
      uint8_t value = 0;
      if (last && j >= 4 - padding) {
        // Only the padding itself may stand here (checked by how `padding` was found).
      } else {
        value = kDecodeTable[static_cast<uint8_t>(c)];
        if (value == kInvalid) return std::nullopt;
      }
      group = (group << 6) | value;
    }
    out.push_back(static_cast<uint8_t>(group >> 16));
    if (!last || padding < 2) out.push_back(static_cast<uint8_t>(group >> 8));
    if (!last || padding < 1) out.push_back(static_cast<uint8_t>(group));
  }
  return out;
}

}  // namespace zbiap
