// zbiap catalog sign: turns a catalogue file into a signed answer (the body byte for byte, the
// value of its signature header) and, when asked, an nginx site that serves it.
#ifndef ZBIAP_TOOLS_CATALOG_SIGN_H_
#define ZBIAP_TOOLS_CATALOG_SIGN_H_

#include <optional>
#include <string>

#include "commands.h"

namespace zbiap::cli {

// The subcommand; `args` follow "sign".
int catalogSign(const Args& args);

// What an nginx site needs to serve one signed answer.
struct NginxSite {
  std::string listen = "80";  // the listen directive's address and/or port
  std::string basePath;       // the app's base URL path ("" or "/catalog"), no trailing slash
  std::string answerPath;     // absolute path of the answer body on the server
  std::string signature;      // the value of the signature header
};

// The site file (one server block, for nginx's http block) that answers the fetcher's POST to
// the base path's products description with the body and its signature header, 405 to any
// other method there and 404 to any other path. nullopt, with the reason in `error`, when a
// value cannot be written into nginx's configuration as it is.
std::optional<std::string> nginxSiteFile(const NginxSite& site, std::string* error);

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_CATALOG_SIGN_H_
