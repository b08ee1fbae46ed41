// The files of examples/ that the development tools carry inside the binary; generated at build
// time by zbiap_embed_file() (cmake/layers.cmake).
#ifndef ZBIAP_SRC_DEVSERVER_EMBEDDED_EXAMPLES_H_
#define ZBIAP_SRC_DEVSERVER_EMBEDDED_EXAMPLES_H_

#include <string_view>

namespace zbiap {

// examples/catalog.json
std::string_view embeddedExampleCatalog();
// examples/Example.storekit
std::string_view embeddedExampleStoreKit();

}  // namespace zbiap

#endif  // ZBIAP_SRC_DEVSERVER_EMBEDDED_EXAMPLES_H_
