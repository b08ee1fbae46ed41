// Reading the catalogue's colour texts ("#1a2B3c", "1a2B3c", "#abc", "abc") into opaque colours.
#ifndef ZBIAP_CATALOG_HEX_COLOR_H_
#define ZBIAP_CATALOG_HEX_COLOR_H_

#include <optional>
#include <string_view>

#include "zbiap/foundation/color.h"

namespace zbiap {

// The colour of `text`, or nullopt when it is not one. With a leading "#" the text must be 4 or
// 7 characters long, without it 3 or 6 (characters are UTF-16 code units). Every "#" is then
// removed. Six characters are three pairs, each read as a base-16 number by strtoul and required
// to be consumed whole. Three characters are read one by one and multiplied by 17; only the first
// is required to be consumed whole, so a non-hex second or third character reads as 0 ("#fzz" is
// pure red). Components are divided by 255; alpha is 1.
std::optional<ZBIAPColor> colorFromHexString(std::string_view text);

}  // namespace zbiap

#endif  // ZBIAP_CATALOG_HEX_COLOR_H_
