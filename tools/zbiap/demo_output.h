// DemoOutput: where `zbiap demo` writes what happens: for a person, headed steps and a store
// screen, in 24-bit colour when the terminal has it; for scripts (--json), one JSON object a
// line, {"event": NAME, ...}, and nothing else on standard output. Main thread only.
#ifndef ZBIAP_TOOLS_DEMO_OUTPUT_H_
#define ZBIAP_TOOLS_DEMO_OUTPUT_H_

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "zbiap/foundation/color.h"
#include "zbiap/foundation/value.h"

namespace zbiap::cli {

class DemoOutput {
 public:
  // `color`: whether escapes may be written (never with `json`).
  DemoOutput(FILE* out, bool json, bool color);
  DemoOutput(const DemoOutput&) = delete;
  DemoOutput& operator=(const DemoOutput&) = delete;

  // Whether standard output is a terminal that takes 24-bit colour, and the user has not asked
  // for none (NO_COLOR).
  static bool terminalHasTrueColor();

  bool json() const { return json_; }

  // An event: one JSON line in --json mode; `text` (may be empty) for a person otherwise.
  void event(std::string_view name, Dictionary fields, std::string_view text);
  // A step's heading (people only).
  void heading(int number, std::string_view title);
  // Plain text for people only.
  void text(std::string_view line);

  // Escapes, empty without colour.
  std::string foreground(const std::optional<ZBIAPColor>& color) const;
  std::string background(const std::optional<ZBIAPColor>& color) const;
  std::string bold() const;
  std::string dim() const;
  std::string reset() const;
  // `text` struck through; without colour, "was TEXT".
  std::string struck(std::string_view text) const;

 private:
  FILE* const out_;
  const bool json_;
  const bool color_;
};

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_DEMO_OUTPUT_H_
