// The libcurl client: one network thread per client drives a curl multi handle; every request
// gets its own easy handle, a fresh connection that is not reused, and no cookie engine.
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "zbiap/platform/http_client.h"

namespace zbiap {

namespace {

using Clock = std::chrono::steady_clock;
constexpr Duration kDefaultTimeout = std::chrono::seconds(60);
// The longest the network thread sleeps without looking at idle deadlines.
constexpr auto kMaxPollWait = std::chrono::milliseconds(1000);

const char* descriptionForCode(int64_t code) {
  switch (code) {
    case kNSURLErrorCancelled:
      return "cancelled";
    case kNSURLErrorBadURL:
      return "bad URL";
    case kNSURLErrorTimedOut:
      return "The request timed out.";
    case kNSURLErrorUnsupportedURL:
      return "unsupported URL";
    case kNSURLErrorCannotFindHost:
      return "A server with the specified hostname could not be found.";
    case kNSURLErrorCannotConnectToHost:
      return "Could not connect to the server.";
    case kNSURLErrorNetworkConnectionLost:
      return "The network connection was lost.";
    case kNSURLErrorHTTPTooManyRedirects:
      return "too many HTTP redirects";
    case kNSURLErrorBadServerResponse:
      return "bad server response";
    case kNSURLErrorCannotDecodeContentData:
      return "cannot decode content data";
    case kNSURLErrorDataLengthExceedsMaximum:
      return "resource exceeds maximum size";
    case kNSURLErrorSecureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case kNSURLErrorServerCertificateUntrusted:
      return "The certificate for this server is invalid.";
    default:
      return "unknown error";
  }
}

int64_t codeForCurlResult(CURLcode result) {
  switch (result) {
    case CURLE_UNSUPPORTED_PROTOCOL:
      return kNSURLErrorUnsupportedURL;
    case CURLE_URL_MALFORMAT:
      return kNSURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      return kNSURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return kNSURLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return kNSURLErrorTimedOut;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return kNSURLErrorNetworkConnectionLost;
    case CURLE_WEIRD_SERVER_REPLY:
      return kNSURLErrorBadServerResponse;
    case CURLE_TOO_MANY_REDIRECTS:
      return kNSURLErrorHTTPTooManyRedirects;
    case CURLE_BAD_CONTENT_ENCODING:
      return kNSURLErrorCannotDecodeContentData;
    case CURLE_FILESIZE_EXCEEDED:
      return kNSURLErrorDataLengthExceedsMaximum;
    case CURLE_PEER_FAILED_VERIFICATION:
      return kNSURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return kNSURLErrorSecureConnectionFailed;
    case CURLE_ABORTED_BY_CALLBACK:
      return kNSURLErrorCancelled;
    default:
      return kNSURLErrorUnknown;
  }
}

ZBIAPErrorPtr transportError(int64_t code, const std::string& url, std::string_view detail) {
  Dictionary info{{kNSLocalizedDescriptionKey, Value(descriptionForCode(code))},
                  {kNSErrorFailingURLStringKey, Value(url)}};
  if (!detail.empty()) info.set(kNSDebugDescriptionKey, Value(detail));
  return ZBIAPError::make(kNSURLErrorDomain, code, std::move(info));
}

bool isToken(std::string_view text) {
  if (text.empty()) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}

bool isFieldValue(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                           text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

// One request in flight. Touched only by the network thread once it is handed over.
struct Transfer {
  HttpRequest request;
  HttpClient::Completion completion;
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  std::string acceptEncoding;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  HttpResponse response;
  Duration idleTimeout{};
  size_t maxBytes = 0;
  bool tooLarge = false;
  Clock::time_point lastActivity;
  curl_off_t lastUploaded = 0;
  curl_off_t lastDownloaded = 0;

  Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    curl_slist_free_all(headerList);
  }

  Clock::time_point deadline() const { return lastActivity + idleTimeout; }

  static size_t onHeader(char* data, size_t size, size_t count, void* self) {
    auto* transfer = static_cast<Transfer*>(self);
    size_t length = size * count;
    transfer->lastActivity = Clock::now();
    std::string_view line(data, length);
    auto& fields = transfer->response.headers;
    if (line.starts_with("HTTP/")) {
      fields.clear();  // a new answer: an interim one or a redirect came before
    } else if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
      if (!fields.empty()) {
        fields.back().second.push_back(' ');
        fields.back().second.append(trim(line));
      }
    } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
      fields.emplace_back(std::string(trim(line.substr(0, colon))),
                          std::string(trim(line.substr(colon + 1))));
    }
    return length;
  }

