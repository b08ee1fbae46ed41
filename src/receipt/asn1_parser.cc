// The parser works level by level: each level appends the indices of its values to one shared
// stack, and a finished array moves its slice of the stack into the tree's children list, so
// building a tree allocates only when its flat arrays grow.
#include "zbiap/receipt/asn1_parser.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "receipt/asn1_utf8.h"

namespace zbiap {

namespace {

struct Header {
  uint8_t asn1Class;
  bool constructed;
  uint64_t tag;
  uint64_t length;    // 0 also stands for the indefinite form
  size_t headerSize;  // identifier and length octets
};

// Reads one header from `length` bytes; returns the bytes used (header plus contents for a
// definite length, the header alone for length 0) or 0 on failure.
size_t readHeader(const uint8_t* p, size_t length, Header* h) {
  if (length < 2) return 0;
  uint8_t id = p[0];
  h->asn1Class = id >> 6;
  h->constructed = (id & 0x20) != 0;
  h->tag = id & 0x1F;
  size_t pos = 1;
  if (h->tag == 31) {
    size_t used = ZBIAPASN1Parser::readBase128(&h->tag, p + pos, length - pos);
    if (used == 0) return 0;
    pos += used;
  }
  size_t used = ZBIAPASN1Parser::readLength(&h->length, p + pos, length - pos);
  if (used == 0) return 0;
  pos += used;
  h->headerSize = pos;
  if (h->length == 0) return pos;
  if (h->length > length - pos) return 0;
  return pos + static_cast<size_t>(h->length);
}

}  // namespace

class ASN1Builder {
 public:
  explicit ASN1Builder(ASN1Tree* tree) : tree_(tree), stack_(tree->stack_) {}

  // Parses `data` into the tree, which keeps it.
  bool buildOwned(Data data) {
    tree_->owned_ = std::move(data);
    return build(tree_->owned_.data(), tree_->owned_.size());
  }

  bool build(const uint8_t* data, size_t length) {
    if (length == 0 || length > std::numeric_limits<uint32_t>::max()) return false;
    stack_.clear();
    if (parseLevel(data, length, 0) == 0) return false;
    tree_->root_ = makeArray(0);
    tree_->hasRoot_ = true;
    return true;
  }

 private:
  using Node = ASN1Tree::Node;

  uint32_t push(const Node& node) {
    auto index = static_cast<uint32_t>(tree_->nodes_.size());
    tree_->nodes_.push_back(node);
    return index;
  }
  void append(const Node& node) { stack_.push_back(push(node)); }

  static Node node(ASN1Type type) {
    Node n;
    n.type = type;
    n.asn1Class = 0;
    n.constructed = false;
    n.count = 0;
    n.integer = 0;
    return n;
  }

  // Turns the values stacked since `mark` into an array node.
  uint32_t makeArray(size_t mark) {
    Node n = node(ASN1Type::kArray);
    n.firstChild = static_cast<uint32_t>(tree_->children_.size());
    n.count = static_cast<uint32_t>(stack_.size() - mark);
    tree_->children_.insert(tree_->children_.end(), stack_.begin() + mark, stack_.end());
    stack_.resize(mark);
    return push(n);
  }

  void appendBytes(ASN1Type type, const uint8_t* p, size_t length) {
    Node n = node(type);
    n.bytes = p;
    n.count = static_cast<uint32_t>(length);
    append(n);
  }

