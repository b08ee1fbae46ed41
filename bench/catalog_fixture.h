// A synthetic product catalogue for benchmarks: the JSON envelope the catalogue service
// answers with ("products", "gold_description", "feature_groups", "features_metadata"),
// each product carrying the keys of a real record (texts per language, colours, old price,
// features, metadata). Deterministic: the same count gives the same bytes.
#ifndef ZBIAP_BENCH_CATALOG_FIXTURE_H_
#define ZBIAP_BENCH_CATALOG_FIXTURE_H_

#include <string>

namespace zbiap::bench {

// About 1,060 bytes per product: 1,000 products make a document of about 1 MB.
std::string makeCatalogJSON(int products);

// The identifier of product `i` in that document ("com.example.app.product.<i>").
std::string catalogProductIdentifier(int i);

}  // namespace zbiap::bench

#endif  // ZBIAP_BENCH_CATALOG_FIXTURE_H_
