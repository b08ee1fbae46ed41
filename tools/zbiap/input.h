// What the zbiap subcommands read: a file's whole content, or standard input for "-".
#ifndef ZBIAP_TOOLS_INPUT_H_
#define ZBIAP_TOOLS_INPUT_H_

#include <optional>
#include <string>

namespace zbiap::cli {

// The bytes of the file named `name` (standard input for "-"); nullopt when it cannot be read.
std::optional<std::string> readInput(const std::string& name);

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_INPUT_H_
