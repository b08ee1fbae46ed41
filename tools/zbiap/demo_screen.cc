#include "demo_screen.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "html_fragment.h"
#include "zbiap/catalog/product_feature.h"

namespace zbiap::cli {
namespace {

constexpr size_t kWidth = 58;

// The title of a feature: {"title": {"en": ...}} in the metadata the product gives it, else in
// the catalogue's (a product may only add a badge); in `language`, else English, else the
// identifier.
std::string featureTitle(const std::optional<ProductFeatureSet>& baseline,
                         const ZBIAPProductInfoV1& info, const std::string& identifier,
                         const std::string& language) {
  std::vector<ProductFeaturePtr> sources{info.metadataForFeatureIdentifier(identifier)};
  if (baseline) {
    for (const ProductFeaturePtr& candidate : *baseline) {
      if (candidate->identifier() == identifier) sources.push_back(candidate);
    }
  }
  for (const ProductFeaturePtr& feature : sources) {
    if (!feature) continue;
    const Value metadata = feature->metadata();
    const Value& title = metadata["title"];
    if (const std::string* text = title[language].asString()) return *text;
    if (const std::string* text = title["en"].asString()) return *text;
    if (const std::string* text = title.asString()) return *text;
  }
  return identifier;
}

std::string text(const std::string* value) { return value ? *value : std::string(); }

Value optionalText(const std::optional<std::string>& value) {
  return value ? Value(*value) : Value::null();
}

// The terminal columns a code point takes: two for East Asian wide and fullwidth characters
// (Japanese, Chinese, Korean), none for combining marks and format and control characters.
size_t columns(UChar32 c) {
  if (c < 0) return 1;  // a byte that is no UTF-8 shows as one replacement character
  switch (u_charType(c)) {
    case U_NON_SPACING_MARK:
    case U_ENCLOSING_MARK:
    case U_FORMAT_CHAR:
    case U_CONTROL_CHAR:
      return 0;
    default:
      break;
  }
  const int width = u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
  return width == U_EA_WIDE || width == U_EA_FULLWIDTH ? 2 : 1;
}

// The length of the escape sequence ("\x1b[1m") at `at`, 0 when there is none.
size_t escapeLength(std::string_view line, size_t at) {
  if (line[at] != '\x1b') return 0;
  size_t end = at + 1;
  if (end < line.size() && line[end] == '[') {
    for (++end; end < line.size() && (line[end] < 0x40 || line[end] > 0x7e); ++end) {
    }
  }
  return std::min(end + 1, line.size()) - at;
}

// `line` made exactly the card's width in terminal columns: cut with an ellipsis when it is
// wider, then padded with spaces. Escape sequences take no column and are all kept, so that the
// colours after a cut stay as they were; other control characters (a line break in a catalogue
// text) are left out.
std::string fitted(std::string_view line) {
  size_t total = 0;
  for (size_t i = 0; i < line.size();) {
    if (size_t escape = escapeLength(line, i)) {
      i += escape;
      continue;
    }
    UChar32 c;
    U8_NEXT(line.data(), i, line.size(), c);
    total += columns(c);
  }
  std::string out;
  size_t used = 0;
  const size_t room = total <= kWidth ? kWidth : kWidth - 1;  // one column for the ellipsis
  bool cut = false;
  for (size_t i = 0; i < line.size();) {
    if (size_t escape = escapeLength(line, i)) {
      out.append(line.substr(i, escape));
      i += escape;
      continue;
    }
    const size_t start = i;
    UChar32 c;
    U8_NEXT(line.data(), i, line.size(), c);
    if (c >= 0 && u_charType(c) == U_CONTROL_CHAR) continue;
    if (cut || used + columns(c) > room) {
      if (!cut) out += "\u2026";
      used += cut ? 0 : 1;
      cut = true;
      continue;
    }
    out.append(line.substr(start, i - start));
    used += columns(c);
  }
  return out + std::string(kWidth - used, ' ');
}

}  // namespace

std::vector<std::string> featureTitles(const ZBIAPProductInfoV1& info,
                                       const std::optional<ProductFeatureSet>& baseline,
                                       const std::string& language) {
  std::vector<std::string> titles;
  if (auto set = info.featureSet()) {
    for (const Value& feature : *set) {
      if (const std::string* identifier = feature.asString()) {
        titles.push_back(featureTitle(baseline, info, *identifier, language));
      }
    }
  }
  return titles;
}

std::vector<std::shared_ptr<ZBIAPProductInfoV1>> storeScreenProducts(const ZBIAPManager& manager) {
  return storeScreenOrder(manager.dynamicProductInfosWithStoreProducts());
}

std::vector<std::shared_ptr<ZBIAPProductInfoV1>> storeScreenOrder(
    const std::vector<std::shared_ptr<ZBIAPProductInfo>>& infos) {
  std::vector<std::shared_ptr<ZBIAPProductInfoV1>> shown;
  for (const auto& info : infos) {
    auto v1 = std::dynamic_pointer_cast<ZBIAPProductInfoV1>(info);
    if (v1 && v1->active() && v1->defaultVisible()) shown.push_back(std::move(v1));
  }
  auto key = [](const ZBIAPProductInfoV1& info) {
    return info.sortKey().doubleValue().value_or(std::numeric_limits<double>::max());
  };
  std::stable_sort(shown.begin(), shown.end(),
                   [&](const auto& a, const auto& b) { return key(*a) < key(*b); });
  return shown;
}

void showStoreScreen(DemoOutput& out, const ZBIAPManager& manager, const std::string& language) {
  Array products;
  std::string screen;
  if (auto header = manager.htmlStoreHeader()) {
    // The header is HTML: the terminal shows its text.
    std::string text = htmlToText(*header);
    for (size_t start = 0; start < text.size();) {
      size_t end = std::min(text.find('\n', start), text.size());
      screen += out.dim() + "  " + text.substr(start, end - start) + out.reset() + "\n";
      start = end + 1;
    }
  }
  for (const auto& info : storeScreenProducts(manager)) {
    const std::vector<std::string> titles =
        featureTitles(*info, manager.baselineFeatureMetadata(), language);
    const std::optional<std::string> price = info->localizedPrice();
    const std::optional<std::string> oldPrice =
        info->oldPrice() ? info->localizedOldPrice() : std::nullopt;
    Array featureList(titles.begin(), titles.end());
    Dictionary product{
        {"identifier", Value(info->productIdentifier())},
        {"title", Value(text(info->localizedTitle()))},
        {"subtitle", Value(text(info->localizedSubtitle()))},
        {"description", Value(text(info->localizedDescription()))},
        {"features", Value(std::move(featureList))},
        {"price", optionalText(price)},
        {"oldPrice", optionalText(oldPrice)},
        {"titleColor", info->titleColor() ? Value(info->titleColor()->hexString()) : Value::null()},
        {"backgroundColor",
         info->backgroundColor() ? Value(info->backgroundColor()->hexString()) : Value::null()},
    };
    products.emplace_back(std::move(product));

    // A card: the catalogue's background behind the catalogue's title colour.
    const std::string on = out.background(info->backgroundColor());
    const std::string ink = out.foreground(info->titleColor());
    auto line = [&](const std::string& content) {
      screen += "  " + on + ink + " " + fitted(content) + " " + out.reset() + "\n";
    };
    std::string priceText = price.value_or("(no price)");
    if (oldPrice) priceText += "  " + out.struck(*oldPrice) + on + ink;
    line("");
    line(out.bold() + text(info->localizedTitle()) + out.reset() + on + ink);
    if (info->localizedSubtitle()) line(*info->localizedSubtitle());
    if (info->localizedDescription()) line(*info->localizedDescription());
    for (const std::string& title : titles) line("  + " + title);
    line(priceText);
    line("");
    screen += "\n";
  }
  Dictionary fields{{"header", optionalText(manager.htmlStoreHeader())},
                    {"products", Value(std::move(products))}};
  out.event("catalog", std::move(fields), screen);
}

}  // namespace zbiap::cli