  static size_t onBody(char* data, size_t size, size_t count, void* self) {
    auto* transfer = static_cast<Transfer*>(self);
    size_t length = size * count;
    transfer->lastActivity = Clock::now();
    auto& body = transfer->response.body;
    if (body.size() + length > transfer->maxBytes) {
      transfer->tooLarge = true;
      return 0;  // curl fails the transfer with CURLE_WRITE_ERROR
    }
    if (body.empty()) transfer->reserveBody();
    const auto* bytes = reinterpret_cast<const uint8_t*>(data);
    body.insert(body.end(), bytes, bytes + length);  // one copy of the piece, not a byte loop
    return length;
  }

  // Room for the whole body as announced, so that a large answer is not copied as it grows. An
  // encoded answer announces its encoded size; the growth from there is the vector's own.
  void reserveBody() {
    curl_off_t announced = -1;
    if (curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) == CURLE_OK &&
        announced > 0 && static_cast<size_t>(announced) <= maxBytes) {
      response.body.reserve(static_cast<size_t>(announced));
    }
  }

  static int onProgress(void* self, curl_off_t, curl_off_t downloaded, curl_off_t,
                        curl_off_t uploaded) {
    auto* transfer = static_cast<Transfer*>(self);
    if (downloaded != transfer->lastDownloaded || uploaded != transfer->lastUploaded) {
      transfer->lastDownloaded = downloaded;
      transfer->lastUploaded = uploaded;
      transfer->lastActivity = Clock::now();
    }
    return 0;
  }

  // Builds the easy handle; an error when the request cannot be sent at all.
  ZBIAPErrorPtr prepare(const HttpClient::Options& options) {
    const std::string& url = request.url;
    std::string method = request.method.empty() ? "GET" : request.method;
    if (!isToken(method)) return transportError(kNSURLErrorUnknown, url, "invalid HTTP method");
    for (const auto& [name, value] : request.headers) {
      if (!isToken(name) || !isFieldValue(value)) {
        return transportError(kNSURLErrorUnknown, url, "invalid header field: " + name);
      }
    }
    easy = curl_easy_init();
    if (!easy) return transportError(kNSURLErrorUnknown, url, "curl_easy_init failed");

    idleTimeout = request.timeout > Duration::zero() ? request.timeout : kDefaultTimeout;
    if (options.maxTimeout) idleTimeout = std::min(idleTimeout, *options.maxTimeout);
    maxBytes = options.maxResponseBytes;
    lastActivity = Clock::now();

    bool expectGiven = false;
    acceptEncoding = "gzip, deflate";
    for (const auto& [name, value] : request.headers) {
      if (curl_strequal(name.c_str(), "Accept-Encoding")) {
        acceptEncoding = value;  // curl sends it and decodes what it can
        continue;
      }
      if (curl_strequal(name.c_str(), "Expect")) expectGiven = true;
      // "Name;" is curl's way of sending a field with an empty value.
      std::string line = value.empty() ? name + ";" : name + ": " + value;
      headerList = curl_slist_append(headerList, line.c_str());
    }
    if (!expectGiven) headerList = curl_slist_append(headerList, "Expect:");

    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, static_cast<long>(options.maxRedirects));
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, acceptEncoding.c_str());
    curl_easy_setopt(
        easy, CURLOPT_CONNECTTIMEOUT_MS,
        static_cast<long>(std::chrono::ceil<std::chrono::milliseconds>(idleTimeout).count()));
    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxBytes));
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Transfer::onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, this);

    if (method == "GET") {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
      curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
      if (method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
      } else {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
      }
      if (method == "POST" || !request.body.empty()) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
      }
    }
    return nullptr;
  }

  // The outcome of a finished transfer.
  std::pair<std::shared_ptr<const HttpResponse>, ZBIAPErrorPtr> outcome(CURLcode result) {
    if (result != CURLE_OK) {
      int64_t code = tooLarge ? kNSURLErrorDataLengthExceedsMaximum : codeForCurlResult(result);
      std::string detail = errorBuffer[0] ? errorBuffer : curl_easy_strerror(result);
      return {nullptr, transportError(code, request.url, detail)};
    }
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    char* effective = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effective);
    auto answer = std::make_shared<HttpResponse>(std::move(response));
    answer->statusCode = static_cast<int>(status);
    answer->url = effective ? effective : request.url;
    return {std::move(answer), nullptr};
  }
};

// What the client and its network thread share; it outlives whichever goes last.
struct NetworkState {
  explicit NetworkState(HttpClient::Options opts) : options(std::move(opts)) {
    multi = curl_multi_init();
    if (!multi) throw std::bad_alloc();  // curl fails here only when memory is exhausted
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS,
                      static_cast<long>(std::max(options.maxConnectionsPerHost, 1)));
  }
  ~NetworkState() {
    if (multi) curl_multi_cleanup(multi);
  }
  NetworkState(const NetworkState&) = delete;
  NetworkState& operator=(const NetworkState&) = delete;

  const HttpClient::Options options;
  CURLM* multi = nullptr;
  std::mutex mutex;
  std::vector<std::unique_ptr<Transfer>> incoming;  // guarded by mutex
  bool stopping = false;                            // guarded by mutex
};

