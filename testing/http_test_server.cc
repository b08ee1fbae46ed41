#include "testing/http_test_server.h"

namespace zbiap::testing {

HttpTestServer::HttpTestServer() = default;

HttpTestServer::~HttpTestServer() { stop(); }

bool HttpTestServer::start(int port) {
  if (port_ > 0) return true;
  if (port == 0) {
    port_ = server_.bind_to_any_port("127.0.0.1");
  } else if (server_.bind_to_port("127.0.0.1", port)) {
    port_ = port;
  }
  if (port_ <= 0) return false;
  thread_ = std::thread([this] {
    server_.listen_after_bind();
    listenReturned_ = true;
  });
  return true;
}

void HttpTestServer::stop() {
  release();
  if (thread_.joinable()) {
    // stop() is a no-op until the accept loop runs, so wait for it to be up (or to have failed).
    while (!server_.is_running() && !listenReturned_) std::this_thread::yield();
    server_.stop();
    thread_.join();
  }
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
