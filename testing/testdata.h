// Paths to the independent test material beside the project (../shared/testdata) and to the
// project's own sources. Tests that need the material skip with a clear message when it is absent.
#ifndef ZBIAP_TESTING_TESTDATA_H_
#define ZBIAP_TESTING_TESTDATA_H_

#include <filesystem>
#include <string>

namespace zbiap::testing {

// ZBIAP_TESTDATA_DIR as configured; it may not exist.
std::filesystem::path testdataDir();
bool haveTestdata();
// The project's source tree (for examples/ and fuzz seeds).
std::filesystem::path sourceDir();
// The whole file as bytes; empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);

}  // namespace zbiap::testing

// Skips the current test when the shared test material is missing.
#define ZBIAP_REQUIRE_TESTDATA()                                                        \
  do {                                                                                  \
    if (!::zbiap::testing::haveTestdata())                                              \
      GTEST_SKIP() << "test material not found at " << ::zbiap::testing::testdataDir(); \
  } while (0)

#endif  // ZBIAP_TESTING_TESTDATA_H_
