#include "zbiap/devserver/catalog_server.h"

#include <httplib.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <strings.h>
#include <zlib.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>

#include "catalog/oauth1_signer.h"
#include "devserver/loopback_listener.h"
#include "zbiap/devserver/answer_signing_key.h"
#include "zbiap/foundation/json.h"

namespace zbiap {
namespace {

// Matches also the double slash of a base URL given with a trailing slash.
constexpr char kCatalogRoute[] = R"(/+api/v1/in_app_purchases/products_description)";
constexpr char kSignatureHeader[] = "X-Tessil-Signature";
constexpr size_t kKeptRequests = 256;
// Smaller than a vendor's key: made afresh at every start, and quick to make.
constexpr int kKeyBits = 2048;

std::string randomHex(size_t bytes) {
  std::vector<uint8_t> random(bytes);
  if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) return {};
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  for (uint8_t byte : random) {
    text.push_back(kHex[byte >> 4]);
    text.push_back(kHex[byte & 15]);
  }
  return text;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// RFC 3986 percent-decoding; nullopt for a "%" not followed by two hex digits.
std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    int high = hexDigit(text[i + 1]);
    int low = hexDigit(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return out;
}

void skipSpaces(std::string_view& text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
}

// The parameters of an "OAuth" Authorization header (RFC 5849 3.5.1): name="value" pairs
// separated by commas, both percent-encoded. nullopt when the header is not of that form.
std::optional<OAuthParameters> parseAuthorization(std::string_view header) {
  skipSpaces(header);
  if (header.size() < 6 || strncasecmp(header.data(), "OAuth ", 6) != 0) return std::nullopt;
  header.remove_prefix(6);
  OAuthParameters parameters;
  for (;;) {
    skipSpaces(header);
    if (header.empty()) break;
    size_t equals = header.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    auto name = percentDecode(header.substr(0, equals));
    header.remove_prefix(equals + 1);
    if (header.empty() || header.front() != '"') return std::nullopt;
    size_t close = header.find('"', 1);
    if (close == std::string_view::npos) return std::nullopt;
    auto value = percentDecode(header.substr(1, close - 1));
    header.remove_prefix(close + 1);
    if (!name || !value || name->empty()) return std::nullopt;
    parameters.emplace_back(std::move(*name), std::move(*value));
    skipSpaces(header);
    if (header.empty()) break;
    if (header.front() != ',') return std::nullopt;
    header.remove_prefix(1);
  }
  return parameters;
}

bool isFormEncoded(const httplib::Request& request) {
  std::string type = request.get_header_value("Content-Type");
  type = type.substr(0, type.find(';'));
  std::erase(type, ' ');
  return strcasecmp(type.c_str(), "application/x-www-form-urlencoded") == 0;
}

// Empty when `request` is signed by the consumer (with any token and an empty token secret);
// else why not.
std::string checkOAuth(const httplib::Request& request, const std::string& url,
                       const std::string& consumerKey, const std::string& consumerSecret) {
  if (!request.has_header("Authorization")) return "no Authorization header";
  auto header = parseAuthorization(request.get_header_value("Authorization"));
  if (!header) return "the Authorization header is not OAuth parameters";
  OAuthParameters signedParameters;
  std::optional<std::string> signature, key, method, nonce, timestamp;
  for (auto& [name, value] : *header) {
    std::optional<std::string>* slot = nullptr;
    if (name == "oauth_signature") slot = &signature;
    if (name == "oauth_consumer_key") slot = &key;
    if (name == "oauth_signature_method") slot = &method;
    if (name == "oauth_nonce") slot = &nonce;
    if (name == "oauth_timestamp") slot = &timestamp;
    if (slot != nullptr) {
      if (*slot) return "oauth parameter " + name + " given twice";
      *slot = value;
    }
    if (name == "oauth_version" && value != "1.0") return "oauth_version is not 1.0";
    if (name != "oauth_signature" && name != "realm") signedParameters.emplace_back(name, value);
  }
  if (!signature || !key || !method || !nonce || !timestamp) {
    return "oauth_consumer_key, oauth_signature_method, oauth_nonce, oauth_timestamp or "
           "oauth_signature is missing";
  }
  if (*key != consumerKey) return "unknown consumer key";
  if (*method != "HMAC-SHA1") return "signature method is not HMAC-SHA1";
  if (isFormEncoded(request)) {
    OAuthParameters form = parseFormURLEncoded(request.body);
    signedParameters.insert(signedParameters.end(), form.begin(), form.end());
  }
  auto baseString = oauthSignatureBaseString(request.method, url, signedParameters);
  if (!baseString) return "the request URL cannot be signed";
  std::string expected = oauthHMACSHA1Signature(*baseString, consumerSecret, "");
  if (expected.empty() || expected.size() != signature->size() ||
      CRYPTO_memcmp(expected.data(), signature->data(), expected.size()) != 0) {
    return "signature does not match";
  }
  return {};
}

// A gzip stream of `text` (zlib's default level), or empty when zlib fails.
std::string gzip(std::string_view text) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK) {
    return {};
  }
  std::string out(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const bool done = deflate(&stream, Z_FINISH) == Z_STREAM_END;
  out.resize(done ? stream.total_out : 0);
  deflateEnd(&stream);
  return out;
}

// Any mention of gzip counts: the clients of a development server never refuse it with q=0.
bool acceptsGzip(const httplib::Request& request) {
  return request.get_header_value("Accept-Encoding").find("gzip") != std::string::npos;
}

std::string jsonError(const std::string& message) {
  return toJSON(Value(Dictionary{{"error", Value(message)}}));
}

}  // namespace

