#include "input.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zbiap::cli {
namespace {

// Closes the descriptor it was given, whichever way the read ends.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  const int fd_;
};

// Fills `bytes` from `fd`; false with errno set on a read error.
bool readFully(int fd, std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = read(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;  // shorter than its size said
    done += static_cast<size_t>(n);
  }
  bytes.resize(done);
  return true;
}

enum class Rest { kEnd, kTooLarge, kError };

// Appends what `fd` holds until its end, in chunks: pipes, standard input, and files that hold
// more than their size says (those of /proc, or one that grows while it is read).
Rest readRest(int fd, std::string& bytes) {
  char chunk[64 * 1024];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Rest::kError;
    if (n == 0) return Rest::kEnd;
    if (bytes.size() + static_cast<size_t>(n) > kMaxInputBytes) return Rest::kTooLarge;
    bytes.append(chunk, static_cast<size_t>(n));
  }
}

const char* notAFile(mode_t mode) {
  if (S_ISDIR(mode)) return "is a directory";
  if (S_ISREG(mode) || S_ISFIFO(mode)) return nullptr;
  return "is not a file but a device or socket";
}

}  // namespace

std::optional<std::string> readInput(const std::string& name, std::string* error) {
  const bool standardInput = name == "-";
  const std::string shown = standardInput ? "standard input" : "'" + name + "'";
  auto fail = [&](const std::string& what) -> std::optional<std::string> {
    if (error != nullptr) *error = shown + " " + what;
    return std::nullopt;
  };
  auto failErrno = [&](const char* doing) {
    return fail(std::string(doing) + ": " + std::strerror(errno));
  };

  // The kind of file is known before it is opened: opening a FIFO would wait for a writer.
  struct stat status;
  if (!standardInput) {
    if (stat(name.c_str(), &status) != 0) return failErrno("cannot be read");
    if (const char* reason = notAFile(status.st_mode)) return fail(reason);
  }
  const int fd =
      standardInput ? dup(STDIN_FILENO) : open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return failErrno("cannot be read");
  Descriptor descriptor(fd);
  if (fstat(fd, &status) != 0) return failErrno("cannot be read");
  if (!standardInput) {
    // Standard input may be a terminal; a named file must still be what it was.
    if (const char* reason = notAFile(status.st_mode)) return fail(reason);
    // Reads wait for data again; a FIFO without a writer reads as empty.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  }

  const std::string limit = "the limit of " + std::to_string(kMaxInputBytes >> 20) + " MiB";
  std::string bytes;
  if (S_ISREG(status.st_mode)) {
    if (static_cast<uint64_t>(status.st_size) > kMaxInputBytes) {
      return fail("is larger than " + limit);
    }
    bytes.resize(static_cast<size_t>(status.st_size));
    if (!readFully(fd, bytes)) return failErrno("cannot be read");
  }
  switch (readRest(fd, bytes)) {
    case Rest::kEnd:
      break;
    case Rest::kTooLarge:
      return fail("is larger than " + limit);
    case Rest::kError:
      return failErrno("cannot be read");
  }
  if (bytes.empty()) return fail("is empty");
  return bytes;
}

std::optional<std::string> readInput(const char* command, const std::string& name) {
  std::string error;
  std::optional<std::string> bytes = readInput(name, &error);
  if (!bytes) std::fprintf(stderr, "%s: %s\n", command, error.c_str());
  return bytes;
}

}  // namespace zbiap::cli
