// The subcommands of the zbiap tool. Each lives in its own file and registers itself with
// ZBIAP_REGISTER_COMMAND; a command is a function over its arguments returning the exit code:
// 0 success, 1 a rejected input (with the library's error text), 2 bad usage.
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

// Every registered command, sorted by name.
std::vector<Command> commands();

struct CommandRegistration {
  explicit CommandRegistration(Command command);
};

}  // namespace zbiap::cli

#define ZBIAP_REGISTER_COMMAND(id, name, summary, fn) \
  static ::zbiap::cli::CommandRegistration zbiap_command_##id({name, summary, fn})

#endif  // ZBIAP_TOOLS_COMMANDS_H_
