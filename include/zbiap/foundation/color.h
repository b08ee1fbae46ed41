// ZBIAPColor: an opaque RGBA colour with components from 0 to 1, the library's UIColor.
//
// A plain value. Equality compares the four components exactly; description() follows
// UIColor's: "UIExtendedSRGBColorSpace 1 0 0 1".
#ifndef ZBIAP_FOUNDATION_COLOR_H_
#define ZBIAP_FOUNDATION_COLOR_H_

#include <string>

#include "zbiap/export.h"

struct ZBIAP_EXPORT ZBIAPColor {
  double red = 0, green = 0, blue = 0, alpha = 1;

  static ZBIAPColor fromRGBA(double r, double g, double b, double a = 1) {
    return ZBIAPColor{r, g, b, a};
  }
  friend bool operator==(const ZBIAPColor&, const ZBIAPColor&) = default;
  size_t hash() const;
  std::string description() const;
  // "#rrggbb" (alpha left out), components rounded to the nearest of 0..255.
  std::string hexString() const;
};

#endif  // ZBIAP_FOUNDATION_COLOR_H_
