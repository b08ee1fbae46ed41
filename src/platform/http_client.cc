#include "zbiap/platform/http_client.h"

#include <algorithm>
#include <mutex>

namespace zbiap {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

std::mutex& sharedMutex() {
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

// The installed client; null means the default.
std::shared_ptr<HttpClient>& installedClient() {
  static auto* client = new std::shared_ptr<HttpClient>;
  return *client;
}

}  // namespace

std::optional<std::string> httpHeaderValue(const HttpHeaderFields& fields, std::string_view name) {
  std::optional<std::string> value;
  for (const auto& [key, field] : fields) {
    if (!equalsIgnoringCase(key, name)) continue;
    if (value) {
      value->append(", ");
      value->append(field);
    } else {
      value = field;
    }
  }
  return value;
}

void HttpRequest::setHeader(std::string_view name, std::string_view value) {
  std::erase_if(headers, [&](const auto& field) { return equalsIgnoringCase(field.first, name); });
  headers.emplace_back(std::string(name), std::string(value));
}

void HttpRequest::addHeaderValue(std::string_view name, std::string_view value) {
  for (auto& field : headers) {
    if (!equalsIgnoringCase(field.first, name)) continue;
    field.second += ", ";
    field.second += value;
    return;
  }
  headers.emplace_back(std::string(name), std::string(value));
}

std::shared_ptr<HttpClient> HttpClient::shared() {
  std::lock_guard lock(sharedMutex());
  if (installedClient()) return installedClient();
  // Made once and never destroyed: its network thread may still be finishing a request while
  // the process exits.
  static auto* fallback = new std::shared_ptr<HttpClient>(createCurl());
  return *fallback;
}

std::shared_ptr<HttpClient> HttpClient::installShared(std::shared_ptr<HttpClient> client) {
  std::lock_guard lock(sharedMutex());
  std::swap(installedClient(), client);
  return client;
}

}  // namespace zbiap
