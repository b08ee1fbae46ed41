#include <gtest/gtest.h>

#include <cmath>

#include "foundation/object_lists.h"
#include "zbiap/foundation/color.h"
#include "zbiap/foundation/error.h"

namespace {

using zbiap::Dictionary;
using zbiap::Value;

TEST(ErrorTest, DescriptionAndEquality) {
  EXPECT_EQ(ZBIAPError::make("ZBIAPStoreErrorDomain", 4)->description(),
            "Error Domain=ZBIAPStoreErrorDomain Code=4 \"(null)\"");
  EXPECT_EQ(ZBIAPError::make("D", -1,
                             Dictionary{{"b", Value(2)},
                                        {zbiap::kNSLocalizedDescriptionKey, Value("It broke")},
                                        {"a", Value("x y")}})
                ->description(),
            "Error Domain=D Code=-1 \"It broke\" UserInfo={NSLocalizedDescription=It broke, a=x y, "
            "b=2}");
  EXPECT_EQ(ZBIAPError::make("Outer", 1, {}, ZBIAPError::make(zbiap::kNSPOSIXErrorDomain, 60))
                ->description(),
            "Error Domain=Outer Code=1 \"(null)\" UserInfo={NSUnderlyingError=Error "
            "Domain=NSPOSIXErrorDomain Code=60 \"(null)\"}");

  const auto make = [](int64_t code, ZBIAPErrorPtr under = nullptr) {
    return ZBIAPError::make("D", code, Dictionary{{"k", Value(1)}}, std::move(under));
  };
  EXPECT_TRUE(make(1)->isEqual(*make(1)));
  EXPECT_TRUE(make(1, make(5))->isEqual(*make(1, make(5))));
  // User info compares as values: 1 and true are one number.
  EXPECT_TRUE(make(1)->isEqual(*ZBIAPError::make("D", 1, Dictionary{{"k", Value(true)}})));
  for (const ZBIAPErrorPtr& other : {make(2), ZBIAPError::make("E", 1, Dictionary{{"k", Value(1)}}),
                                     ZBIAPError::make("D", 1), make(1, make(5))}) {
    EXPECT_FALSE(make(1)->isEqual(*other)) << other->description();
  }
  EXPECT_FALSE(make(1, make(5))->isEqual(*make(1, make(6))));
}

// Lists of such objects compare element by element with the objects' own equality; a missing
// element equals only another missing one.
TEST(ErrorTest, ListsCompareByElement) {
  using List = std::vector<ZBIAPErrorPtr>;
  const ZBIAPErrorPtr e = ZBIAPError::make("D", 1);
  EXPECT_TRUE(zbiap::sameObjects(List{e, nullptr}, List{ZBIAPError::make("D", 1), nullptr}));
  EXPECT_FALSE(zbiap::sameObjects(List{nullptr}, List{e}));
  EXPECT_FALSE(zbiap::sameObjects(List{e}, List{nullptr}));
  EXPECT_FALSE(zbiap::sameObjects(std::optional<List>(), List{}));
  EXPECT_EQ(zbiap::describeObjects(List{e, nullptr}),
            "(\n    Error Domain=D Code=1 \"(null)\",\n    (null)\n)");
}

TEST(ColorTest, DescriptionHexAndHash) {
  EXPECT_EQ(ZBIAPColor::fromRGBA(1, 0, 0).description(), "UIExtendedSRGBColorSpace 1 0 0 1");
  EXPECT_EQ(ZBIAPColor::fromRGBA(0.5, 1.0 / 3, 26 / 255.0, 0.25).description(),
            "UIExtendedSRGBColorSpace 0.5 0.333333 0.101961 0.25");
  EXPECT_EQ(ZBIAPColor::fromRGBA(26 / 255.0, 43 / 255.0, 60 / 255.0).hexString(), "#1a2b3c");
  EXPECT_EQ(ZBIAPColor::fromRGBA(1, 0.5, 0).hexString(), "#ff8000");
  EXPECT_EQ(ZBIAPColor::fromRGBA(2, -1, NAN).hexString(), "#ff0000");
  EXPECT_EQ(ZBIAPColor::fromRGBA(0.1, 0.2, 0.3), ZBIAPColor::fromRGBA(0.1, 0.2, 0.3, 1));
  EXPECT_NE(ZBIAPColor::fromRGBA(0.1, 0.2, 0.3), ZBIAPColor::fromRGBA(0.1, 0.2, 0.3, 0.9));
  EXPECT_EQ(ZBIAPColor::fromRGBA(0, 0, 0).hash(), ZBIAPColor::fromRGBA(-0.0, 0, 0).hash());
  EXPECT_NE(ZBIAPColor::fromRGBA(1, 0, 0).hash(), ZBIAPColor::fromRGBA(0, 1, 0).hash());
}

}  // namespace
