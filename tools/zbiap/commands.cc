#include "commands.h"

#include <algorithm>
#include <cstring>

namespace zbiap::cli {
namespace {

std::vector<Command>& registry() {
  static std::vector<Command> commands;
  return commands;
}

}  // namespace

CommandRegistration::CommandRegistration(Command command) { registry().push_back(command); }

std::vector<Command> commands() {
  std::vector<Command> sorted = registry();
  std::sort(sorted.begin(), sorted.end(),
            [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
  return sorted;
}

}  // namespace zbiap::cli
