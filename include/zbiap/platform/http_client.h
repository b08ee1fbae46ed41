// zbiap::HttpClient: the platform's URL loading, one asynchronous HTTP exchange per send().
//
// Every request is ephemeral: a fresh connection and transfer, no cookies, cache, credentials or
// TLS sessions kept between requests. TLS peers are always verified. Bodies encoded with gzip or
// deflate come back decoded. The completion runs exactly once, on the client's network thread
// (never inside send()), with either a response (any HTTP status) or a transport error of
// NSURLErrorDomain, never both. A slow completion delays the other requests of the same client.
// send() may be called from any thread, also from inside a completion.
#ifndef ZBIAP_PLATFORM_HTTP_CLIENT_H_
#define ZBIAP_PLATFORM_HTTP_CLIENT_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"
#include "zbiap/platform/main_queue.h"

namespace zbiap {

// NSURLErrorDomain codes a transport failure carries.
enum NSURLErrorCode : int64_t {
  kNSURLErrorUnknown = -1,
  kNSURLErrorCancelled = -999,
  kNSURLErrorBadURL = -1000,
  kNSURLErrorTimedOut = -1001,
  kNSURLErrorUnsupportedURL = -1002,
  kNSURLErrorCannotFindHost = -1003,
  kNSURLErrorCannotConnectToHost = -1004,
  kNSURLErrorNetworkConnectionLost = -1005,
  kNSURLErrorHTTPTooManyRedirects = -1007,
  kNSURLErrorBadServerResponse = -1011,
  kNSURLErrorCannotDecodeContentData = -1016,
  kNSURLErrorDataLengthExceedsMaximum = -1103,
  kNSURLErrorSecureConnectionFailed = -1200,
  kNSURLErrorServerCertificateUntrusted = -1202,
};
// User-info keys of transport errors besides NSLocalizedDescription.
inline constexpr char kNSErrorFailingURLStringKey[] = "NSErrorFailingURLStringKey";
inline constexpr char kNSDebugDescriptionKey[] = "NSDebugDescription";

// Header fields in the order they were set or received. Names compare case-insensitively.
using HttpHeaderFields = std::vector<std::pair<std::string, std::string>>;

// The value of header `name`, several occurrences joined by ", "; nullopt when absent.
ZBIAP_EXPORT std::optional<std::string> httpHeaderValue(const HttpHeaderFields& fields,
                                                        std::string_view name);

struct ZBIAP_EXPORT HttpRequest {
  std::string method = "GET";
  std::string url;
  HttpHeaderFields headers;
  Data body;
  // How long the exchange may stay idle (nothing sent or received, connecting included) before
  // it fails with kNSURLErrorTimedOut, as NSURLRequest's timeoutInterval.
  Duration timeout = std::chrono::seconds(60);

  // Replaces every field of that name (any case) with one field at the end of the list.
  void setHeader(std::string_view name, std::string_view value);
  // Adds `value` to the field of that name (any case), joined with ", " as HTTP lists values,
  // or appends a new field when there is none.
  void addHeaderValue(std::string_view name, std::string_view value);
  std::optional<std::string> headerValue(std::string_view name) const {
    return httpHeaderValue(headers, name);
  }
  void setBody(std::string_view text) { body.assign(text.begin(), text.end()); }
};

struct ZBIAP_EXPORT HttpResponse {
  int statusCode = 0;
  // The final answer's fields (those of redirects and interim answers are dropped).
  HttpHeaderFields headers;
  // Decoded when the server compressed it.
  Data body;
  // The URL that answered, after redirects.
  std::string url;

  std::optional<std::string> headerValue(std::string_view name) const {
    return httpHeaderValue(headers, name);
  }
  std::string_view bodyText() const {
    return {reinterpret_cast<const char*>(body.data()), body.size()};
  }
};

class ZBIAP_EXPORT HttpClient {
 public:
  // Exactly one of the two is non-null.
  using Completion = std::function<void(std::shared_ptr<const HttpResponse>, ZBIAPErrorPtr)>;

  struct Options {
    // When set, no request waits longer than this whatever its own timeout says (tests use it
    // to let a silent server time out quickly).
    std::optional<Duration> maxTimeout;
    // A body larger than this fails the request with kNSURLErrorDataLengthExceedsMaximum.
    size_t maxResponseBytes = size_t{64} << 20;
    // Redirects followed before kNSURLErrorHTTPTooManyRedirects.
    int maxRedirects = 16;
    // Connections open at once to one host, as Foundation's default; further requests wait for
    // a free one (and that wait counts towards their timeout).
    int maxConnectionsPerHost = 6;
  };

  HttpClient() = default;
  virtual ~HttpClient() = default;
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  virtual void send(HttpRequest request, Completion completion) = 0;

  // A client on libcurl with one network thread that runs every transfer of this client (curl
  // multi) and all its completions. Destroying it fails the requests still running with
  // kNSURLErrorCancelled, on the network thread, before the destructor returns (unless it is
  // destroyed on its own network thread, from a completion).
  static std::shared_ptr<HttpClient> createCurl(Options options);
  static std::shared_ptr<HttpClient> createCurl() { return createCurl(Options()); }

  // The process-wide client: the installed one, else a curl client made on first use and kept
  // for the process's life.
  static std::shared_ptr<HttpClient> shared();
  // Installs `client` as the process-wide one (null restores the default) and returns the
  // previous installed one (null when it was the default).
  static std::shared_ptr<HttpClient> installShared(std::shared_ptr<HttpClient> client);
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_HTTP_CLIENT_H_
