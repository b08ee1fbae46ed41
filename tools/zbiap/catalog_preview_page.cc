// The preview page. Every catalogue text goes through sanitizedHTML(); everything else on the
// page is this file's own markup, or numbers and colours the library has already read.
#include <string>

#include "catalog_preview.h"
#include "html_fragment.h"

namespace zbiap::cli {
namespace {

// Scripts could not run even if markup slipped through: the page allows nothing but its own
// inline styles.
constexpr char kHead[] = R"(<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Store preview</title>
<style>
body { font-family: sans-serif; overflow-wrap: anywhere; margin: 0 auto; max-width: 32rem; padding: 1rem; background: #fafafa; color: #212121; }
.store-header { text-align: center; margin-bottom: 1rem; }
.product { border-radius: 0.75rem; padding: 1rem 1.25rem; margin: 0 0 1rem; background: #eceff1; }
.product h2 { margin: 0.25rem 0; }
.badge { display: inline-block; font-size: 0.8rem; font-weight: bold; text-transform: uppercase; margin: 0; }
.icon { float: right; font-size: 1.5rem; margin: 0; }
.subtitle { font-weight: bold; margin: 0.25rem 0; }
.features h3 { font-size: 0.9rem; margin: 0.5rem 0 0; }
.features ul { margin: 0.25rem 0; padding-left: 1.25rem; }
.price { font-size: 1.25rem; font-weight: bold; margin: 0.5rem 0 0; }
.price del { font-weight: normal; opacity: 0.7; margin-left: 0.5rem; }
.not-shown { border-top: 1px solid #bdbdbd; margin-top: 2rem; font-size: 0.9rem; }
.error { color: #b71c1c; font-weight: bold; }
footer { color: #757575; font-size: 0.8rem; margin-top: 2rem; }
</style>
)";

std::string paragraph(const char* css, const std::string* text) {
  if (text == nullptr) return {};
  return std::string("<p class=\"") + css + "\">" + sanitizedHTML(*text) + "</p>\n";
}

std::string product(const Preview::Product& product, bool prices) {
  const ZBIAPProductInfoV1& info = *product.info;
  std::string style;
  if (info.backgroundColor()) style += "background:" + info.backgroundColor()->hexString() + ";";
  if (info.titleColor()) style += "color:" + info.titleColor()->hexString() + ";";
  std::string out = "<section class=\"product\" data-product=\"" +
                    escapeHTML(info.productIdentifier()) + "\"" +
                    (style.empty() ? "" : " style=\"" + style + "\"") + ">\n";
  out += paragraph("icon", info.iconText());
  out += paragraph("badge", info.localizedHeader());
  out += "<h2 class=\"title\">" +
         sanitizedHTML(info.localizedTitle() ? *info.localizedTitle() : info.productIdentifier()) +
         "</h2>\n";
  out += paragraph("subtitle", info.localizedSubtitle());
  out += paragraph("description", info.localizedDescription());
  if (info.localizedFreeTrialTitle() || info.localizedFreeTrialDescription()) {
    out += "<div class=\"trial\">" + paragraph("trial-title", info.localizedFreeTrialTitle()) +
           paragraph("trial-description", info.localizedFreeTrialDescription()) + "</div>\n";
  }
  if (!product.featureTitles.empty()) {
    out += "<div class=\"features\">";
    if (product.featureGroupTitle) {
      out += "<h3>" + sanitizedHTML(*product.featureGroupTitle) + "</h3>";
    }
    out += "<ul>";
    for (const std::string& title : product.featureTitles) {
      out += "<li>" + sanitizedHTML(title) + "</li>";
    }
    out += "</ul></div>\n";
  }
  out += "<p class=\"price\">";
  if (!prices) {
    out += "<span class=\"price-now\">(price from the store)</span>";
  } else {
    out +=
        "<span class=\"price-now\">" + escapeHTML(info.localizedPrice().value_or("")) + "</span>";
    if (info.oldPrice()) {
      out += "<del class=\"price-old\">" + escapeHTML(info.localizedOldPrice().value_or("")) +
             "</del>";
    }
  }
  out += "</p>\n</section>\n";
  return out;
}

std::string leftList(const char* title, const std::vector<Preview::Left>& left) {
  if (left.empty()) return {};
  std::string out = std::string("<h2>") + title + "</h2>\n<ul>\n";
  for (const Preview::Left& entry : left) {
    out +=
        "<li><code>" + escapeHTML(entry.name) + "</code>: " + escapeHTML(entry.reason) + "</li>\n";
  }
  return out + "</ul>\n";
}

}  // namespace

std::string previewPage(const Preview& preview) {
  std::string page = "<!DOCTYPE html>\n<html lang=\"" + escapeHTML(preview.language) +
                     "\">\n<head>\n" + kHead + "</head>\n<body>\n";
  if (preview.header) {
    page += "<header class=\"store-header\">" + sanitizedHTML(*preview.header) + "</header>\n";
  }
  page += "<main>\n";
  for (const Preview::Product& shown : preview.shown) {
    page += product(shown, !preview.storefront.empty());
  }
  page += "</main>\n";
  if (preview.error || !preview.rejected.empty() || !preview.hidden.empty()) {
    page += "<section class=\"not-shown\">\n";
    if (preview.error) {
      page +=
          "<p class=\"error\">Apps reject this catalogue: " + escapeHTML(*preview.error) + "</p>\n";
    }
    page += leftList("Rejected by apps", preview.rejected);
    page += leftList("Not on the store screen", preview.hidden);
    page += "</section>\n";
  }
  page += "<footer>Language " + escapeHTML(preview.language) +
          (preview.storefront.empty() ? std::string(", no store prices")
                                      : ", storefront " + escapeHTML(preview.storefront)) +
          ".</footer>\n</body>\n</html>\n";
  return page;
}

}  // namespace zbiap::cli
