// The subcommands of the zbiap tool. Each one is a function over its arguments returning the
// exit code: 0 success, 1 a rejected input (with the library's error text), 2 bad usage.
#ifndef ZBIAP_TOOLS_COMMANDS_H_
#define ZBIAP_TOOLS_COMMANDS_H_

#include <string>
#include <vector>

namespace zbiap::cli {

using Args = std::vector<std::string>;

struct Command {
  const char* name;
  const char* summary;
  int (*run)(const Args& args);
};

// Every command of the tool, in the order help lists them.
const std::vector<Command>& commands();

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_COMMANDS_H_
