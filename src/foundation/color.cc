#include "zbiap/foundation/color.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

namespace {

size_t mix(size_t h, double v) {
  // +0.0 so that -0.0 and 0.0, which compare equal, hash alike.
  return h * 1000003u ^ std::hash<double>()(v + 0.0);
}

int toByte(double component) {
  if (!(component > 0)) return 0;  // NaN and negatives
  if (component >= 1) return 255;
  return static_cast<int>(std::lround(component * 255.0));
}

}  // namespace

size_t ZBIAPColor::hash() const { return mix(mix(mix(mix(0x436f6c6fu, red), green), blue), alpha); }

std::string ZBIAPColor::description() const {
  char buf[160];
  const int n = std::snprintf(buf, sizeof buf, "UIExtendedSRGBColorSpace %g %g %g %g", red, green,
                              blue, alpha);
  return std::string(buf, static_cast<size_t>(n));
}

std::string ZBIAPColor::hexString() const {
  char buf[8];
  std::snprintf(buf, sizeof buf, "#%02x%02x%02x", toByte(red), toByte(green), toByte(blue));
  return std::string(buf, 7);
}
