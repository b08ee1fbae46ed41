// zbiap::FileWatch: one watch on one file, the stand-in for a file-node event source. It follows
// the file (the inode), not the path: a renamed file keeps being watched under its new name, and
// a deleted one reports kFileEventDelete and then nothing more. A symbolic link is followed to
// the file it names. A file that the path no longer names after a batch of events (unlinked or
// replaced while another link or an open descriptor keeps it alive) reports kFileEventDelete
// too; a rename stays a rename.
//
// Events are read by one process-wide watcher thread, which stands for the high-priority global
// queue: the event handler and the cancel handler run there, one at a time, never concurrently
// with each other. Setting handlers and resume() belong to the creator before the watch is shared;
// cancel() may be called from any thread, the watcher thread included, and is asynchronous: no
// event handler starts after cancel() returns, and the cancel handler runs afterwards on the
// watcher thread, once the descriptor is closed. A watch that is dropped without cancel() is
// cancelled by its destructor.
#ifndef ZBIAP_PLATFORM_FILE_WATCHER_H_
#define ZBIAP_PLATFORM_FILE_WATCHER_H_

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "zbiap/export.h"

namespace zbiap {

// Event bits, with the values of the file-node event source's mask.
enum FileEvent : uint32_t {
  kFileEventDelete = 0x01,
  kFileEventWrite = 0x02,
  kFileEventExtend = 0x04,
  kFileEventAttrib = 0x08,
  kFileEventLink = 0x10,
  kFileEventRename = 0x20,
  kFileEventRevoke = 0x40,
  kFileEventAll = 0x7F,
};

// The error number for "no such file or directory" (2 on every platform the library targets).
inline constexpr int kFileErrorNoSuchFile = 2;

class ZBIAP_EXPORT FileWatch {
 public:
  // Called with the event bits of one delivered batch.
  using EventHandler = std::function<void(uint32_t events)>;
  using CancelHandler = std::function<void()>;

  // Opens `path` for events only. On failure returns null and sets `*errorNumber` to the
  // system's error number (kFileErrorNoSuchFile for a missing file).
  static std::shared_ptr<FileWatch> open(const std::filesystem::path& path, int* errorNumber);

  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  void setEventHandler(EventHandler handler);
  void setCancelHandler(CancelHandler handler);
  // Starts delivering events. Events that happened between open() and resume() are delivered.
  void resume();
  // Stops delivering; see the header comment. Idempotent.
  void cancel();
  bool isCancelled() const;

  // Blocks until the watcher thread has handled every file event the system had queued at the
  // time of the call (the handlers of those events have returned), and every cancellation asked
  // for before it. Must not be called from the watcher thread. For tests and orderly shutdown.
  static void waitUntilIdle();

  struct State;

 private:
  explicit FileWatch(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

// The system's text for an error number ("Permission denied").
ZBIAP_EXPORT std::string systemErrorText(int errorNumber);

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_FILE_WATCHER_H_
