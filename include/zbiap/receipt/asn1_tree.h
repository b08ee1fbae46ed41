// zbiap::ASN1Tree and zbiap::ASN1Node: the tree of plain values that ZBIAPASN1Parser builds
// from ASN.1 encodings.
//
// The tree owns every node in a few flat arrays (no allocation per node); strings and byte
// data are views into the parsed input, so a tree made from a borrowed buffer is valid only
// while that buffer lives (ZBIAPASN1Parser's owning overload keeps the buffer in the tree).
// An ASN1Node is a small view into its tree and is valid while the tree lives. A finished
// tree is immutable and may be read from several threads.
#ifndef ZBIAP_RECEIPT_ASN1_TREE_H_
#define ZBIAP_RECEIPT_ASN1_TREE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/decimal.h"
#include "zbiap/foundation/value.h"
#include "zbiap/receipt/asn1_object_id.h"

namespace zbiap {

// What a node holds. kInteger is a signed 64-bit number (BOOLEAN gives 1 or 0); kReal a
// double; kDecimal an exact decimal (INTEGERs of 9 to 16 octets); kBigNum the octets of a
// longer INTEGER; kData the octets of an OCTET STRING; kString UTF-8 text; kArray a SEQUENCE
// or SET; kTag an element of the Application, Context or Private class.
enum class ASN1Type : uint8_t {
  kNull,
  kInteger,
  kReal,
  kDecimal,
  kBigNum,
  kData,
  kString,
  kObjectID,
  kArray,
  kTag,
};

class ASN1Tree;

class ZBIAP_EXPORT ASN1Node {
 public:
  // A node that is not there (a nil value): valid() is false, type() is kNull.
  ASN1Node() = default;

  bool valid() const { return tree_ != nullptr; }
  ASN1Type type() const;
  bool isArray() const { return type() == ASN1Type::kArray; }
  bool isString() const { return type() == ASN1Type::kString; }
  bool isData() const { return type() == ASN1Type::kData; }
  bool isTag() const { return type() == ASN1Type::kTag; }
  // kInteger or kReal or kDecimal: what Foundation calls a number.
  bool isNumber() const;

  // Accessors give a neutral value (0, empty, an invalid node) for a node of another type.
  int64_t integerValue() const;
  double realValue() const;
  Decimal decimalValue() const;
  // The octets of kData, kString and kBigNum.
  std::span<const uint8_t> bytes() const;
  std::string_view stringValue() const;
  // Null unless kObjectID.
  const ZBIAPASN1ObjectID* objectID() const;

  // Arrays: the number of children and the child at `index` (invalid past the end).
  size_t size() const;
  ASN1Node operator[](size_t index) const;

  // Tags: class (0 to 3), constructed flag, tag number, and the value: an array for a
  // constructed element, the content octets (kData) for a primitive one.
  uint8_t asn1Class() const;
  bool isConstructed() const;
  uint64_t tagNumber() const;
  ASN1Node tagValue() const;

  // Foundation's description of the value: arrays as "(\n    a,\n    b\n)", tags in their
  // own form, strings quoted when they need it, data as "<0a0b0c>".
  std::string description() const;
  // The value as a zbiap::Value where one exists (numbers, strings, data, null, arrays of
  // those); object identifiers become their dotted text, tags and big numbers nil.
  Value toValue() const;

 private:
  friend class ASN1Tree;
  friend class ASN1Builder;
  ASN1Node(const ASN1Tree* tree, uint32_t index) : tree_(tree), index_(index) {}
  void describe(std::string* out, int indent) const;

  const ASN1Tree* tree_ = nullptr;
  uint32_t index_ = 0;
};

class ZBIAP_EXPORT ASN1Tree {
 public:
  ASN1Tree() = default;
  ASN1Tree(const ASN1Tree&) = delete;
  ASN1Tree& operator=(const ASN1Tree&) = delete;
  ASN1Tree(ASN1Tree&&) noexcept = default;
  ASN1Tree& operator=(ASN1Tree&&) noexcept = default;

  // The array of top-level values; invalid before a successful parse.
  ASN1Node root() const;
  // Shorthands for the root array.
  size_t size() const { return root().size(); }
  ASN1Node operator[](size_t index) const { return root()[index]; }
  bool empty() const { return size() == 0; }

  // Forgets every node but keeps the capacity, so a tree can be reused without allocating.
  void clear();

 private:
  friend class ASN1Node;
  friend class ASN1Builder;

  struct Node {
    ASN1Type type;
    uint8_t asn1Class;  // tags only
    bool constructed;   // tags only
    // Length of octets; child count of arrays; index into decimals_ / oids_; value node of tags.
    uint32_t count;
    union {
      const uint8_t* bytes;
      int64_t integer;
      double real;
      uint64_t tagNumber;
      uint32_t firstChild;  // index into children_
    };
  };

  std::vector<Node> nodes_;
  std::vector<uint32_t> children_;
  std::vector<Decimal> decimals_;
  std::vector<ZBIAPASN1ObjectID> oids_;
  // Octets of strings assembled from chunks; each buffer keeps its address.
  std::vector<std::unique_ptr<Data>> buffers_;
  // The input, when the tree owns it.
  Data owned_;
  // The parser's working stack, kept so that reusing a tree does not allocate.
  std::vector<uint32_t> stack_;
  uint32_t root_ = 0;
  bool hasRoot_ = false;
};

// The accessors that decoding loops call most, inline.
inline ASN1Type ASN1Node::type() const {
  return tree_ ? tree_->nodes_[index_].type : ASN1Type::kNull;
}

inline bool ASN1Node::isNumber() const {
  ASN1Type t = type();
  return t == ASN1Type::kInteger || t == ASN1Type::kReal || t == ASN1Type::kDecimal;
}

inline size_t ASN1Node::size() const {
  return type() == ASN1Type::kArray ? tree_->nodes_[index_].count : 0;
}

inline ASN1Node ASN1Node::operator[](size_t index) const {
  if (type() != ASN1Type::kArray) return {};
  const auto& n = tree_->nodes_[index_];
  if (index >= n.count) return {};
  return ASN1Node(tree_, tree_->children_[n.firstChild + index]);
}

inline int64_t ASN1Node::integerValue() const {
  return type() == ASN1Type::kInteger ? tree_->nodes_[index_].integer : 0;
}

inline std::span<const uint8_t> ASN1Node::bytes() const {
  ASN1Type t = type();
  if (t != ASN1Type::kData && t != ASN1Type::kString && t != ASN1Type::kBigNum) return {};
  const auto& n = tree_->nodes_[index_];
  return {n.bytes, n.count};
}

inline std::string_view ASN1Node::stringValue() const {
  if (type() != ASN1Type::kString) return {};
  const auto& n = tree_->nodes_[index_];
  return {reinterpret_cast<const char*>(n.bytes), n.count};
}

inline ASN1Node ASN1Tree::root() const { return hasRoot_ ? ASN1Node(this, root_) : ASN1Node(); }

}  // namespace zbiap

#endif  // ZBIAP_RECEIPT_ASN1_TREE_H_