  // Parses the values of one level of `length` bytes; returns the bytes consumed (less than
  // `length` when an end-of-contents marker ends the level) or 0 on failure.
  size_t parseLevel(const uint8_t* p, size_t length, int depth) {
    if (length == 0 || depth > ZBIAPASN1Parser::kMaxDepth) return 0;
    size_t pos = 0;
    while (pos < length) {
      Header h;
      size_t used = readHeader(p + pos, length - pos, &h);
      if (used == 0) return 0;
      const uint8_t* content = p + pos + h.headerSize;
      size_t rest = length - pos - h.headerSize;  // everything after the header
      auto contentLength = static_cast<size_t>(h.length);

      if (h.asn1Class != 0) {
        Node tag = node(ASN1Type::kTag);
        tag.asn1Class = h.asn1Class;
        tag.constructed = h.constructed;
        tag.tagNumber = h.tag;
        if (h.constructed) {
          size_t consumed = parseNested(content, contentLength, rest, depth);
          if (consumed == 0) return 0;
          tag.count = makeArray(stack_.size() - pending_);
          append(tag);
          pos += consumed + h.headerSize;
        } else {
          Node value = node(ASN1Type::kData);
          value.bytes = content;
          value.count = static_cast<uint32_t>(contentLength);
          tag.count = push(value);
          append(tag);
          // The contents are stepped over twice: the bytes after a primitive tagged element
          // are skipped by as many bytes as its contents hold. Past the end, the level ends.
          pos += used;
          pos = contentLength > length - pos ? length : pos + contentLength;
        }
        continue;
      }

      switch (h.tag & 0xFF) {
        case 0:  // end-of-contents: the enclosing indefinite-length element ends here
          return pos + used;
        case 1:  // BOOLEAN
          if (contentLength != 1) return 0;
          appendInteger(content[0] != 0 ? 1 : 0);
          break;
        case 2:   // INTEGER
        case 10:  // ENUMERATED
          if (contentLength == 0 || !appendInteger(content, contentLength)) return 0;
          break;
        case 4:   // OCTET STRING
        case 12:  // UTF8String
        case 19:  // PrintableString
        case 22:  // IA5String
          if (h.constructed) {
            size_t consumed = appendChunked(h, content, rest, depth);
            if (consumed == 0) return 0;
            if (h.length == 0) used = h.headerSize + consumed;
          } else if (!appendString(h.tag & 0xFF, content, contentLength)) {
            return 0;
          }
          break;
        case 5:  // NULL
          append(node(ASN1Type::kNull));
          break;
        case 6:   // OBJECT IDENTIFIER
        case 13:  // RELATIVE-OID
        {
          auto oid = ZBIAPASN1ObjectID::parse(content, contentLength, (h.tag & 0xFF) == 13);
          if (!oid) return 0;
          Node n = node(ASN1Type::kObjectID);
          n.count = static_cast<uint32_t>(tree_->oids_.size());
          tree_->oids_.push_back(std::move(*oid));
          append(n);
          break;
        }
        case 9:  // REAL
          appendReal(content, contentLength);
          break;
        case 16:  // SEQUENCE
        case 17:  // SET
        {
          size_t consumed = parseNested(content, contentLength, rest, depth);
          if (consumed == 0) return 0;
          uint32_t array = makeArray(stack_.size() - pending_);
          stack_.push_back(array);
          used = consumed + h.headerSize;
          break;
        }
        default:  // BIT STRING, the time types and the rest give nothing
          break;
      }
      pos += used;
    }
    return length;
  }

  // Parses the children of a constructed element onto the stack and leaves their count in
  // pending_. Definite lengths must be consumed exactly; the indefinite form runs over the
  // rest of the input. Returns the content bytes consumed, 0 on failure.
  size_t parseNested(const uint8_t* content, size_t contentLength, size_t rest, int depth) {
    size_t mark = stack_.size();
    size_t consumed;
    if (contentLength != 0) {
      consumed = parseLevel(content, contentLength, depth + 1);
      if (consumed != contentLength) return 0;
    } else {
      consumed = parseLevel(content, rest, depth + 1);
      if (consumed == 0) return 0;
    }
    pending_ = stack_.size() - mark;
    return consumed;
  }

  void appendInteger(int64_t v) {
    Node n = node(ASN1Type::kInteger);
    n.integer = v;
    append(n);
  }

  bool appendInteger(const uint8_t* p, size_t length) {
    if (length <= 8) {
      // One to seven octets are read unsigned, eight as two's complement.
      uint64_t v = 0;
      for (size_t i = 0; i < length; ++i) v = (v << 8) | p[i];
      appendInteger(static_cast<int64_t>(v));
    } else if (length <= 16) {
      Decimal d = Decimal::fromBigEndianTwosComplement({p, length});
      if (d.isNaN()) return false;
      Node n = node(ASN1Type::kDecimal);
      n.count = static_cast<uint32_t>(tree_->decimals_.size());
      tree_->decimals_.push_back(d);
      append(n);
    } else {
      appendBytes(ASN1Type::kBigNum, p, length);
    }
    return true;
  }

  bool appendString(uint64_t type, const uint8_t* p, size_t length) {
    switch (type) {
      case 4:
        appendBytes(ASN1Type::kData, p, length);
        return true;
      case 12:
        if (!isValidUTF8(p, length)) return false;
        break;
      default:
        if (!isASCII(p, length)) return false;
        break;
    }
    appendBytes(ASN1Type::kString, p, length);
    return true;
  }

  // A constructed string: its chunks are joined into a buffer of the tree, then decoded as a
  // primitive one. Returns the bytes of the span consumed, 0 on failure.
  size_t appendChunked(const Header& h, const uint8_t* content, size_t rest, int depth) {
    size_t span = h.length != 0 ? static_cast<size_t>(h.length) : rest;
    auto buffer = std::make_unique<Data>();
    size_t consumed = collect(content, span, h.tag, buffer.get(), depth);
    if (consumed == 0) return 0;
    const uint8_t* bytes = buffer->data();
    size_t size = buffer->size();
    tree_->buffers_.push_back(std::move(buffer));
    if (!appendString(h.tag & 0xFF, bytes, size)) return 0;
    return consumed;
  }