class CatalogServer::Impl {
 public:
  Impl(std::string consumerKey, std::string consumerSecret, std::unique_ptr<AnswerSigningKey> key)
      : consumerKey_(std::move(consumerKey)),
        consumerSecret_(std::move(consumerSecret)),
        key_(std::move(key)),
        catalog_(exampleCatalog()) {
    answer_ = encode(catalog_);
    // The answer's headers and body go out in separate writes; without this, each answer on a
    // kept-alive connection waits some 40 ms for the client's delayed acknowledgement.
    server_.set_tcp_nodelay(true);
    server_.Post(kCatalogRoute, [this](const httplib::Request& request,
                                       httplib::Response& response) { serve(request, response); });
  }

  ~Impl() { stop(); }

  bool start(int port) { return listener_.start(port); }
  void stop() { listener_.stop(); }
  int port() const { return listener_.port(); }

  void serve(const httplib::Request& request, httplib::Response& response) {
    Request seen;
    seen.method = request.method;
    seen.target = request.target;
    seen.body = request.body;
    std::string host = request.get_header_value("Host");
    if (host.empty()) host = "127.0.0.1:" + std::to_string(port());
    seen.rejection =
        checkOAuth(request, "http://" + host + request.target, consumerKey_, consumerSecret_);
    seen.authorized = seen.rejection.empty();
    if (seen.authorized) {
      std::shared_ptr<const Answer> answer = currentAnswer();
      response.status = 200;
      response.set_header(kSignatureHeader, answer->signature);
      if (!answer->gzipped.empty() && acceptsGzip(request)) {
        // Sent as it is: the HTTP library compresses set content, not a provider's.
        response.set_header("Content-Encoding", "gzip");
        response.set_content_provider(
            answer->gzipped.size(), "application/json",
            [answer](size_t offset, size_t length, httplib::DataSink& sink) {
              return sink.write(answer->gzipped.data() + offset, length);
            });
      } else {
        response.set_content(answer->body, "application/json");
      }
    } else {
      response.status = 401;
      response.set_header("WWW-Authenticate", R"(OAuth realm="zbiap")");
      response.set_content(jsonError(seen.rejection), "application/json");
    }
    seen.status = response.status;
    std::lock_guard lock(mu_);
    ++requestCount_;
    requests_.push_back(std::move(seen));
    if (requests_.size() > kKeptRequests) requests_.pop_front();
  }

