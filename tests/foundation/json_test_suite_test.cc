// The JSONTestSuite parsing corpus: every y_ file parses, every n_ file is rejected, no i_ file
// crashes; and what parses writes back to JSON that parses to an equal value.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "testing/testdata.h"
#include "zbiap/foundation/json.h"

namespace zbiap {
namespace {

std::vector<std::filesystem::path> corpusFiles(char prefix) {
  std::vector<std::filesystem::path> files;
  const auto dir = testing::testdataDir() / "jsontestsuite" / "test_parsing";
  if (!std::filesystem::is_directory(dir)) return files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name.size() > 2 && name[0] == prefix && name[1] == '_') files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

TEST(JSONTestSuite, AcceptsEveryYFileAndWritesItBack) {
  ZBIAP_REQUIRE_TESTDATA();
  const auto files = corpusFiles('y');
  ASSERT_GE(files.size(), 90u);
  for (const auto& path : files) {
    std::string error;
    const auto value = parseJSON(testing::readFile(path), &error);
    ASSERT_TRUE(value.has_value()) << path.filename() << ": " << error;
    const std::string written = toJSON(*value);
    const auto again = parseJSON(written, &error);
    ASSERT_TRUE(again.has_value()) << path.filename() << " wrote " << written << ": " << error;
    EXPECT_EQ(*value, *again) << path.filename() << " wrote " << written;
    EXPECT_EQ(toJSON(*again), written) << path.filename();
  }
}

TEST(JSONTestSuite, RejectsEveryNFile) {
  ZBIAP_REQUIRE_TESTDATA();
  const auto files = corpusFiles('n');
  ASSERT_GE(files.size(), 180u);
  for (const auto& path : files) {
    std::string error;
    const auto value = parseJSON(testing::readFile(path), &error);
    EXPECT_FALSE(value.has_value()) << path.filename() << " parsed as " << toJSON(*value);
    if (!value) {
      EXPECT_FALSE(error.empty()) << path.filename();
    }
  }
}

TEST(JSONTestSuite, SurvivesEveryIFile) {
  ZBIAP_REQUIRE_TESTDATA();
  const auto files = corpusFiles('i');
  ASSERT_GE(files.size(), 30u);
  for (const auto& path : files) {
    const auto value = parseJSON(testing::readFile(path));
    if (!value) continue;
    const auto again = parseJSON(toJSON(*value));
    ASSERT_TRUE(again.has_value()) << path.filename();
    EXPECT_EQ(*value, *again) << path.filename();
  }
}

}  // namespace
}  // namespace zbiap
