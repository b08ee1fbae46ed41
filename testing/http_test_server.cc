#include "testing/http_test_server.h"

namespace zbiap::testing {

HttpTestServer::HttpTestServer() = default;

HttpTestServer::~HttpTestServer() { stop(); }

bool HttpTestServer::start(int port) {
  if (!listener_.start(port)) return false;
  port_ = listener_.port();
  return true;
}

void HttpTestServer::stop() {
  release();
  listener_.stop();
}

std::string HttpTestServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

void HttpTestServer::holdUntilReleased() {
  std::unique_lock lock(mutex_);
  ++held_;
  released_.wait(lock, [this] { return releasing_; });
  --held_;
}

void HttpTestServer::release() {
  std::lock_guard lock(mutex_);
  releasing_ = true;
  released_.notify_all();
}

int HttpTestServer::heldCount() {
  std::lock_guard lock(mutex_);
  return held_;
}

}  // namespace zbiap::testing
