// The built-in example catalogue; the same document as examples/catalog.json (a test keeps the two
// equal).
#include "zbiap/devserver/catalog_server.h"

namespace zbiap {
namespace {

constexpr char kExampleCatalog[] = R"zbiapcatalog(
{
  "gold_description": {
    "en": "<h1>Go further</h1><p>Every feature, on every device.</p>",
    "de": "<h1>Mehr erreichen</h1><p>Alle Funktionen, auf jedem Gerät.</p>",
    "fr": "<h1>Allez plus loin</h1><p>Toutes les fonctions, sur chaque appareil.</p>"
  },
  "feature_groups": {
    "pro": {
      "title": {"en": "Pro", "de": "Pro", "fr": "Pro"}
    },
    "extras": {
      "title": {"en": "Extras", "de": "Extras", "fr": "Extras"}
    }
  },
  "features_metadata": [
    {"identifier": "sync", "metadata": {"icon": "cloud", "title": {"en": "Sync", "de": "Synchronisation", "fr": "Synchronisation"}}},
    {"identifier": "export", "metadata": {"icon": "share", "title": {"en": "Export", "de": "Export", "fr": "Exportation"}}},
    {"identifier": "themes", "metadata": {"icon": "palette", "title": {"en": "Themes", "de": "Designs", "fr": "Thèmes"}}},
    {"identifier": "coins", "metadata": {"icon": "coin", "amount": 100}}
  ],
  "products": [
    {
      "identifier": "com.example.app.coins100",
      "inactive": false,
      "sort_key": 40,
      "default_visible": true,
      "title": {"en": "100 Coins", "de": "100 Münzen", "fr": "100 pièces"},
      "subtitle": {"en": "A quick top-up", "de": "Schnell aufgeladen", "fr": "Une recharge rapide"},
      "description": {"en": "A handful of coins to spend in the app.", "de": "Eine Handvoll Münzen für die App.", "fr": "Une poignée de pièces à dépenser dans l'app."},
      "icon_text": {"en": "+100", "de": "+100", "fr": "+100"},
      "title_color": "#1a1a1a",
      "background_color": "#ffd54f",
      "feature_group_id": "extras",
      "features": ["coins"],
      "metadata": {"consumable": true}
    },
    {
      "identifier": "com.example.app.lifetime",
      "inactive": false,
      "sort_key": 30,
      "default_visible": true,
      "title": {"en": "Lifetime Unlock", "de": "Dauerhafte Freischaltung", "fr": "Déblocage à vie"},
      "subtitle": {"en": "Pay once, keep forever", "de": "Einmal zahlen, für immer behalten", "fr": "Payez une fois, gardez-le pour toujours"},
      "description": {"en": "Unlocks every feature, for good.", "de": "Schaltet alle Funktionen dauerhaft frei.", "fr": "Débloque toutes les fonctions, pour toujours."},
      "header": {"en": "Best value", "de": "Bestes Angebot", "fr": "Meilleure offre"},
      "icon_text": {"en": "∞", "de": "∞", "fr": "∞"},
      "title_color": "#ffffff",
      "background_color": "#37474f",
      "old_price": "14.99",
      "feature_group_id": "pro",
      "features": ["sync", "export", "themes"],
      "features_metadata": [
        {"identifier": "themes", "metadata": {"badge": {"en": "All themes", "de": "Alle Designs", "fr": "Tous les thèmes"}}}
      ]
    },
    {
      "identifier": "com.example.app.pro.monthly",
      "inactive": false,
      "sort_key": 10,
      "default_visible": true,
      "new_customers_visible": true,
      "iap_group": "21000001",
      "title": {"en": "Pro Monthly", "de": "Pro monatlich", "fr": "Pro mensuel"},
      "subtitle": {"en": "Billed every month", "de": "Monatlich abgerechnet", "fr": "Facturé chaque mois"},
      "description": {"en": "Every Pro feature, billed monthly.", "de": "Alle Pro-Funktionen, monatlich abgerechnet.", "fr": "Toutes les fonctions Pro, facturées chaque mois."},
      "free_trial_title": {"en": "One week free", "de": "Eine Woche gratis", "fr": "Une semaine offerte"},
      "free_trial_description": {"en": "Try Pro for a week, then pay monthly.", "de": "Eine Woche Pro testen, danach monatlich zahlen.", "fr": "Essayez Pro une semaine, puis payez chaque mois."},
      "title_color": "#ffffff",
      "background_color": "#1e88e5",
      "feature_group_id": "pro",
      "features": ["sync", "export"]
    },
    {
      "identifier": "com.example.app.pro.yearly",
      "inactive": false,
      "sort_key": 20,
      "default_visible": true,
      "iap_group": "21000001",
      "title": {"en": "Pro Yearly", "de": "Pro jährlich", "fr": "Pro annuel"},
      "subtitle": {"en": "Two months free", "de": "Zwei Monate gratis", "fr": "Deux mois offerts"},
      "description": {"en": "Every Pro feature, billed yearly.", "de": "Alle Pro-Funktionen, jährlich abgerechnet.", "fr": "Toutes les fonctions Pro, facturées chaque année."},
      "header": {"en": "Save 30%", "de": "30 % sparen", "fr": "Économisez 30 %"},
      "title_color": "#ffffff",
      "background_color": "#0d47a1",
      "old_price": "35.88",
      "feature_group_id": "pro",
      "features": ["sync", "export", "themes"],
      "metadata": {"highlight": true}
    }
  ]
}
)zbiapcatalog";

}  // namespace

std::string_view CatalogServer::exampleCatalog() {
  // Without the line break that follows the raw string's opening.
  return std::string_view(kExampleCatalog + 1);
}

}  // namespace zbiap
