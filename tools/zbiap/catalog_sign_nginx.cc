// The nginx site of a signed answer. nginx's static files refuse POST, so the fetcher's request
// is passed by an internal redirect (error_page, which turns the method into GET) to a location
// that only that redirect reaches, where the file is served with the signature header.
#include <string_view>

#include "catalog_sign.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"

namespace zbiap::cli {
namespace {

// The internal location of the answer; a request from outside for it gets 404.
constexpr char kAnswerLocation[] = "/.zbiap-signed-answer";
// A status nothing else answers with, used only to jump to the answer.
constexpr char kRedirectStatus[] = "418";

bool onlyOf(std::string_view text, std::string_view allowed) {
  for (char c : text) {
    const bool alphanumeric =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alphanumeric && allowed.find(c) == std::string_view::npos) return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> nginxSiteFile(const NginxSite& site, std::string* error) {
  // Each value goes into the configuration unquoted or double-quoted; what could end a quote,
  // start a variable ("$") or a new directive is refused rather than escaped.
  if (site.listen.empty() || !onlyOf(site.listen, ".:[]")) {
    *error = "--listen wants an address and/or port (80, 127.0.0.1:8080, [::1]:8080)";
    return std::nullopt;
  }
  if (!site.basePath.empty() &&
      (site.basePath[0] != '/' || site.basePath.back() == '/' || !onlyOf(site.basePath, "/-._~"))) {
    *error =
        "--base-path wants a path like /catalog: a leading slash, no trailing one, and only "
        "letters, digits and - . _ ~ /";
    return std::nullopt;
  }
  if (site.answerPath.empty() || site.answerPath[0] != '/' ||
      !onlyOf(site.answerPath, "/-._~+,@%=")) {
    *error = "the answer's path (" + site.answerPath +
             ") has characters that cannot go into an nginx configuration unescaped; sign into a "
             "directory whose path has only letters, digits and - . _ ~ / + , @ % =";
    return std::nullopt;
  }
  if (site.signature.empty() || !onlyOf(site.signature, "+/=")) {
    *error = "the signature is not base64";
    return std::nullopt;
  }
  const std::string route =
      site.basePath + std::string(ZBIAPProductInfoV1Fetcher::kProductsDescriptionPath);
  return std::string() +
         "# nginx site of a signed catalogue answer, written by `zbiap catalog sign --nginx`.\n"
         "# Include it in nginx's http block (for example from sites-enabled) and reload nginx\n"
         "# after every new signing: the signature below belongs to this one body.\n"
         "server {\n"
         "    listen " +
         site.listen +
         ";\n"
         "    server_name _;\n"
         "    access_log off;\n"
         "\n"
         "    # The apps' catalogue request. Its OAuth signature is not checked here: the answer\n"
         "    # is the same for every device, and its own signature is what apps trust.\n"
         "    location = " +
         route +
         " {\n"
         "        if ($request_method != POST) {\n"
         "            return 405;\n"
         "        }\n"
         "        error_page " +
         kRedirectStatus + " =200 " + kAnswerLocation +
         ";\n"
         "        return " +
         kRedirectStatus +
         ";\n"
         "    }\n"
         "\n"
         "    location = " +
         kAnswerLocation +
         " {\n"
         "        internal;\n"
         "        alias \"" +
         site.answerPath +
         "\";\n"
         "        types { }\n"
         "        default_type application/json;\n"
         "        add_header " +
         ZBIAPProductInfoV1Fetcher::kSignatureHeader + " \"" + site.signature +
         "\" always;\n"
         "        add_header Cache-Control \"no-store\" always;\n"
         "    }\n"
         "\n"
         "    location / {\n"
         "        return 404;\n"
         "    }\n"
         "}\n";
}

}  // namespace zbiap::cli
