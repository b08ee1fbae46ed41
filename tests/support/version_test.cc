#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "zbiap/zbiap.h"

namespace {

TEST(VersionTest, NumberAndWhatString) {
  EXPECT_EQ(ZBIAPVersionNumber, 1.0);
  const std::string text(reinterpret_cast<const char*>(ZBIAPVersionString));
  EXPECT_EQ(text.rfind("@(#)PROGRAM:", 0), 0u) << text;
  EXPECT_GT(text.size(), std::strlen("@(#)PROGRAM:"));
}

}  // namespace
