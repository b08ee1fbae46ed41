// The command-line options of the zbiap subcommands: "--name VALUE", "--name=VALUE", "--flag",
// and positional arguments ("-" is positional; "--" ends the options). One parser for every
// command, so that they all read and refuse arguments the same way.
#ifndef ZBIAP_TOOLS_OPTIONS_H_
#define ZBIAP_TOOLS_OPTIONS_H_

#include <cstddef>
#include <string>
#include <vector>

#include "commands.h"

namespace zbiap::cli {

class OptionParser {
 public:
  // `command` prefixes the messages ("zbiap catalog check"); `usage` is printed after them.
  OptionParser(std::string command, std::string usage);
  OptionParser(const OptionParser&) = delete;
  OptionParser& operator=(const OptionParser&) = delete;

  // The targets must outlive parse(). A value option given twice keeps the last value.
  void flag(std::string name, bool* out);
  void value(std::string name, std::string* out);
  // Options that must be given.
  void require(std::string name);

  // Reads `args`: false on bad usage (unknown option, missing value or required option, a
  // positional count outside [minPositionals, maxPositionals]), with the reason and the usage
  // on standard error; false too for "--help" or "-h", after the usage on standard output.
  bool parse(const Args& args, std::vector<std::string>* positionals, size_t minPositionals,
             size_t maxPositionals);
  // The exit code after parse() returned false: 0 when help was asked for, else 2.
  int exitCode() const { return helpShown_ ? 0 : 2; }

  // Prints "<command>: <message>" and the usage on standard error; returns 2, the exit code of
  // bad usage, for `return parser.fail(...)`.
  int fail(const std::string& message) const;

 private:
  struct Option {
    std::string name;
    bool* flag = nullptr;
    std::string* value = nullptr;
    bool required = false;
    bool seen = false;
  };
  Option* find(const std::string& name);

  std::string command_;
  std::string usage_;
  std::vector<Option> options_;
  bool helpShown_ = false;
};

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_OPTIONS_H_
