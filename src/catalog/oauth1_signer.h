// OAuth 1.0 request signing (RFC 5849) with HMAC-SHA1, as the catalogue requests need it: a
// consumer key and secret, an optional token with its secret, the protocol parameters in the
// Authorization header.
//
// What is signed: the method, the base string URI, the URL's query parameters, the body's
// parameters when it is form-encoded (Content-Type application/x-www-form-urlencoded), and the
// oauth_* protocol parameters (oauth_version "1.0" included). Other bodies (JSON) are not part of
// the signature. An OAuth1Signer is immutable once made and may sign from any thread.
#ifndef ZBIAP_SRC_CATALOG_OAUTH1_SIGNER_H_
#define ZBIAP_SRC_CATALOG_OAUTH1_SIGNER_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zbiap/platform/http_client.h"

namespace zbiap {

// Name/value pairs, decoded, in the order they appeared.
using OAuthParameters = std::vector<std::pair<std::string, std::string>>;

// RFC 3986 percent-encoding of the UTF-8 bytes: unreserved characters (ALPHA, DIGIT, "-._~")
// stay, every other byte becomes %XX with upper-case hex digits.
std::string oauthPercentEncode(std::string_view text);

// Reads application/x-www-form-urlencoded text ("a=b&c", "+" is a space). A pair without "="
// has an empty value; empty pairs are skipped; a "%" not followed by two hex digits stays as it
// is.
OAuthParameters parseFormURLEncoded(std::string_view text);

// The base string URI of an absolute URL: scheme and host in lower case, the default port
// (80 for http, 443 for https) dropped, user info, query and fragment removed, an empty path
// written "/". nullopt when the text is not an absolute URL with a host.
std::optional<std::string> oauthBaseStringURI(std::string_view url);

// Encoded names and values sorted by name then value, joined as "n=v&n=v".
std::string oauthNormalizedParameters(const OAuthParameters& parameters);

// METHOD&encoded URI&encoded normalized parameters, where the parameters are the URL's query
// parameters followed by `parameters` (form parameters and oauth_* ones, without
// oauth_signature). nullopt when the URL has no base string URI.
std::optional<std::string> oauthSignatureBaseString(std::string_view method, std::string_view url,
                                                    const OAuthParameters& parameters);

// encoded consumer secret & encoded token secret.
std::string oauthSigningKey(std::string_view consumerSecret, std::string_view tokenSecret);

// Base64 of HMAC-SHA1 of the base string under the signing key.
std::string oauthHMACSHA1Signature(std::string_view baseString, std::string_view consumerSecret,
                                   std::string_view tokenSecret);

class OAuth1Signer {
 public:
  // Null when the consumer key is empty (nothing could be signed in its name).
  static std::shared_ptr<OAuth1Signer> create(std::string consumerKey, std::string consumerSecret,
                                              std::optional<std::string> token = std::nullopt,
                                              std::string tokenSecret = "");

  OAuth1Signer(const OAuth1Signer&) = delete;
  OAuth1Signer& operator=(const OAuth1Signer&) = delete;

  const std::string& consumerKey() const { return consumerKey_; }
  const std::optional<std::string>& token() const { return token_; }

  // Signs `request` in place with a fresh random nonce and the platform clock's time, setting
  // its Authorization header. False (and the request untouched) when its URL cannot be signed.
  bool authorizeRequest(HttpRequest& request) const;
  bool authorizeRequest(HttpRequest& request, std::string_view nonce,
                        std::string_view timestamp) const;

  // The oauth_* parameters (without the signature) for a nonce and time stamp.
  OAuthParameters protocolParameters(std::string_view nonce, std::string_view timestamp) const;

 private:
  OAuth1Signer(std::string consumerKey, std::string consumerSecret,
               std::optional<std::string> token, std::string tokenSecret);

  const std::string consumerKey_;
  const std::string consumerSecret_;
  const std::optional<std::string> token_;
  const std::string tokenSecret_;
};

}  // namespace zbiap

#endif  // ZBIAP_SRC_CATALOG_OAUTH1_SIGNER_H_
