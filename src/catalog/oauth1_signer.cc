#include "catalog/oauth1_signer.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdint>

#include "catalog/base64.h"
#include "zbiap/platform/platform.h"

namespace zbiap {

namespace {

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string formDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+') {
      out.push_back(' ');
    } else if (c == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
               hexValue(text[i + 2]) >= 0) {
      out.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
      i += 2;
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::string lowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

struct URLParts {
  std::string baseURI;
  std::string_view query;
};

std::optional<URLParts> splitURL(std::string_view url) {
  size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos || schemeEnd == 0) return std::nullopt;
  std::string scheme = lowercase(url.substr(0, schemeEnd));
  if (!std::all_of(scheme.begin(), scheme.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
      })) {
    return std::nullopt;
  }
  std::string_view rest = url.substr(schemeEnd + 3);
  size_t fragment = rest.find('#');
  if (fragment != std::string_view::npos) rest = rest.substr(0, fragment);
  size_t authorityEnd = rest.find_first_of("/?");
  std::string_view authority = rest.substr(0, authorityEnd);
  std::string_view pathAndQuery =
      authorityEnd == std::string_view::npos ? std::string_view() : rest.substr(authorityEnd);
  if (size_t at = authority.rfind('@'); at != std::string_view::npos) {
    authority = authority.substr(at + 1);
  }
  std::string_view host = authority;
  std::string_view port;
  size_t bracket = authority.rfind(']');
  size_t colon = authority.rfind(':');
  if (colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket)) {
    host = authority.substr(0, colon);
    port = authority.substr(colon + 1);
  }
  if (host.empty()) return std::nullopt;
  if (!std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  while (port.size() > 1 && port.front() == '0') port.remove_prefix(1);
  if ((scheme == "http" && port == "80") || (scheme == "https" && port == "443")) port = {};

  size_t question = pathAndQuery.find('?');
  std::string_view path = pathAndQuery.substr(0, question);
  URLParts parts;
  if (question != std::string_view::npos) parts.query = pathAndQuery.substr(question + 1);
  parts.baseURI = scheme + "://" + lowercase(host);
  if (!port.empty()) {
    parts.baseURI.push_back(':');
    parts.baseURI.append(port);
  }
  parts.baseURI.append(path.empty() ? std::string_view("/") : path);
  return parts;
}

bool isFormEncoded(const HttpRequest& request) {
  auto type = request.headerValue("Content-Type");
  if (!type) return false;
  std::string mediaType = lowercase(type->substr(0, type->find(';')));
  mediaType.erase(std::remove(mediaType.begin(), mediaType.end(), ' '), mediaType.end());
  return mediaType == "application/x-www-form-urlencoded";
}

std::string randomNonce() {
  uint8_t bytes[16];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) {
    // Without the generator a nonce that repeats is still better than no request at all.
    auto now = Platform::current().now().microsSince1970();
    for (size_t i = 0; i < sizeof(bytes); ++i) bytes[i] = static_cast<uint8_t>(now >> (i % 8 * 8));
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string nonce;
  for (uint8_t byte : bytes) {
    nonce.push_back(kHex[byte >> 4]);
    nonce.push_back(kHex[byte & 15]);
  }
  return nonce;
}

}  // namespace

std::string oauthPercentEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (isUnreserved(byte)) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 15]);
    }
  }
  return out;
}

OAuthParameters parseFormURLEncoded(std::string_view text) {
  OAuthParameters parameters;
  while (!text.empty()) {
    size_t amp = text.find('&');
    std::string_view pair = text.substr(0, amp);
    text = amp == std::string_view::npos ? std::string_view() : text.substr(amp + 1);
    if (pair.empty()) continue;
    size_t equals = pair.find('=');
    if (equals == std::string_view::npos) {
      parameters.emplace_back(formDecode(pair), std::string());
    } else {
      parameters.emplace_back(formDecode(pair.substr(0, equals)),
                              formDecode(pair.substr(equals + 1)));
    }
  }
  return parameters;
}

std::optional<std::string> oauthBaseStringURI(std::string_view url) {
  auto parts = splitURL(url);
  if (!parts) return std::nullopt;
  return std::move(parts->baseURI);
}

