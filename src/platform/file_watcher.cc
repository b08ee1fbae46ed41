// File watches on inotify: one inotify descriptor per watch (so that two watches of one file
// never share a watch descriptor), all read by one watcher thread through epoll.
#include "zbiap/platform/file_watcher.h"

#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace zbiap {

struct FileWatch::State {
  uint64_t id = 0;
  int fd = -1;
  // The watched path and the file it named when the watch began.
  std::filesystem::path path;
  dev_t device = 0;
  ino_t inode = 0;
  std::mutex mu;
  EventHandler eventHandler;
  CancelHandler cancelHandler;
  std::atomic<bool> cancelled{false};
  bool resumed = false;
};

namespace {

// A symbolic link is followed: the file it names is watched, as opening the path would do.
constexpr uint32_t kInotifyMask = IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;

// Whether `path` still names the file the watch began on. A file unlinked or replaced while
// another link or an open descriptor keeps it alive reports no deletion, only a change of its
// link count; the path then names another file or none.
bool pathNamesWatchedFile(const FileWatch::State& state) {
  struct stat now;
  if (stat(state.path.c_str(), &now) != 0) return false;
  return now.st_dev == state.device && now.st_ino == state.inode;
}

uint32_t eventBits(uint32_t mask) {
  uint32_t bits = 0;
  if (mask & IN_MODIFY) bits |= kFileEventWrite;
  if (mask & IN_ATTRIB) bits |= kFileEventAttrib;
  if (mask & IN_MOVE_SELF) bits |= kFileEventRename;
  // IN_IGNORED: the watch is gone (the file was deleted, or its file system went away); either
  // way the file under this descriptor will report nothing more.
  if (mask & (IN_DELETE_SELF | IN_IGNORED)) bits |= kFileEventDelete;
  if (mask & IN_UNMOUNT) bits |= kFileEventRevoke;
  return bits;
}

// The watcher thread and its registry. Created on first use and kept for the life of the
// process (the thread is detached; the object is never destroyed, so no watch outlives it).
class Watcher {
 public:
  static Watcher& instance() {
    static Watcher* watcher = new Watcher();
    return *watcher;
  }

  uint64_t nextId() { return nextId_.fetch_add(1) + 1; }

  void resume(const std::shared_ptr<FileWatch::State>& state) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (state->cancelled.load() || state->resumed) return;
      state->resumed = true;
      watches_[state->id] = state;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = state->id;
    epoll_ctl(epollFd_, EPOLL_CTL_ADD, state->fd, &event);
  }

