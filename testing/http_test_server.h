// zbiap::testing::HttpTestServer: a cpp-httplib server on 127.0.0.1 at a port the kernel picks,
// for tests that need a real HTTP peer.
//
// Register handlers on server() before start(). Handlers run on the server's own threads, so
// what they record must be guarded. A handler may park in holdUntilReleased() to play a server
// that accepted the request but never answers; the destructor releases every parked handler
// before it stops the server.
#ifndef ZBIAP_TESTING_HTTP_TEST_SERVER_H_
#define ZBIAP_TESTING_HTTP_TEST_SERVER_H_

#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "devserver/loopback_listener.h"

namespace zbiap::testing {

class HttpTestServer {
 public:
  HttpTestServer();
  ~HttpTestServer();
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  httplib::Server& server() { return server_; }

  // Binds a loopback port (`port`, or a free one when 0) and serves on a background thread; false
  // when binding failed. The port accepts connections as soon as this returns. A test plays a
  // server that went down and came back with a second server started on the first one's port.
  bool start(int port = 0);
  void stop();

  int port() const { return port_; }
  // "http://127.0.0.1:<port>" followed by `path`.
  std::string url(std::string_view path = "") const;

  // Blocks the calling handler until release() or the server's destruction.
  void holdUntilReleased();
  void release();
  // How many handlers are parked in holdUntilReleased() now.
  int heldCount();

 private:
  httplib::Server server_;
  LoopbackListener listener_{server_};
  // The last port bound: kept after stop(), so a test can start another server on it.
  int port_ = -1;
  std::mutex mutex_;
  std::condition_variable released_;
  bool releasing_ = false;
  int held_ = 0;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTING_HTTP_TEST_SERVER_H_
