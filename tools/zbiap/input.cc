#include "input.h"

#include <fstream>
#include <iostream>
#include <iterator>

namespace zbiap::cli {

std::optional<std::string> readInput(const std::string& name) {
  std::ifstream file;
  std::istream* in = &std::cin;
  if (name != "-") {
    file.open(name, std::ios::binary);
    if (!file) return std::nullopt;
    in = &file;
  }
  std::string bytes((std::istreambuf_iterator<char>(*in)), std::istreambuf_iterator<char>());
  if (in->bad()) return std::nullopt;
  return bytes;
}

}  // namespace zbiap::cli
