// The JSONTestSuite parsing corpus: every y_ file parses, every n_ file is rejected, no i_ file
// crashes; and what parses writes back to JSON that parses to an equal value.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "testing/testdata.h"
#include "zbiap/foundation/json.h"

namespace zbiap {
namespace {

TEST(JSONTestSuite, EveryFileAsItsPrefixSays) {
  ZBIAP_REQUIRE_TESTDATA();
  std::map<char, size_t> seen;
  const auto dir = testing::testdataDir() / "jsontestsuite" / "test_parsing";
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    const char prefix = name[0];
    SCOPED_TRACE(name);
    ++seen[prefix];
    std::string error;
    const auto value = parseJSON(testing::readFile(entry.path()), &error);
    if (prefix == 'n') {
      EXPECT_FALSE(value.has_value()) << "parsed as " << toJSON(*value);
      EXPECT_TRUE(value || !error.empty());
      continue;
    }
    if (prefix == 'y') {
      EXPECT_TRUE(value.has_value()) << error;
    }
    if (!value) continue;
    const std::string written = toJSON(*value);
    const auto again = parseJSON(written, &error);
    ASSERT_TRUE(again.has_value()) << written << ": " << error;
    EXPECT_EQ(*value, *again) << written;
    EXPECT_EQ(toJSON(*again), written);
  }
  EXPECT_GE(seen['y'], 90u);
  EXPECT_GE(seen['n'], 180u);
  EXPECT_GE(seen['i'], 30u);
}

}  // namespace
}  // namespace zbiap
