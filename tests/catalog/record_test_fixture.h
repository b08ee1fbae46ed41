// The fixture of the catalogue record tests: a test platform (scripted environment and preferred
// languages, captured system log) and JSON in a line.
#ifndef ZBIAP_TESTS_CATALOG_RECORD_TEST_FIXTURE_H_
#define ZBIAP_TESTS_CATALOG_RECORD_TEST_FIXTURE_H_

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "testing/test_platform.h"
#include "zbiap/foundation/json.h"
#include "zbiap/foundation/value.h"

namespace zbiap::testing {

class RecordTest : public ::testing::Test {
 protected:
  TestPlatform& platform() { return platform_; }
  std::vector<std::string> log() const { return platform_.logLines(); }

  // The JSON text as a value; fails the test when it is not JSON.
  static Value json(std::string_view text) {
    std::string error;
    std::optional<Value> value = parseJSON(text, &error);
    EXPECT_TRUE(value.has_value()) << error << " in " << text;
    return value.value_or(Value());
  }

 private:
  TestPlatform platform_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_CATALOG_RECORD_TEST_FIXTURE_H_
