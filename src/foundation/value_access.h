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
  static Value string(Arena* arena, std::string_view s) {
    Value v;
    v.v_ = std::allocate_shared<const std::string>(ArenaAllocator<char>(arena), s);
    return v;
  }
  static Value array(Arena* arena, Array a) {
    Value v;
    v.v_ = std::allocate_shared<const Array>(ArenaAllocator<char>(arena), std::move(a));
    return v;
  }
  static Value dictionary(Arena* arena, Dictionary d) {
    Value v;
    v.v_ = std::allocate_shared<const Dictionary>(ArenaAllocator<char>(arena), std::move(d));
    return v;
  }
};

}  // namespace zbiap::internal

#endif  // ZBIAP_SRC_FOUNDATION_VALUE_ACCESS_H_
