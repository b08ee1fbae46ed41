// zbiap receipt [--json] FILE|-: decodes an App Store receipt (DER, or its base64 text) and
// prints the receipt dictionary; with --json, one JSON object with dates as RFC 3339 text in
// UTC. A rejected receipt prints the reader's error and exits 1.
#include <cstdio>
#include <optional>
#include <string>

#include "commands.h"
#include "input.h"
#include "options.h"
#include "zbiap/foundation/json.h"
#include "zbiap/receipt/receipt_parser.h"
#include "zbiap/storekit/receipt_writer.h"

namespace zbiap::cli {
namespace {

// Standard base64 with optional padding and white space; nullopt for anything else.
std::optional<Data> decodeBase64(const std::string& text) {
  Data out;
  uint32_t buffer = 0;
  int bits = 0;
  size_t symbols = 0;
  size_t padding = 0;
  for (unsigned char c : text) {
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    if (padding > 0) return std::nullopt;  // data after padding
    int v;
    if (c >= 'A' && c <= 'Z') {
      v = c - 'A';
    } else if (c >= 'a' && c <= 'z') {
      v = c - 'a' + 26;
    } else if (c >= '0' && c <= '9') {
      v = c - '0' + 52;
    } else if (c == '+') {
      v = 62;
    } else if (c == '/') {
      v = 63;
    } else {
      return std::nullopt;
    }
    ++symbols;
    buffer = (buffer << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<uint8_t>(buffer >> bits));
    }
  }
  if (symbols == 0 || symbols % 4 == 1 || padding > 2 ||
      (padding > 0 && (symbols + padding) % 4 != 0)) {
    return std::nullopt;
  }
  return out;
}

// DER goes to the reader as it is; base64 text decoded; anything else as it is, to be
// rejected by the reader like any bad receipt.
Data receiptBytes(const std::string& input) {
  if (!input.empty() && static_cast<unsigned char>(input[0]) != 0x30) {
    if (auto decoded = decodeBase64(input)) return *decoded;
  }
  return Data(input.begin(), input.end());
}

// Dates become RFC 3339 text in UTC; everything else stays.
Value forJSON(const Value& value) {
  if (const Date* date = value.asDate()) return Value(ReceiptWriter::rfc3339UTC(*date));
  if (const Array* array = value.asArray()) {
    Array out;
    out.reserve(array->size());
    for (const Value& v : *array) out.push_back(forJSON(v));
    return Value(std::move(out));
  }
  if (const Dictionary* dict = value.asDictionary()) {
    Dictionary out;
    for (const auto& [key, v] : *dict) out.set(key, forJSON(v));
    return Value(std::move(out));
  }
  return value;
}

int runReceipt(const Args& args) {
  OptionParser options("zbiap receipt", "usage: zbiap receipt [--json] FILE|-\n");
  bool json = false;
  options.flag("--json", &json);
  std::vector<std::string> files;
  if (!options.parse(args, &files, 1, 1)) return options.exitCode();
  std::optional<std::string> input = readInput("zbiap receipt", files[0]);
  if (!input) return 1;
  auto parser = ZBIAPReceiptParser::initWithReceiptData(receiptBytes(*input));
  if (ZBIAPErrorPtr error = parser->lastError(); error || !parser->isLoaded()) {
    std::fprintf(stderr, "zbiap receipt: rejected: %s\n",
                 error ? error->description().c_str() : "no receipt");
    if (json && error) {
      Dictionary info{{"domain", Value(error->domain())},
                      {"code", Value(error->code())},
                      {"userInfo", Value(error->userInfo())}};
      std::printf("%s\n", toJSON(Value(Dictionary{{"error", Value(std::move(info))}})).c_str());
    }
    return 1;
  }
  Value receipt(parser->dictionaryRepresentation());
  if (json) {
    std::printf("%s\n", toJSON(forJSON(receipt)).c_str());
  } else {
    std::printf("%s\n", receipt.description().c_str());
  }
  return 0;
}

}  // namespace

ZBIAP_REGISTER_COMMAND(receipt, "receipt", "decode an App Store receipt ([--json] FILE|-)",
                       runReceipt);

}  // namespace zbiap::cli
