// zbiap: the command-line tool. A thin layer over the public API: each subcommand lives in its
// own file and registers itself in the table of commands.h.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "zbiap/zbiap.h"

namespace {

void printHelp(FILE* out) {
  std::fprintf(out, "usage: zbiap <command> [options]\n\ncommands:\n");
  for (const auto& c : zbiap::cli::commands()) {
    std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
  }
  std::fprintf(out, "  %-10s %s\n", "help", "show this text, or a command's with help COMMAND");
  std::fprintf(out, "\n  --version  print the version\n");
}

int run(int argc, char** argv) {
  if (argc < 2) {
    printHelp(stderr);
    return 2;
  }
  std::string cmd = argv[1];
  if (cmd == "--version" || cmd == "version") {
    std::printf("zbiap %.1f\n", ZBIAPVersionNumber);
    return 0;
  }
  if (cmd == "help" || cmd == "--help" || cmd == "-h") {
    // "zbiap help COMMAND" is "zbiap COMMAND --help".
    if (argc > 2) {
      cmd = argv[2];
      for (const auto& c : zbiap::cli::commands()) {
        if (cmd == c.name) return c.run({"--help"});
      }
    }
    if (argc > 2) {
      std::fprintf(stderr, "zbiap: unknown command '%s'\n", cmd.c_str());
      printHelp(stderr);
      return 2;
    }
    printHelp(stdout);
    return 0;
  }
  for (const auto& c : zbiap::cli::commands()) {
    if (cmd == c.name) {
      std::vector<std::string> args(argv + 2, argv + argc);
      return c.run(args);
    }
  }
  std::fprintf(stderr, "zbiap: unknown command '%s'\n", cmd.c_str());
  printHelp(stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // The last guard: commands answer bad input themselves, but nothing escapes as an abort.
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zbiap: internal error: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "zbiap: internal error\n");
  }
  return 1;
}
