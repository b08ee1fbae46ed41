// What the zbiap subcommands read: a file's whole content, or standard input for "-". Every
// command reads through here, so that all of them answer a bad path the same way: one line
// saying what is wrong, never an exception, never a wait on a pipe nobody writes to.
#ifndef ZBIAP_TOOLS_INPUT_H_
#define ZBIAP_TOOLS_INPUT_H_

#include <cstddef>
#include <optional>
#include <string>

namespace zbiap::cli {

// The largest input a command takes: far above any receipt or StoreKit file, and room for a
// catalogue a hundred times the size of a large one.
inline constexpr size_t kMaxInputBytes = size_t{512} << 20;

// The bytes of the file named `name` (standard input for "-"). Regular files are read with one
// read of their size; pipes and standard input in chunks, up to kMaxInputBytes. A directory, a
// device or socket, a missing, unreadable or empty file, or one over the limit gives nullopt and,
// in `error` when given, one line naming the input and what is wrong ("'x' is a directory").
std::optional<std::string> readInput(const std::string& name, std::string* error);
// The same, with the reason printed on standard error behind "`command`: ".
std::optional<std::string> readInput(const char* command, const std::string& name);

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_INPUT_H_