  std::string catalog() const {
    std::lock_guard lock(mu_);
    return catalog_;
  }

  // An answer as served: made once per catalogue, since signing and compressing a large
  // catalogue costs more than the client's whole reading of it.
  struct Answer {
    std::string body;
    std::string signature;
    std::string gzipped;
  };
  std::shared_ptr<const Answer> encode(std::string body) const {
    auto answer = std::make_shared<Answer>();
    answer->signature = key_->sign(body);
    answer->gzipped = gzip(body);
    answer->body = std::move(body);
    return answer;
  }
  std::shared_ptr<const Answer> currentAnswer() const {
    std::lock_guard lock(mu_);
    return answer_;
  }

  const std::string consumerKey_;
  const std::string consumerSecret_;
  const std::unique_ptr<AnswerSigningKey> key_;

  mutable std::mutex mu_;  // guards catalog_, answer_, requests_ and requestCount_
  std::string catalog_;
  std::shared_ptr<const Answer> answer_;
  std::deque<Request> requests_;
  size_t requestCount_ = 0;

 private:
  httplib::Server server_;
  LoopbackListener listener_{server_};
};

std::unique_ptr<CatalogServer> CatalogServer::create(std::optional<std::string> consumerKey,
                                                     std::optional<std::string> consumerSecret) {
  if (consumerKey && consumerKey->empty()) return nullptr;
  std::string key = consumerKey ? std::move(*consumerKey) : "dev-" + randomHex(8);
  std::string secret = consumerSecret ? std::move(*consumerSecret) : randomHex(16);
  if (key == "dev-" || (!consumerSecret && secret.empty())) return nullptr;
  auto signingKey = AnswerSigningKey::generate(kKeyBits);
  if (signingKey == nullptr) return nullptr;
  auto impl = std::make_unique<Impl>(std::move(key), std::move(secret), std::move(signingKey));
  return std::unique_ptr<CatalogServer>(new CatalogServer(std::move(impl)));
}

CatalogServer::CatalogServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
CatalogServer::~CatalogServer() = default;

bool CatalogServer::setCatalog(std::string json, std::string* error) {
  std::string reason;
  if (!parseJSON(json, &reason)) {
    if (error != nullptr) *error = "not JSON: " + reason;
    return false;
  }
  std::shared_ptr<const Impl::Answer> answer = impl_->encode(json);
  std::lock_guard lock(impl_->mu_);
  impl_->catalog_ = std::move(json);
  impl_->answer_ = std::move(answer);
  return true;
}

bool CatalogServer::loadCatalogFile(const std::string& path, std::string* error) {
  std::error_code ignored;
  std::ifstream in;
  if (!std::filesystem::is_directory(path, ignored)) in.open(path, std::ios::binary);
  std::string text;
  if (in.is_open()) {
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  if (!in.is_open() || in.bad()) {
    if (error != nullptr) *error = "cannot read " + path;
    return false;
  }
  return setCatalog(std::move(text), error);
}

std::string CatalogServer::catalog() const { return impl_->catalog(); }
bool CatalogServer::start(int port) { return impl_->start(port); }
void CatalogServer::stop() { impl_->stop(); }
int CatalogServer::port() const { return impl_->port(); }
std::string CatalogServer::baseURL() const {
  return "http://127.0.0.1:" + std::to_string(impl_->port());
}
const std::string& CatalogServer::consumerKey() const { return impl_->consumerKey_; }
const std::string& CatalogServer::consumerSecret() const { return impl_->consumerSecret_; }
const std::string& CatalogServer::publicKeyBase64() const { return impl_->key_->publicKeyBase64(); }
std::string CatalogServer::sign(std::string_view body) const { return impl_->key_->sign(body); }

std::vector<CatalogServer::Request> CatalogServer::requests() const {
  std::lock_guard lock(impl_->mu_);
  return {impl_->requests_.begin(), impl_->requests_.end()};
}

size_t CatalogServer::requestCount() const {
  std::lock_guard lock(impl_->mu_);
  return impl_->requestCount_;
}

}  // namespace zbiap
