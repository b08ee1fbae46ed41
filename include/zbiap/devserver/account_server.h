// zbiap::AccountServer: a development account server in this process, on 127.0.0.1, that
// answers GET "<base path>v1/users/products" with the products held by the account of the
// request's bearer token ("Authorization: Bearer <token>"), as the vendor's account server
// does. Unknown or missing tokens get 401. For the demo, `zbiap serve` and the tests.
//
// Contracts: every member is safe from any thread; requests are served on the server's own
// threads. Scripted answers, when queued, are given to the next requests (whatever their token)
// before any account is looked at. Destroying the server stops it.
#ifndef ZBIAP_DEVSERVER_ACCOUNT_SERVER_H_
#define ZBIAP_DEVSERVER_ACCOUNT_SERVER_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zbiap/foundation/date.h"

namespace zbiap {

class AccountServer {
 public:
  // One product an account holds, as the server sends it.
  struct Product {
    std::string productIdentifier;
    // RFC 3339 texts, sent as they stand (a test may store texts that do not parse).
    std::string purchasedAt;
    std::optional<std::string> validUntil;

    // A product with its dates written in RFC 3339, in UTC.
    static Product make(std::string productIdentifier, Date purchasedAt,
                        std::optional<Date> validUntil = std::nullopt);
  };

  // One request as the server saw it.
  struct Request {
    std::string method;
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers;
    // The bearer token, when the request carried one.
    std::optional<std::string> token;
    // The status it was answered with.
    int status = 0;

    // The first value of header `name` (any case); nullopt when absent.
    std::optional<std::string> header(std::string_view name) const;
  };

  // "2024-03-05T10:20:30Z": `date` in UTC, whole seconds.
  static std::string rfc3339(Date date);

  // `basePath` is the API root's path ("/api/" unless told otherwise); it gets a trailing "/".
  explicit AccountServer(std::string basePath = "/api/");
  ~AccountServer();
  AccountServer(const AccountServer&) = delete;
  AccountServer& operator=(const AccountServer&) = delete;

  // Binds 127.0.0.1 (at `port`, or a port the kernel picks when 0) and serves on a thread of
  // its own; false when binding failed. Connections are accepted as soon as it returns. After
  // stop() it binds anew.
  bool start(int port = 0);
  void stop();
  int port() const;
  // The API root to give the account store: "http://127.0.0.1:<port><basePath>".
  std::string baseURL() const;

  // Accounts. An account exists once anything is set for its token.
  void setProducts(const std::string& token, std::vector<Product> products);
  void addProduct(const std::string& token, Product product);
  // "is_existing_customer" of the account; nullopt leaves the key out of the answer.
  void setExistingCustomer(const std::string& token, std::optional<bool> flag);
  void removeAccount(const std::string& token);
  // The JSON body the account of `token` is answered with; nullopt for an unknown token.
  std::optional<std::string> bodyForToken(const std::string& token) const;

  // Answers the next request with `status` and `body` (content type "application/json" unless
  // given), before any account is looked at. Answers queue up in order.
  void enqueueResponse(int status, std::string body, std::string contentType = "application/json");
  size_t pendingResponses() const;

  // The latest requests served (at most 1,000: a long-running server keeps no more), oldest
  // first, and how many were served in all.
  std::vector<Request> requests() const;
  size_t requestCount() const;
  void clearRequests();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zbiap

#endif  // ZBIAP_DEVSERVER_ACCOUNT_SERVER_H_