class CurlHttpClient final : public HttpClient {
 public:
  explicit CurlHttpClient(Options options)
      : state_(std::make_shared<NetworkState>(std::move(options))) {
    thread_ = std::thread([state = state_] { run(*state); });
  }

  ~CurlHttpClient() override {
    {
      std::lock_guard lock(state_->mutex);
      state_->stopping = true;
    }
    curl_multi_wakeup(state_->multi);
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();  // destroyed from a completion: the thread finishes on its own
    } else {
      thread_.join();
    }
  }

  void send(HttpRequest request, Completion completion) override {
    auto transfer = std::make_unique<Transfer>();
    transfer->request = std::move(request);
    transfer->completion = std::move(completion);
    {
      std::lock_guard lock(state_->mutex);
      state_->incoming.push_back(std::move(transfer));
    }
    curl_multi_wakeup(state_->multi);
  }

 private:
  static void finish(std::unique_ptr<Transfer> transfer, std::shared_ptr<const HttpResponse> answer,
                     ZBIAPErrorPtr error) {
    auto completion = std::move(transfer->completion);
    transfer.reset();  // the handle goes before anybody hears of the result
    if (completion) completion(std::move(answer), std::move(error));
  }

  static void run(NetworkState& state) {
    std::map<CURL*, std::unique_ptr<Transfer>> active;
    for (;;) {
      std::vector<std::unique_ptr<Transfer>> arrived;
      bool stopping;
      {
        std::lock_guard lock(state.mutex);
        arrived.swap(state.incoming);
        stopping = state.stopping;
      }
      if (stopping) {
        cancelAll(state, active);
        for (auto& transfer : arrived) {
          auto error =
              transportError(kNSURLErrorCancelled, transfer->request.url, "client destroyed");
          finish(std::move(transfer), nullptr, std::move(error));
        }
        return;
      }
      for (auto& transfer : arrived) {
        if (auto error = transfer->prepare(state.options)) {
          finish(std::move(transfer), nullptr, std::move(error));
          continue;
        }
        CURL* easy = transfer->easy;
        if (curl_multi_add_handle(state.multi, easy) != CURLM_OK) {
          auto failure = transportError(kNSURLErrorUnknown, transfer->request.url,
                                        "curl_multi_add_handle failed");
          finish(std::move(transfer), nullptr, std::move(failure));
          continue;
        }
        active.emplace(easy, std::move(transfer));
      }

      int running = 0;
      curl_multi_perform(state.multi, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(state.multi, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        auto found = active.find(message->easy_handle);
        if (found == active.end()) continue;
        CURLcode result = message->data.result;
        auto transfer = std::move(found->second);
        active.erase(found);
        curl_multi_remove_handle(state.multi, transfer->easy);
        auto [answer, error] = transfer->outcome(result);
        finish(std::move(transfer), std::move(answer), std::move(error));
      }

      // Idle time-outs, and how long to sleep until the next one.
      auto now = Clock::now();
      auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(kMaxPollWait);
      for (auto it = active.begin(); it != active.end();) {
        Transfer& transfer = *it->second;
        if (transfer.deadline() <= now) {
          auto owned = std::move(it->second);
          it = active.erase(it);
          curl_multi_remove_handle(state.multi, owned->easy);
          auto error = transportError(kNSURLErrorTimedOut, owned->request.url, "idle time-out");
          finish(std::move(owned), nullptr, std::move(error));
          continue;
        }
        wait =
            std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(transfer.deadline() - now));
        ++it;
      }
      long curlWait = -1;
      curl_multi_timeout(state.multi, &curlWait);
      if (curlWait >= 0) wait = std::min(wait, std::chrono::milliseconds(curlWait));
      curl_multi_poll(state.multi, nullptr, 0, static_cast<int>(wait.count()), nullptr);
    }
  }

  static void cancelAll(NetworkState& state, std::map<CURL*, std::unique_ptr<Transfer>>& active) {
    for (auto& [easy, transfer] : active) {
      curl_multi_remove_handle(state.multi, transfer->easy);
      auto error = transportError(kNSURLErrorCancelled, transfer->request.url, "client destroyed");
      finish(std::move(transfer), nullptr, std::move(error));
    }
    active.clear();
  }

  std::shared_ptr<NetworkState> state_;
  std::thread thread_;
};

void initializeCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

std::shared_ptr<HttpClient> HttpClient::createCurl(Options options) {
  initializeCurlOnce();
  return std::make_shared<CurlHttpClient>(std::move(options));
}

}  // namespace zbiap
