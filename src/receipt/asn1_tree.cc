#include "zbiap/receipt/asn1_tree.h"

#include "zbiap/receipt/asn1_tag.h"
#include "zbiap/receipt/big_num.h"

namespace zbiap {

void ASN1Tree::clear() {
  nodes_.clear();
  children_.clear();
  decimals_.clear();
  oids_.clear();
  buffers_.clear();
  hasRoot_ = false;
  root_ = 0;
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

const ZBIAPASN1ObjectID* ASN1Node::objectID() const {
  if (type() != ASN1Type::kObjectID) return nullptr;
  return &tree_->oids_[tree_->nodes_[index_].count];
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