  // Joins the chunks of a constructed string over `span` bytes. Every chunk must carry the
  // outer tag number, so an end-of-contents marker inside the span is a mismatch.
  size_t collect(const uint8_t* p, size_t span, uint64_t tag, Data* out, int depth) {
    if (span == 0 || depth > ZBIAPASN1Parser::kMaxDepth) return 0;
    size_t pos = 0;
    while (pos < span) {
      Header h;
      size_t used = readHeader(p + pos, span - pos, &h);
      if (used == 0 || h.tag != tag) return 0;
      const uint8_t* content = p + pos + h.headerSize;
      if (!h.constructed) {
        out->insert(out->end(), content, content + h.length);
      } else if (h.length != 0) {
        if (collect(content, static_cast<size_t>(h.length), tag, out, depth + 1) == 0) return 0;
      } else {
        size_t consumed = collect(content, span - pos - h.headerSize, tag, out, depth + 1);
        if (consumed == 0) return 0;
        used = h.headerSize + consumed;
      }
      pos += used;
    }
    return span;
  }

  // REAL, with this system's own scaling of the binary form. Values that cannot be read
  // append nothing.
  void appendReal(const uint8_t* p, size_t length) {
    if (length == 0) return;
    uint8_t first = p[0];
    size_t n = length - 1;
    Node value = node(ASN1Type::kReal);
    if (first & 0x50) {
      if (n < 2) return;
      static constexpr double kBases[] = {2, 8, 16};
      unsigned baseBits = (first >> 4) & 3;
      if (baseBits == 3) return;
      size_t exponentAt = 1;
      switch (first & 3) {
        case 0:
          break;
        case 3:
          if (p[1] > 1) return;
          exponentAt = 2;
          break;
        default:
          return;
      }
      size_t mantissaLength = length - exponentAt - 1;
      if (exponentAt + 1 >= length || mantissaLength < 1 || mantissaLength > 8) return;
      auto exponent = static_cast<int8_t>(p[exponentAt]);
      uint64_t mantissa = 0;
      for (size_t i = exponentAt + 1; i < length; ++i) mantissa = (mantissa << 8) | p[i];
      double scale = 2 * std::pow(10.0, (first >> 2) & 3);
      double base = kBases[baseBits] * std::pow(10.0, exponent);
      value.real = static_cast<double>(mantissa) * scale * base;
      if (first & 0x40) value.real = -value.real;
    } else if (first & 0x28) {
      if (n != 0) return;
      if ((first & 0x3F) == 0) {
        value.real = std::numeric_limits<float>::infinity();
      } else if ((first & 0x3F) == 1) {
        value.real = -std::numeric_limits<float>::infinity();
      } else {
        return;
      }
    } else {
      if (n == 0) return;
      std::string text(reinterpret_cast<const char*>(p + 1), n);
      double d = 0;
      if (std::sscanf(text.c_str(), "%lf", &d) != 1) return;
      value.real = d;
    }
    append(value);
  }

  ASN1Tree* tree_;
  std::vector<uint32_t>& stack_;
  size_t pending_ = 0;
};

}  // namespace zbiap

std::shared_ptr<const zbiap::ASN1Tree> ZBIAPASN1Parser::parseASN1Data(zbiap::Data data) {
  auto tree = std::make_shared<zbiap::ASN1Tree>();
  // The views point into the tree's copy of the input, whose storage never moves.
  if (!zbiap::ASN1Builder(tree.get()).buildOwned(std::move(data))) {
    return nullptr;
  }
  return tree;
}

bool ZBIAPASN1Parser::parseASN1Data(std::span<const uint8_t> data, zbiap::ASN1Tree* tree) {
  tree->clear();
  if (!zbiap::ASN1Builder(tree).build(data.data(), data.size())) {
    tree->clear();
    return false;
  }
  return true;
}

size_t ZBIAPASN1Parser::readBase128(uint64_t* value, const uint8_t* data, size_t length) {
  if (data == nullptr || length == 0) return 0;
  size_t limit = std::min<size_t>(length - 1, 8) + 1;
  uint64_t v = 0;
  for (size_t i = 0; i < limit; ++i) {
    uint8_t b = data[i];
    // A zero group ends the read as a failure wherever it stands.
    if ((b & 0x7F) == 0) return 0;
    v = (v << 7) | (b & 0x7F);
    if (b < 0x80) {
      *value = v;
      return i + 1;
    }
  }
  return 0;
}

size_t ZBIAPASN1Parser::readLength(uint64_t* value, const uint8_t* data, size_t length) {
  if (data == nullptr || length == 0) return 0;
  uint8_t first = data[0];
  if (first < 0x80) {
    *value = first;
    return 1;
  }
  if (first == 0x80) {
    *value = 0;
    return 1;
  }
  size_t n = first & 0x7F;
  if (n > length - 1 || n > 8) return 0;
  uint64_t v = 0;
  for (size_t i = 1; i <= n; ++i) v = (v << 8) | data[i];
  *value = v;
  return n + 1;
}

std::optional<std::string> ZBIAPASN1Parser::asn1ClassToString(uint64_t asn1Class) {
  static constexpr const char* kNames[] = {"Universal", "Application", "Context", "Private"};
  if (asn1Class > 3) return std::nullopt;
  return std::string(kNames[asn1Class]);
}
