// zbiap::CatalogServer: a development catalogue server in this process, on 127.0.0.1, that
// answers POST "/api/v1/in_app_purchases/products_description" as the vendor's catalogue service
// does. Every request must carry an OAuth 1.0 HMAC-SHA1 signature made with the server's consumer
// key and secret (any token, an empty token secret); a missing or wrong one is answered 401. A
// signed request gets the catalogue JSON, byte for byte, with its RSA PKCS #1 v1.5 SHA-256
// signature in base64 in "X-Tessil-Signature", made with a 2048-bit key generated when the server
// is made. consumerKey(), consumerSecret() and publicKeyBase64() are what a fetcher is configured
// with. For the demo, `zbiap serve` and the tests.
//
// Contracts: every member is safe from any thread; requests are served on the server's own
// threads. The catalogue may be replaced while the server runs; each answer is one whole
// catalogue. Destroying the server stops it.
#ifndef ZBIAP_DEVSERVER_CATALOG_SERVER_H_
#define ZBIAP_DEVSERVER_CATALOG_SERVER_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zbiap {

class CatalogServer {
 public:
  // The catalogue served when none is given: the products of examples/Example.storekit with
  // texts in English, German and French, colours, features and an old price.
  static std::string_view exampleCatalog();

  // One request as the server saw it.
  struct Request {
    std::string method;
    // The request target as sent (path and query, not decoded).
    std::string target;
    std::string body;
    // Whether its OAuth signature held; when not, why.
    bool authorized = false;
    std::string rejection;
    int status = 0;
  };

  // Makes a server with fresh credentials (random consumer key and secret unless given) and a
  // fresh RSA key, serving exampleCatalog(). Null when no RSA key could be made, or when
  // `consumerKey` is given empty.
  static std::unique_ptr<CatalogServer> create(
      std::optional<std::string> consumerKey = std::nullopt,
      std::optional<std::string> consumerSecret = std::nullopt);

  ~CatalogServer();
  CatalogServer(const CatalogServer&) = delete;
  CatalogServer& operator=(const CatalogServer&) = delete;

  // Replaces the catalogue with `json`, which must be JSON text (any JSON: a client may be tested
  // against a malformed envelope); false, and the catalogue unchanged, when it is not, with the
  // reason in `error` when given.
  bool setCatalog(std::string json, std::string* error = nullptr);
  // Reads the catalogue from a file; false, and the catalogue unchanged, when the file cannot be
  // read or is not JSON, with the reason in `error` when given.
  bool loadCatalogFile(const std::string& path, std::string* error = nullptr);
  std::string catalog() const;

  // Binds 127.0.0.1 (at `port`, or a port the kernel picks when 0) and serves on a thread of its
  // own; false when binding failed. Connections are accepted as soon as it returns.
  bool start(int port = 0);
  void stop();
  // The bound port; -1 before start().
  int port() const;
  // The base URL to give a fetcher: "http://127.0.0.1:<port>".
  std::string baseURL() const;

  const std::string& consumerKey() const;
  const std::string& consumerSecret() const;
  // Base64 of the DER PKCS #1 RSAPublicKey that verifies the answers.
  const std::string& publicKeyBase64() const;
  // The base64 signature the server puts on `body`.
  std::string sign(std::string_view body) const;

  // The latest 256 requests served, oldest first.
  std::vector<Request> requests() const;
  // How many requests were served in all.
  size_t requestCount() const;

 private:
  class Impl;
  explicit CatalogServer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace zbiap

#endif  // ZBIAP_DEVSERVER_CATALOG_SERVER_H_
