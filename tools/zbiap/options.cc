#include "options.h"

#include <cstdio>
#include <utility>

namespace zbiap::cli {

OptionParser::OptionParser(std::string command, std::string usage)
    : command_(std::move(command)), usage_(std::move(usage)) {}

void OptionParser::flag(std::string name, bool* out) {
  options_.push_back(Option{std::move(name), out, nullptr});
}

void OptionParser::value(std::string name, std::string* out) {
  options_.push_back(Option{std::move(name), nullptr, out});
}

void OptionParser::require(std::string name) {
  if (Option* option = find(name)) option->required = true;
}

OptionParser::Option* OptionParser::find(const std::string& name) {
  for (Option& option : options_) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

int OptionParser::fail(const std::string& message) const {
  std::fprintf(stderr, "%s: %s\n%s", command_.c_str(), message.c_str(), usage_.c_str());
  return 2;
}

bool OptionParser::parse(const Args& args, std::vector<std::string>* positionals,
                         size_t minPositionals, size_t maxPositionals) {
  std::vector<std::string> found;
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (optionsEnded || arg.size() < 2 || arg.compare(0, 1, "-") != 0) {
      found.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (arg == "--help" || arg == "-h") {
      std::fputs(usage_.c_str(), stdout);
      helpShown_ = true;
      return false;
    }
    std::string name = arg;
    std::string value;
    bool inlineValue = false;
    if (size_t equals = name.find('='); equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.resize(equals);
      inlineValue = true;
    }
    Option* option = find(name);
    if (option == nullptr) {
      fail("unknown option '" + arg + "'");
      return false;
    }
    option->seen = true;
    if (option->flag != nullptr) {
      if (inlineValue) {
        fail(name + " takes no value");
        return false;
      }
      *option->flag = true;
      continue;
    }
    if (!inlineValue) {
      if (i + 1 == args.size()) {
        fail(name + " needs a value");
        return false;
      }
      value = args[++i];
    }
    *option->value = std::move(value);
  }
  for (const Option& option : options_) {
    if (option.required && !option.seen) {
      fail(option.name + " is required");
      return false;
    }
  }
  if (found.size() < minPositionals) {
    fail(minPositionals == 1 ? "a file is needed" : "too few arguments");
    return false;
  }
  if (found.size() > maxPositionals) {
    fail("unexpected argument '" + found[maxPositionals] + "'");
    return false;
  }
  if (positionals != nullptr) *positionals = std::move(found);
  return true;
}

}  // namespace zbiap::cli
