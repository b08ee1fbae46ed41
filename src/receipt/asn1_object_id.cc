#include "zbiap/receipt/asn1_object_id.h"

#include <charconv>

#include "zbiap/receipt/asn1_parser.h"

std::optional<ZBIAPASN1ObjectID> ZBIAPASN1ObjectID::parse(const uint8_t* data, size_t length,
                                                          bool isRelativ) {
  if (data == nullptr || length == 0) return std::nullopt;
  std::vector<uint64_t> nodes;
  size_t pos = 0;
  if (!isRelativ) {
    // The first octet carries two arcs and is never read in base 128.
    nodes.push_back(data[0] / 40);
    nodes.push_back(data[0] % 40);
    pos = 1;
  }
  while (pos < length) {
    uint64_t arc = 0;
    size_t used = ZBIAPASN1Parser::readBase128(&arc, data + pos, length - pos);
    if (used == 0) return std::nullopt;
    nodes.push_back(arc);
    pos += used;
  }
  if (nodes.size() < (isRelativ ? 1u : 2u)) return std::nullopt;
  return ZBIAPASN1ObjectID(isRelativ, std::move(nodes));
}

std::shared_ptr<ZBIAPASN1ObjectID> ZBIAPASN1ObjectID::initWithASN1Data(const uint8_t* data,
                                                                   size_t length, bool isRelativ) {
  auto oid = parse(data, length, isRelativ);
  if (!oid) return nullptr;
  return std::make_shared<ZBIAPASN1ObjectID>(std::move(*oid));
}

std::shared_ptr<ZBIAPASN1ObjectID> ZBIAPASN1ObjectID::initWithStringValue(std::string_view text,
                                                                      bool isRelativ) {
  std::vector<uint64_t> nodes;
  size_t start = 0;
  while (start <= text.size()) {
    size_t dot = text.find('.', start);
    if (dot == std::string_view::npos) dot = text.size();
    std::string_view piece = text.substr(start, dot - start);
    start = dot + 1;
    if (piece.empty()) continue;
    uint64_t arc = 0;
    auto [end, ec] = std::from_chars(piece.data(), piece.data() + piece.size(), arc);
    if (ec != std::errc() || end != piece.data() + piece.size()) return nullptr;
    nodes.push_back(arc);
  }
  if (nodes.size() < (isRelativ ? 1u : 2u)) return nullptr;
  return std::make_shared<ZBIAPASN1ObjectID>(ZBIAPASN1ObjectID(isRelativ, std::move(nodes)));
}

std::string ZBIAPASN1ObjectID::stringValue() const {
  std::string out;
  for (size_t i = 0; i < nodes_.size(); ++i) {
    if (i > 0) out.push_back('.');
    out += std::to_string(nodes_[i]);
  }
  return out;
}

bool ZBIAPASN1ObjectID::isEqual(const ZBIAPASN1ObjectID& other) const {
  return this == &other || (relative_ == other.relative_ && nodes_ == other.nodes_);
}

size_t ZBIAPASN1ObjectID::hash() const {
  size_t h = nodes_.size();
  for (uint64_t arc : nodes_) h = h * 1000003u ^ std::hash<uint64_t>()(arc);
  return h;
}

std::string ZBIAPASN1ObjectID::description() const { return "OID:" + stringValue(); }
