// zbiap::SmallSet: membership by the set's own equality, both below and above the size at which
// it starts keeping a hash index.
#include "zbiap/catalog/small_set.h"

#include <gtest/gtest.h>

#include <string>

#include "zbiap/foundation/value.h"

namespace zbiap {
namespace {

using Values = SmallSet<Value>;

TEST(SmallSetTest, ValuesFollowFoundationEqualityAtAnySize) {
  for (int n : {3, 16, 17, 200}) {
    Values set;
    for (int i = 0; i < n; ++i) {
      EXPECT_TRUE(set.insert(Value(i)).second);
      EXPECT_TRUE(set.insert(Value(std::to_string(i))).second);
      // 1.0 and true are the number 1 again; only new numbers are added.
      EXPECT_FALSE(set.insert(Value(static_cast<double>(i))).second);
    }
    EXPECT_FALSE(set.insert(Value(true)).second || set.insert(Value(false)).second);
    ASSERT_EQ(set.size(), static_cast<size_t>(2 * n)) << n;
    EXPECT_TRUE(set.contains(Value(n - 1)) && set.contains(Value(std::to_string(n - 1))));
    EXPECT_FALSE(set.contains(Value(n)));
    // Insertion order is kept; equality ignores it.
    EXPECT_EQ(*set.begin(), Value(0));
    Values reversed;
    for (int i = n - 1; i >= 0; --i) reversed.insert(Value(std::to_string(i)));
    for (int i = 0; i < n; ++i) reversed.insert(Value(i));
    EXPECT_EQ(set, reversed) << n;
    // Erasing keeps every other element findable.
    EXPECT_EQ(set.erase(Value(0)), 1u);
    EXPECT_EQ(set.erase(Value(0)), 0u);
    EXPECT_FALSE(set == reversed);
    for (int i = 1; i < n; ++i) ASSERT_TRUE(set.contains(Value(i))) << n << " " << i;
    EXPECT_TRUE(set.insert(Value(0)).second);
    EXPECT_EQ(set, reversed);
  }
}

}  // namespace
}  // namespace zbiap
