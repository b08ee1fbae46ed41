#include "zbiap/store/asn1_tree.h"

#include "zbiap/store/asn1_tag.h"
#include "zbiap/store/big_num.h"

namespace zbiap {

ASN1Node ASN1Tree::root() const { return hasRoot_ ? ASN1Node(this, root_) : ASN1Node(); }

void ASN1Tree::clear() {
  nodes_.clear();
  children_.clear();
  decimals_.clear();
  oids_.clear();
  buffers_.clear();
  hasRoot_ = false;
  root_ = 0;
}

ASN1Type ASN1Node::type() const { return tree_ ? tree_->nodes_[index_].type : ASN1Type::kNull; }

bool ASN1Node::isNumber() const {
  ASN1Type t = type();
  return t == ASN1Type::kInteger || t == ASN1Type::kReal || t == ASN1Type::kDecimal;
}

int64_t ASN1Node::integerValue() const {
  return type() == ASN1Type::kInteger ? tree_->nodes_[index_].integer : 0;
}

double ASN1Node::realValue() const {
  switch (type()) {
    case ASN1Type::kReal:
      return tree_->nodes_[index_].real;
    case ASN1Type::kInteger:
      return static_cast<double>(tree_->nodes_[index_].integer);
    case ASN1Type::kDecimal:
      return tree_->decimals_[tree_->nodes_[index_].count].toDouble();
    default:
      return 0;
  }
}

Decimal ASN1Node::decimalValue() const {
  switch (type()) {
    case ASN1Type::kDecimal:
      return tree_->decimals_[tree_->nodes_[index_].count];
    case ASN1Type::kInteger:
      return Decimal::fromInt(tree_->nodes_[index_].integer);
    case ASN1Type::kReal:
      return Decimal::fromDouble(tree_->nodes_[index_].real);
    default:
      return Decimal();
  }
}

std::span<const uint8_t> ASN1Node::bytes() const {
  ASN1Type t = type();
  if (t != ASN1Type::kData && t != ASN1Type::kString && t != ASN1Type::kBigNum) return {};
  const auto& n = tree_->nodes_[index_];
  return {n.bytes, n.count};
}

std::string_view ASN1Node::stringValue() const {
  if (type() != ASN1Type::kString) return {};
  const auto& n = tree_->nodes_[index_];
  return {reinterpret_cast<const char*>(n.bytes), n.count};
}

const ZBIAPASN1ObjectID* ASN1Node::objectID() const {
  if (type() != ASN1Type::kObjectID) return nullptr;
  return &tree_->oids_[tree_->nodes_[index_].count];
}

size_t ASN1Node::size() const {
  return type() == ASN1Type::kArray ? tree_->nodes_[index_].count : 0;
}

ASN1Node ASN1Node::operator[](size_t index) const {
  if (type() != ASN1Type::kArray) return {};
  const auto& n = tree_->nodes_[index_];
  if (index >= n.count) return {};
  return ASN1Node(tree_, tree_->children_[n.firstChild + index]);
}

uint8_t ASN1Node::asn1Class() const {
  return type() == ASN1Type::kTag ? tree_->nodes_[index_].asn1Class : 0;
}

bool ASN1Node::isConstructed() const {
  return type() == ASN1Type::kTag && tree_->nodes_[index_].constructed;
}

uint64_t ASN1Node::tagNumber() const {
  return type() == ASN1Type::kTag ? tree_->nodes_[index_].tagNumber : 0;
}

ASN1Node ASN1Node::tagValue() const {
  if (type() != ASN1Type::kTag) return {};
  return ASN1Node(tree_, tree_->nodes_[index_].count);
}

Value ASN1Node::toValue() const {
  switch (type()) {
    case ASN1Type::kNull:
      return valid() ? Value::null() : Value();
    case ASN1Type::kInteger:
      return Value(integerValue());
    case ASN1Type::kReal:
      return Value(realValue());
    case ASN1Type::kDecimal:
      return Value(decimalValue());
    case ASN1Type::kData: {
      auto b = bytes();
      return Value(Data(b.begin(), b.end()));
    }
    case ASN1Type::kString:
      return Value(stringValue());
    case ASN1Type::kObjectID:
      return Value(objectID()->stringValue());
    case ASN1Type::kArray: {
      Array items;
      items.reserve(size());
      for (size_t i = 0; i < size(); ++i) items.push_back((*this)[i].toValue());
      return Value(std::move(items));
    }
    case ASN1Type::kBigNum:
    case ASN1Type::kTag:
      return Value();
  }
  return Value();
}

void ASN1Node::describe(std::string* out, int indent) const {
  switch (type()) {
    case ASN1Type::kArray: {
      std::string pad(static_cast<size_t>(indent) * 4, ' ');
      out->append("(\n");
      for (size_t i = 0; i < size(); ++i) {
        out->append(pad).append("    ");
        (*this)[i].describe(out, indent + 1);
        if (i + 1 < size()) out->push_back(',');
        out->push_back('\n');
      }
      out->append(pad).push_back(')');
      return;
    }
    case ASN1Type::kTag: {
      auto tag = ZBIAPASN1Tag::fromNode(*this);
      out->append(tag ? tag->description() : std::string());
      return;
    }
    case ASN1Type::kBigNum: {
      auto b = bytes();
      out->append(ZBIAPBigNum(Data(b.begin(), b.end())).description());
      return;
    }
    case ASN1Type::kObjectID:
      out->append(objectID()->description());
      return;
    case ASN1Type::kNull:
      out->append(valid() ? "<null>" : "(null)");
      return;
    default:
      out->append(toValue().description());
      return;
  }
}

std::string ASN1Node::description() const {
  std::string out;
  describe(&out, 0);
  return out;
}

}  // namespace zbiap
