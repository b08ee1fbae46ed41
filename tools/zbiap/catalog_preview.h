// zbiap catalog preview: the store screen a catalogue makes, as one self-contained HTML page,
// for a vendor to look at before the catalogue reaches users.
#ifndef ZBIAP_TOOLS_CATALOG_PREVIEW_H_
#define ZBIAP_TOOLS_CATALOG_PREVIEW_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "zbiap/catalog/product_info.h"

namespace zbiap::cli {

// The subcommand; `args` follow "preview".
int catalogPreview(const Args& args);

// What the page shows. Texts are the catalogue's, unescaped: the page makes them safe.
struct Preview {
  struct Product {
    std::shared_ptr<ZBIAPProductInfoV1> info;  // with its store product when prices are known
    std::optional<std::string> featureGroupTitle;
    std::vector<std::string> featureTitles;
  };
  // A product an app does not show, and why.
  struct Left {
    std::string name;  // "products[2] (com.example.x)"
    std::string reason;
  };
  std::string language;
  std::string storefront;  // empty when no prices are known
  std::optional<std::string> header;
  std::vector<Product> shown;        // in the order an app shows them
  std::vector<Left> rejected;        // apps drop these while reading the answer
  std::vector<Left> hidden;          // read, but not on the store screen
  std::optional<std::string> error;  // apps reject the whole answer
};

// The page: a complete HTML document with its styles inline that loads nothing and runs nothing.
std::string previewPage(const Preview& preview);

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_CATALOG_PREVIEW_H_