  void cancel(const std::shared_ptr<FileWatch::State>& state) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      cancelled_.push_back(state);
    }
    wake();
  }

  void waitUntilIdle() {
    std::unique_lock<std::mutex> lock(mu_);
    const uint64_t ticket = ++barrierRequested_;
    lock.unlock();
    wake();
    lock.lock();
    barrierDone_.wait(lock, [&] { return barrierCompleted_ >= ticket; });
  }

 private:
  Watcher() {
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = 0;  // ids of watches start at 1
    epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &event);
    std::thread([this] { run(); }).detach();
  }

  void wake() {
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wakeFd_, &one, sizeof one);
  }

  void run() {
    std::vector<epoll_event> events(64);
    for (;;) {
      int n = epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), -1);
      if (n < 0) {
        if (errno == EINTR) continue;
        return;  // the epoll descriptor is unusable; nothing more can be watched
      }
      handleReady(events, n);
      processCancellations();
      uint64_t ticket;
      {
        std::lock_guard<std::mutex> lock(mu_);
        ticket = barrierRequested_;
      }
      if (ticket > barrierCompletedLocal_) {
        // Everything the system queued before the barrier was asked for is ready now: handle
        // it without waiting, then release the waiters.
        for (int round = 0; round < 64; ++round) {
          int ready = epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), 0);
          if (ready <= 0) break;
          handleReady(events, ready);
          processCancellations();
        }
        barrierCompletedLocal_ = ticket;
        std::lock_guard<std::mutex> lock(mu_);
        barrierCompleted_ = ticket;
        barrierDone_.notify_all();
      }
    }
  }

  void handleReady(const std::vector<epoll_event>& events, int count) {
    for (int i = 0; i < count; ++i) {
      const uint64_t id = events[i].data.u64;
      if (id == 0) {
        uint64_t value;
        [[maybe_unused]] ssize_t n = read(wakeFd_, &value, sizeof value);
        continue;
      }
      std::shared_ptr<FileWatch::State> state;
      {
        std::lock_guard<std::mutex> lock(mu_);
        auto it = watches_.find(id);
        if (it != watches_.end()) state = it->second;
      }
      if (state) deliver(*state);
    }
  }

  void deliver(FileWatch::State& state) {
    alignas(inotify_event) char buffer[4096];
    uint32_t bits = 0;
    for (;;) {
      ssize_t length = read(state.fd, buffer, sizeof buffer);
      if (length <= 0) break;
      for (ssize_t offset = 0; offset < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
        bits |= eventBits(event->mask);
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    if (bits == 0 || state.cancelled.load()) return;
    // A rename stays a rename: the watch follows the file to its new name.
    if ((bits & (kFileEventDelete | kFileEventRename)) == 0 && !pathNamesWatchedFile(state)) {
      bits |= kFileEventDelete;
    }
    FileWatch::EventHandler handler;
    {
      std::lock_guard<std::mutex> lock(state.mu);
      handler = state.eventHandler;
    }
    if (handler) handler(bits);
  }

  void processCancellations() {
    for (;;) {
      std::shared_ptr<FileWatch::State> state;
      {
        std::lock_guard<std::mutex> lock(mu_);
        if (cancelled_.empty()) return;
        state = std::move(cancelled_.front());
        cancelled_.pop_front();
        watches_.erase(state->id);
      }
      if (state->resumed) epoll_ctl(epollFd_, EPOLL_CTL_DEL, state->fd, nullptr);
      close(state->fd);
      state->fd = -1;
      FileWatch::CancelHandler handler;
      {
        std::lock_guard<std::mutex> lock(state->mu);
        handler = std::move(state->cancelHandler);
        state->eventHandler = nullptr;
      }
      if (handler) handler();
    }
  }

  int epollFd_ = -1;
  int wakeFd_ = -1;
  std::atomic<uint64_t> nextId_{0};
  std::mutex mu_;
  std::map<uint64_t, std::shared_ptr<FileWatch::State>> watches_;
  std::deque<std::shared_ptr<FileWatch::State>> cancelled_;
  std::condition_variable barrierDone_;
  uint64_t barrierRequested_ = 0;
  uint64_t barrierCompleted_ = 0;
  uint64_t barrierCompletedLocal_ = 0;  // the watcher thread's own copy
};

}  // namespace

std::shared_ptr<FileWatch> FileWatch::open(const std::filesystem::path& path, int* errorNumber) {
  int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    if (errorNumber) *errorNumber = errno;
    return nullptr;
  }
  if (inotify_add_watch(fd, path.c_str(), kInotifyMask) < 0) {
    int error = errno;
    close(fd);
    if (errorNumber) *errorNumber = error;
    return nullptr;
  }
  struct stat watched;
  if (stat(path.c_str(), &watched) != 0) {
    int error = errno;
    close(fd);
    if (errorNumber) *errorNumber = error;
    return nullptr;
  }
  auto state = std::make_shared<State>();
  state->fd = fd;
  state->path = path;
  state->device = watched.st_dev;
  state->inode = watched.st_ino;
  state->id = Watcher::instance().nextId();
  return std::shared_ptr<FileWatch>(new FileWatch(std::move(state)));
}

FileWatch::FileWatch(std::shared_ptr<State> state) : state_(std::move(state)) {}

FileWatch::~FileWatch() { cancel(); }

void FileWatch::setEventHandler(EventHandler handler) {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->eventHandler = std::move(handler);
}

void FileWatch::setCancelHandler(CancelHandler handler) {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->cancelHandler = std::move(handler);
}

void FileWatch::resume() { Watcher::instance().resume(state_); }

void FileWatch::cancel() {
  if (state_->cancelled.exchange(true)) return;
  Watcher::instance().cancel(state_);
}

bool FileWatch::isCancelled() const { return state_->cancelled.load(); }

void FileWatch::waitUntilIdle() { Watcher::instance().waitUntilIdle(); }

std::string systemErrorText(int errorNumber) {
  char buffer[256];
  // The GNU strerror_r returns the text, which may or may not be in `buffer`.
  const char* text = strerror_r(errorNumber, buffer, sizeof buffer);
  return text ? std::string(text) : std::string();
}

}  // namespace zbiap
