#include "bench/catalog_fixture.h"

#include <fmt/format.h>

#include <iterator>

namespace zbiap::bench {

namespace {

constexpr const char* kColors[] = {"#1a2b3c", "#ffcc00", "abc", "#336699", "e0e0e0", "#f00"};

void appendLocalized(std::string* out, const char* key, int i, const char* en, const char* de,
                     const char* fr) {
  fmt::format_to(std::back_inserter(*out), R"("{}":{{"en":"{} {}","de":"{} {}","fr":"{} {}"}},)",
                 key, en, i, de, i, fr, i);
}

}  // namespace

std::string catalogProductIdentifier(int i) { return fmt::format("com.example.app.product.{}", i); }

std::string makeCatalogJSON(int products) {
  std::string out;
  out.reserve(static_cast<size_t>(products) * 960 + 1024);
  out += R"({"gold_description":{"en":"<h1>Go Pro</h1><p>Everything, everywhere.</p>",)"
         R"("de":"<h1>Pro werden</h1><p>Alles, \u00fcberall.</p>"},)";
  out += R"("feature_groups":{"pro":{"rank":2,"features":["sync","export","themes"]},)"
         R"("basic":{"rank":1,"features":["sync"]}},)";
  out += R"("features_metadata":[{"identifier":"sync","metadata":{"icon":"cloud"}},)"
         R"({"identifier":"export","metadata":{"icon":"share","formats":["pdf","csv"]}},)"
         R"({"identifier":"themes"}],)";
  out += R"("products":[)";
  for (int i = 0; i < products; ++i) {
    if (i > 0) out.push_back(',');
    out.push_back('{');
    fmt::format_to(std::back_inserter(out), R"("identifier":"{}",)", catalogProductIdentifier(i));
    fmt::format_to(std::back_inserter(out), R"("inactive":{},"sort_key":{},)",
                   i % 17 == 0 ? "true" : "false", i * 10);
    appendLocalized(&out, "title", i, "Pro Upgrade", "Pro-Upgrade", "Mise \\u00e0 niveau Pro");
    appendLocalized(&out, "subtitle", i, "All features", "Alle Funktionen", "Toutes les fonctions");
    appendLocalized(&out, "description", i,
                    "Unlock every feature, sync across devices and export in any format.",
                    "Alle Funktionen freischalten, \\u00fcber Ger\\u00e4te synchronisieren.",
                    "D\\u00e9bloquez tout, synchronisez vos appareils.");
    appendLocalized(&out, "header", i, "Best value", "Bester Preis", "Meilleur prix");
    fmt::format_to(std::back_inserter(out),
                   R"("icon_text":"{}%","background_color":"{}","title_color":"{}",)", 10 + i % 60,
                   kColors[i % std::size(kColors)], kColors[(i + 3) % std::size(kColors)]);
    fmt::format_to(
        std::back_inserter(out), R"("old_price":{},)",
        i % 3 == 0 ? fmt::format("\"{}.99\"", 4 + i % 20) : fmt::format("{}.49", 2 + i % 30));
    fmt::format_to(std::back_inserter(out),
                   R"("default_visible":{},"new_customers_visible":{},"requires_account":{},)",
                   i % 2, i % 5 == 0 ? "true" : "false", i % 7 == 0 ? 1 : 0);
    fmt::format_to(std::back_inserter(out), R"("feature_group_id":"{}","iap_group":"group.{}",)",
                   i % 2 ? "pro" : "basic", i % 4);
    fmt::format_to(std::back_inserter(out), R"("feature_group":{{"tier":{},"label":"Tier {}"}},)",
                   i % 3, i % 3);
    out += R"("features":["sync","export","themes","sync"],)";
    fmt::format_to(std::back_inserter(out),
                   R"("features_metadata":[{{"identifier":"sync","metadata":{{"limit":{}}}}},)"
                   R"({{"identifier":"export"}},42],)",
                   100 + i);
    fmt::format_to(std::back_inserter(out),
                   R"("metadata":{{"badge":"new","weight":{:.2f},"period_days":{},)"
                   R"("tags":["a","b"],"promo":null}})",
                   0.5 + (i % 10) / 10.0, i % 2 ? 365 : 30);
    out.push_back('}');
  }
  out += "]}";
  return out;
}

}  // namespace zbiap::bench