std::string oauthNormalizedParameters(const OAuthParameters& parameters) {
  std::vector<std::pair<std::string, std::string>> encoded;
  encoded.reserve(parameters.size());
  for (const auto& [name, value] : parameters) {
    encoded.emplace_back(oauthPercentEncode(name), oauthPercentEncode(value));
  }
  std::sort(encoded.begin(), encoded.end());
  std::string out;
  for (const auto& [name, value] : encoded) {
    if (!out.empty()) out.push_back('&');
    out.append(name);
    out.push_back('=');
    out.append(value);
  }
  return out;
}

std::optional<std::string> oauthSignatureBaseString(std::string_view method, std::string_view url,
                                                    const OAuthParameters& parameters) {
  auto parts = splitURL(url);
  if (!parts) return std::nullopt;
  OAuthParameters all = parseFormURLEncoded(parts->query);
  all.insert(all.end(), parameters.begin(), parameters.end());
  std::string upperMethod(method);
  for (char& c : upperMethod) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return oauthPercentEncode(upperMethod) + "&" + oauthPercentEncode(parts->baseURI) + "&" +
         oauthPercentEncode(oauthNormalizedParameters(all));
}

std::string oauthSigningKey(std::string_view consumerSecret, std::string_view tokenSecret) {
  return oauthPercentEncode(consumerSecret) + "&" + oauthPercentEncode(tokenSecret);
}

std::string oauthHMACSHA1Signature(std::string_view baseString, std::string_view consumerSecret,
                                   std::string_view tokenSecret) {
  std::string key = oauthSigningKey(consumerSecret, tokenSecret);
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()),
            reinterpret_cast<const uint8_t*>(baseString.data()), baseString.size(), digest,
            &length)) {
    return {};
  }
  return base64Encode(std::span<const uint8_t>(digest, length));
}

std::shared_ptr<OAuth1Signer> OAuth1Signer::create(std::string consumerKey,
                                                   std::string consumerSecret,
                                                   std::optional<std::string> token,
                                                   std::string tokenSecret) {
  if (consumerKey.empty()) return nullptr;
  return std::shared_ptr<OAuth1Signer>(new OAuth1Signer(
      std::move(consumerKey), std::move(consumerSecret), std::move(token), std::move(tokenSecret)));
}

OAuth1Signer::OAuth1Signer(std::string consumerKey, std::string consumerSecret,
                           std::optional<std::string> token, std::string tokenSecret)
    : consumerKey_(std::move(consumerKey)),
      consumerSecret_(std::move(consumerSecret)),
      token_(std::move(token)),
      tokenSecret_(std::move(tokenSecret)) {}

OAuthParameters OAuth1Signer::protocolParameters(std::string_view nonce,
                                                 std::string_view timestamp) const {
  OAuthParameters parameters{{"oauth_consumer_key", consumerKey_},
                             {"oauth_nonce", std::string(nonce)},
                             {"oauth_signature_method", "HMAC-SHA1"},
                             {"oauth_timestamp", std::string(timestamp)}};
  if (token_) parameters.emplace_back("oauth_token", *token_);
  parameters.emplace_back("oauth_version", "1.0");
  return parameters;
}

bool OAuth1Signer::authorizeRequest(HttpRequest& request) const {
  int64_t seconds = Platform::current().now().microsSince1970() / 1000000;
  return authorizeRequest(request, randomNonce(), std::to_string(seconds));
}

bool OAuth1Signer::authorizeRequest(HttpRequest& request, std::string_view nonce,
                                    std::string_view timestamp) const {
  OAuthParameters oauth = protocolParameters(nonce, timestamp);
  OAuthParameters signedParameters = oauth;
  if (isFormEncoded(request)) {
    std::string_view body(reinterpret_cast<const char*>(request.body.data()), request.body.size());
    OAuthParameters form = parseFormURLEncoded(body);
    signedParameters.insert(signedParameters.end(), form.begin(), form.end());
  }
  std::string_view method = request.method.empty() ? std::string_view("GET") : request.method;
  auto baseString = oauthSignatureBaseString(method, request.url, signedParameters);
  if (!baseString) return false;
  oauth.emplace_back("oauth_signature",
                     oauthHMACSHA1Signature(*baseString, consumerSecret_, tokenSecret_));
  std::string header = "OAuth ";
  for (size_t i = 0; i < oauth.size(); ++i) {
    if (i > 0) header.append(", ");
    header.append(oauthPercentEncode(oauth[i].first));
    header.append("=\"");
    header.append(oauthPercentEncode(oauth[i].second));
    header.push_back('"');
  }
  request.setHeader("Authorization", header);
  return true;
}

}  // namespace zbiap
