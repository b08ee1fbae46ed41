// zbiap::LoopbackListener: runs one cpp-httplib server on 127.0.0.1 on a thread of its own, for
// the development servers and the tests' servers: bind, serve, stop, and start again.
//
// Contracts: start() and stop() may be called from any thread, one at a time; the server's
// handlers are registered by the owner before start(). The listener does not own the server.
#ifndef ZBIAP_DEVSERVER_LOOPBACK_LISTENER_H_
#define ZBIAP_DEVSERVER_LOOPBACK_LISTENER_H_

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace zbiap {

class LoopbackListener {
 public:
  explicit LoopbackListener(httplib::Server& server) : server_(server) {}
  ~LoopbackListener() { stop(); }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  // Binds `port` (0: one the kernel picks) and serves; false when binding failed. The accept
  // loop runs when it returns, so connections are served at once and stop() is never lost.
  // Serving already: true, whatever `port`.
  bool start(int port = 0) {
    std::unique_lock lock(mutex_);
    if (thread_.joinable()) return true;
    port_ = port == 0 ? server_.bind_to_any_port("127.0.0.1")
                      : (server_.bind_to_port("127.0.0.1", port) ? port : -1);
    if (port_ <= 0) {
      port_ = -1;
      return false;
    }
    returned_ = false;
    thread_ = std::thread([this] {
      server_.listen_after_bind();
      std::lock_guard done(mutex_);
      returned_ = true;
      changed_.notify_all();
    });
    // cpp-httplib says it is running only from inside its accept loop and tells nobody; the
    // wait looks again each millisecond and ends with the loop's start (or its failure).
    while (!server_.is_running() && !returned_) {
      changed_.wait_for(lock, std::chrono::milliseconds(1));
    }
    return true;
  }

  // Stops serving and waits for the server's thread; start() may follow.
  void stop() {
    std::thread thread;
    {
      std::lock_guard lock(mutex_);
      if (!thread_.joinable()) return;
      server_.stop();
      thread = std::move(thread_);
      port_ = -1;
    }
    thread.join();
  }

  // The bound port; -1 while stopped.
  int port() const {
    std::lock_guard lock(mutex_);
    return port_;
  }

 private:
  httplib::Server& server_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
  bool returned_ = false;
  int port_ = -1;
};

}  // namespace zbiap

#endif  // ZBIAP_DEVSERVER_LOOPBACK_LISTENER_H_
