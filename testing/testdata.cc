#include "testing/testdata.h"

#include <fstream>
#include <sstream>

namespace zbiap::testing {

std::filesystem::path testdataDir() { return ZBIAP_TESTDATA_DIR; }

bool haveTestdata() { return std::filesystem::is_directory(testdataDir()); }

std::filesystem::path sourceDir() { return ZBIAP_SOURCE_DIR; }

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

}  // namespace zbiap::testing
