#include "commands.h"

namespace zbiap::cli {

// Subcommands are declared here and defined in their own files.

const std::vector<Command>& commands() {
  static const std::vector<Command> kCommands = {};
  return kCommands;
}

}  // namespace zbiap::cli
