#include "demo_output.h"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "zbiap/foundation/json.h"

namespace zbiap::cli {
namespace {

int channel(double component) {
  return static_cast<int>(std::lround(std::fmin(1.0, std::fmax(0.0, component)) * 255));
}

std::string rgb(int layer, const ZBIAPColor& color) {
  return "\x1b[" + std::to_string(layer) + ";2;" + std::to_string(channel(color.red)) + ";" +
         std::to_string(channel(color.green)) + ";" + std::to_string(channel(color.blue)) + "m";
}

}  // namespace

DemoOutput::DemoOutput(FILE* out, bool json, bool color)
    : out_(out), json_(json), color_(color && !json) {}

bool DemoOutput::terminalHasTrueColor() {
  const char* noColor = std::getenv("NO_COLOR");
  if (noColor != nullptr && noColor[0] != '\0') return false;
  if (isatty(STDOUT_FILENO) == 0) return false;
  const char* colorTerm = std::getenv("COLORTERM");
  return colorTerm != nullptr &&
         (std::strcmp(colorTerm, "truecolor") == 0 || std::strcmp(colorTerm, "24bit") == 0);
}

void DemoOutput::event(std::string_view name, Dictionary fields, std::string_view text) {
  if (json_) {
    Dictionary line{{"event", Value(name)}};
    for (auto& [key, value] : fields.entries()) line.set(key, value);
    std::fprintf(out_, "%s\n", toJSON(Value(std::move(line))).c_str());
  } else if (!text.empty()) {
    std::fprintf(out_, "%.*s\n", static_cast<int>(text.size()), text.data());
  }
  std::fflush(out_);
}

void DemoOutput::heading(int number, std::string_view title) {
  if (json_) return;
  std::fprintf(out_, "\n%s%d. %.*s%s\n", bold().c_str(), number, static_cast<int>(title.size()),
               title.data(), reset().c_str());
  std::fflush(out_);
}

void DemoOutput::text(std::string_view line) {
  if (json_) return;
  std::fprintf(out_, "%.*s\n", static_cast<int>(line.size()), line.data());
  std::fflush(out_);
}

std::string DemoOutput::foreground(const std::optional<ZBIAPColor>& color) const {
  return color_ && color ? rgb(38, *color) : std::string();
}

std::string DemoOutput::background(const std::optional<ZBIAPColor>& color) const {
  return color_ && color ? rgb(48, *color) : std::string();
}

std::string DemoOutput::bold() const { return color_ ? "\x1b[1m" : ""; }
std::string DemoOutput::dim() const { return color_ ? "\x1b[2m" : ""; }
std::string DemoOutput::reset() const { return color_ ? "\x1b[0m" : ""; }

std::string DemoOutput::struck(std::string_view text) const {
  if (color_) return "\x1b[9m" + std::string(text) + "\x1b[29m";
  return "was " + std::string(text);
}

}  // namespace zbiap::cli
