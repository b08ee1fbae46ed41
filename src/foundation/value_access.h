// Builds Value nodes whose shared storage comes from an Arena (see arena.h); the JSON reader's
// fast path. The values behave like any other: copies share, writes copy to the heap.
#ifndef ZBIAP_SRC_FOUNDATION_VALUE_ACCESS_H_
#define ZBIAP_SRC_FOUNDATION_VALUE_ACCESS_H_

#include <memory>
#include <string>
#include <string_view>

#include "foundation/arena.h"
#include "zbiap/foundation/value.h"

namespace zbiap::internal {

class ValueAccess {
 public:
  static void string(Arena* arena, std::string_view s, Value* out) {
    out->v_ = std::allocate_shared<const std::string>(ArenaAllocator<char>(arena), s);
  }
  // An empty array or dictionary in the arena, made the value of `out`, for the builder to
  // fill before the value is shared: building in place spares a move of the container.
  static Array* array(Arena* arena, Value* out) {
    auto node = std::allocate_shared<Array>(ArenaAllocator<char>(arena));
    Array* raw = node.get();
    out->v_.emplace<std::shared_ptr<const Array>>(std::move(node));
    return raw;
  }
  static Dictionary* dictionary(Arena* arena, Value* out) {
    auto node = std::allocate_shared<Dictionary>(ArenaAllocator<char>(arena));
    Dictionary* raw = node.get();
    out->v_.emplace<std::shared_ptr<const Dictionary>>(std::move(node));
    return raw;
  }
  // The value under `key`, to be filled in place (see Dictionary::slot).
  static Value* slot(Dictionary* d, std::string_view key) { return &d->slot(std::string(key)); }
};

}  // namespace zbiap::internal

#endif  // ZBIAP_SRC_FOUNDATION_VALUE_ACCESS_H_
