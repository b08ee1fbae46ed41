// The built-in example catalogue: examples/catalog.json, embedded at build time.
#include "devserver/embedded_examples.h"
#include "zbiap/devserver/catalog_server.h"

namespace zbiap {

std::string_view CatalogServer::exampleCatalog() { return embeddedExampleCatalog(); }

}  // namespace zbiap
