#include "zbiap/devserver/account_server.h"

#include <httplib.h>
#include <strings.h>

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "devserver/loopback_listener.h"
#include "zbiap/foundation/json.h"
#include "zbiap/foundation/value.h"

namespace zbiap {
namespace {

constexpr char kProductsPath[] = "v1/users/products";
constexpr char kBearerPrefix[] = "Bearer ";

struct Account {
  std::vector<AccountServer::Product> products;
  std::optional<bool> isExistingCustomer;
};

struct Scripted {
  int status;
  std::string body;
  std::string contentType;
};

std::string accountBody(const Account& account) {
  Array products;
  products.reserve(account.products.size());
  for (const AccountServer::Product& product : account.products) {
    Dictionary entry{{"product_identifier", Value(product.productIdentifier)},
                     {"purchased_at", Value(product.purchasedAt)}};
    if (product.validUntil) entry.set("valid_until", Value(*product.validUntil));
    products.emplace_back(std::move(entry));
  }
  Dictionary body{{"products", Value(std::move(products))}};
  if (account.isExistingCustomer) {
    body.set("is_existing_customer", Value(*account.isExistingCustomer));
  }
  return toJSON(Value(std::move(body)));
}

std::optional<std::string> bearerToken(const httplib::Request& request) {
  if (!request.has_header("Authorization")) return std::nullopt;
  std::string value = request.get_header_value("Authorization");
  size_t prefix = sizeof(kBearerPrefix) - 1;
  if (value.size() < prefix || strncasecmp(value.c_str(), kBearerPrefix, prefix) != 0) {
    return std::nullopt;
  }
  return value.substr(prefix);
}

}  // namespace

class AccountServer::Impl {
 public:
  explicit Impl(std::string basePath) : basePath_(std::move(basePath)) {
    server_.set_tcp_nodelay(true);  // no wait for delayed acknowledgements between writes
    // A new string rather than insert(0, "/"): g++ 12 at -O3 gives a false -Wrestrict on the
    // inlined insert.
    if (basePath_.empty() || basePath_.front() != '/') basePath_ = std::string(1, '/') + basePath_;
    if (basePath_.back() != '/') basePath_ += '/';
    server_.Get(basePath_ + kProductsPath,
                [this](const httplib::Request& request, httplib::Response& response) {
                  serve(request, response);
                });
  }

  ~Impl() { stop(); }

  bool start(int port) { return listener_.start(port); }
  void stop() { listener_.stop(); }
  int port() const { return listener_.port(); }
  const std::string& basePath() const { return basePath_; }

  void serve(const httplib::Request& request, httplib::Response& response) {
    Request seen;
    seen.method = request.method;
    seen.path = request.path;
    for (const auto& [name, value] : request.headers) seen.headers.emplace_back(name, value);
    seen.token = bearerToken(request);

    std::lock_guard lock(mu_);
    if (!scripted_.empty()) {
      Scripted answer = std::move(scripted_.front());
      scripted_.pop_front();
      response.status = answer.status;
      if (!answer.body.empty() || !answer.contentType.empty()) {
        response.set_content(answer.body, answer.contentType);
      }
    } else if (auto found = seen.token ? accounts_.find(*seen.token) : accounts_.end();
               found != accounts_.end()) {
      response.status = 200;
      response.set_content(accountBody(found->second), "application/json");
    } else {
      response.status = 401;
      response.set_header("WWW-Authenticate", "Bearer");
      response.set_content(R"({"error":"unauthorized"})", "application/json");
    }
    seen.status = response.status;
    // The log keeps the latest requests only, so a long-running server's memory stays bounded.
    ++served_;
    if (requests_.size() == kMaxLoggedRequests) requests_.pop_front();
    requests_.push_back(std::move(seen));
  }

  static constexpr size_t kMaxLoggedRequests = 1000;
  mutable std::mutex mu_;
  std::map<std::string, Account> accounts_;
  std::deque<Scripted> scripted_;
  std::deque<Request> requests_;
  size_t served_ = 0;

 private:
  std::string basePath_;
  httplib::Server server_;
  LoopbackListener listener_{server_};
};

AccountServer::Product AccountServer::Product::make(std::string productIdentifier, Date purchasedAt,
                                                    std::optional<Date> validUntil) {
  Product product{std::move(productIdentifier), rfc3339(purchasedAt), std::nullopt};
  if (validUntil) product.validUntil = rfc3339(*validUntil);
  return product;
}

std::optional<std::string> AccountServer::Request::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

std::string AccountServer::rfc3339(Date date) {
  // The description is "<year>-MM-dd HH:mm:ss +0000", always in UTC; the year may have more
  // than four digits.
  std::string text = date.description();
  const size_t space = text.find(' ');
  if (space == std::string::npos) return text;
  return text.substr(0, space) + "T" + text.substr(space + 1, 8) + "Z";
}

AccountServer::AccountServer(std::string basePath)
    : impl_(std::make_unique<Impl>(std::move(basePath))) {}

AccountServer::~AccountServer() = default;

bool AccountServer::start(int port) { return impl_->start(port); }
void AccountServer::stop() { impl_->stop(); }
int AccountServer::port() const { return impl_->port(); }

std::string AccountServer::baseURL() const {
  return "http://127.0.0.1:" + std::to_string(impl_->port()) + impl_->basePath();
}

void AccountServer::setProducts(const std::string& token, std::vector<Product> products) {
  std::lock_guard lock(impl_->mu_);
  impl_->accounts_[token].products = std::move(products);
}

void AccountServer::addProduct(const std::string& token, Product product) {
  std::lock_guard lock(impl_->mu_);
  impl_->accounts_[token].products.push_back(std::move(product));
}

void AccountServer::setExistingCustomer(const std::string& token, std::optional<bool> flag) {
  std::lock_guard lock(impl_->mu_);
  impl_->accounts_[token].isExistingCustomer = flag;
}

void AccountServer::removeAccount(const std::string& token) {
  std::lock_guard lock(impl_->mu_);
  impl_->accounts_.erase(token);
}

std::optional<std::string> AccountServer::bodyForToken(const std::string& token) const {
  std::lock_guard lock(impl_->mu_);
  auto found = impl_->accounts_.find(token);
  if (found == impl_->accounts_.end()) return std::nullopt;
  return accountBody(found->second);
}

void AccountServer::enqueueResponse(int status, std::string body, std::string contentType) {
  std::lock_guard lock(impl_->mu_);
  impl_->scripted_.push_back({status, std::move(body), std::move(contentType)});
}

size_t AccountServer::pendingResponses() const {
  std::lock_guard lock(impl_->mu_);
  return impl_->scripted_.size();
}

std::vector<AccountServer::Request> AccountServer::requests() const {
  std::lock_guard lock(impl_->mu_);
  return {impl_->requests_.begin(), impl_->requests_.end()};
}

size_t AccountServer::requestCount() const {
  std::lock_guard lock(impl_->mu_);
  return impl_->served_;
}

void AccountServer::clearRequests() {
  std::lock_guard lock(impl_->mu_);
  impl_->requests_.clear();
  impl_->served_ = 0;
}

}  // namespace zbiap
