#include "zbiap/store/file_monitor.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "testing/test_platform.h"
#include "zbiap/platform/file_watcher.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using zbiap::testing::TestPlatform;

class RecordingDelegate final : public ZBIAPFileMonitorDelegate {
 public:
  void fileHasChanged(const fs::path& fileURL) override {
    urls.push_back(fileURL);
    if (!zbiap::Platform::current().mainQueue().isMainThread()) offMainThread = true;
  }
  std::vector<fs::path> urls;
  bool offMainThread = false;
};

void writeFile(const fs::path& path, const std::string& text, bool append = false) {
  std::ofstream out(path, append ? std::ios::binary | std::ios::app : std::ios::binary);
  out << text;
}

class FileMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = platform_.makeTempDir("monitor");
    file_ = dir_ / "receipt";
    delegate_ = std::make_shared<RecordingDelegate>();
  }

  // Lets the watcher thread handle what the system has queued, then runs the main queue.
  void settle() {
    zbiap::FileWatch::waitUntilIdle();
    platform_.runUntilIdle();
  }

  // Writes the file next to its place and renames it over, as an atomic save does.
  void replaceAtomically(const std::string& text) {
    writeFile(dir_ / "receipt.tmp", text);
    fs::rename(dir_ / "receipt.tmp", file_);
  }

  TestPlatform platform_;
  fs::path dir_;
  fs::path file_;
  std::shared_ptr<RecordingDelegate> delegate_;
};

TEST_F(FileMonitorTest, RefusesMissingArguments) {
  EXPECT_EQ(ZBIAPFileMonitor::initWithURL(std::nullopt, delegate_), nullptr);
  EXPECT_EQ(ZBIAPFileMonitor::initWithURL(fs::path(), delegate_), nullptr);
  EXPECT_EQ(ZBIAPFileMonitor::initWithURL(file_, nullptr), nullptr);
}

TEST_F(FileMonitorTest, InPlaceWritesAreReportedOnTheMainQueue) {
  writeFile(file_, "one");
  auto monitor = ZBIAPFileMonitor::initWithURL(file_, delegate_);
  ASSERT_NE(monitor, nullptr);
  ASSERT_NE(monitor->source(), nullptr);
  settle();
  EXPECT_TRUE(delegate_->urls.empty()) << "arming on an existing file is no change";

  writeFile(file_, "two", /*append=*/true);
  settle();
  ASSERT_EQ(delegate_->urls.size(), 1u);
  EXPECT_EQ(delegate_->urls[0], file_);

  fs::permissions(file_, fs::perms::owner_read, fs::perm_options::replace);
  settle();
  EXPECT_EQ(delegate_->urls.size(), 2u) << "an attribute change counts";
  EXPECT_FALSE(delegate_->offMainThread);
}

TEST_F(FileMonitorTest, DeletedFileIsWaitedForByPollingInVirtualTime) {
  writeFile(file_, "x");
  auto monitor = ZBIAPFileMonitor::initWithURL(file_, delegate_);
  fs::remove(file_);
  settle();
  EXPECT_TRUE(delegate_->urls.empty()) << "a deleted file is no change yet";
  EXPECT_EQ(monitor->source(), nullptr);
  EXPECT_EQ(platform_.mainQueue().pendingCount(), 1u) << "one retry timer";

  platform_.advanceBy(std::chrono::seconds(2));
  settle();
  EXPECT_TRUE(delegate_->urls.empty());
  EXPECT_EQ(platform_.mainQueue().pendingCount(), 1u) << "still polling, one timer at a time";

  writeFile(file_, "receipt");
  platform_.advanceBy(milliseconds(200));
  settle();
  ASSERT_EQ(delegate_->urls.size(), 1u) << "the file coming back is one change";
  EXPECT_NE(monitor->source(), nullptr);
  EXPECT_EQ(platform_.mainQueue().pendingCount(), 0u) << "polling ended";

  writeFile(file_, " more", /*append=*/true);
  settle();
  EXPECT_EQ(delegate_->urls.size(), 2u);
  EXPECT_FALSE(delegate_->offMainThread);
}

TEST_F(FileMonitorTest, FollowsAnAtomicReplacement) {
  writeFile(file_, "old");
  auto monitor = ZBIAPFileMonitor::initWithURL(file_, delegate_);
  auto firstSource = monitor->source();
  ASSERT_NE(firstSource, nullptr);

  replaceAtomically("new");
  settle();
  EXPECT_EQ(delegate_->urls.size(), 1u);
  EXPECT_NE(monitor->source(), firstSource) << "re-armed on the new file";
  EXPECT_TRUE(firstSource->isCancelled());

  const size_t before = delegate_->urls.size();
  writeFile(file_, " appended", /*append=*/true);
  settle();
  EXPECT_EQ(delegate_->urls.size(), before + 1) << "writes to the new file are seen";

  // Each replacement is one notice, also while another link or an open descriptor keeps the
  // old file alive (no deletion is reported then), and the monitor stays on the current file.
  for (int i = 0; i < 4; ++i) {
    std::error_code ignored;
    fs::remove(dir_ / "keep", ignored);
    if (i == 1) fs::create_hard_link(file_, dir_ / "keep");  // itself a change of the file
    std::ifstream open(file_);
    if (i != 3) open.close();
    settle();
    const size_t seen = delegate_->urls.size();
    replaceAtomically("version " + std::to_string(i));
    settle();
    EXPECT_EQ(delegate_->urls.size(), seen + 1) << i;
  }
  const size_t seen = delegate_->urls.size();
  writeFile(file_, "!", /*append=*/true);
  settle();
  EXPECT_EQ(delegate_->urls.size(), seen + 1);
}

TEST_F(FileMonitorTest, FollowsASymbolicLink) {
  const fs::path target = dir_ / "target";
  fs::create_symlink(target, file_);
  auto monitor = ZBIAPFileMonitor::initWithURL(file_, delegate_);
  EXPECT_EQ(monitor->source(), nullptr) << "a dangling link is a missing file";
  writeFile(target, "x");
  platform_.advanceBy(milliseconds(200));
  settle();
  ASSERT_EQ(delegate_->urls.size(), 1u);
  writeFile(target, "y", /*append=*/true);
  settle();
  EXPECT_EQ(delegate_->urls.size(), 2u) << "writes through the link are seen";
}

TEST_F(FileMonitorTest, RenameIsReportedWithoutRearming) {
  writeFile(file_, "x");
  auto monitor = ZBIAPFileMonitor::initWithURL(file_, delegate_);
  auto source = monitor->source();
  fs::rename(file_, dir_ / "moved");
  settle();
  EXPECT_EQ(delegate_->urls.size(), 1u);
  EXPECT_EQ(monitor->source(), source);
}

TEST_F(FileMonitorTest, DestroyedMonitorStopsPollingAndNotifying) {
  auto monitor = ZBIAPFileMonitor::initWithURL(file_, delegate_);
  monitor.reset();
  writeFile(file_, "x");
  platform_.advanceBy(std::chrono::seconds(1));
  settle();
  EXPECT_TRUE(delegate_->urls.empty());
  EXPECT_EQ(platform_.mainQueue().pendingCount(), 0u);

  // A live watch dropped with events still on their way to the main queue.
  auto second = ZBIAPFileMonitor::initWithURL(file_, delegate_);
  writeFile(file_, "y", /*append=*/true);
  zbiap::FileWatch::waitUntilIdle();
  second.reset();
  platform_.runUntilIdle();
  EXPECT_TRUE(delegate_->urls.empty());
}

TEST_F(FileMonitorTest, GoneDelegateIsNotCalled) {
  writeFile(file_, "x");
  auto delegate = std::make_shared<RecordingDelegate>();
  auto monitor = ZBIAPFileMonitor::initWithURL(file_, delegate);
  delegate.reset();
  writeFile(file_, "y", /*append=*/true);
  settle();  // must not crash
  EXPECT_EQ(monitor->delegate(), nullptr);
}

TEST_F(FileMonitorTest, OpenErrorsAreLoggedOncePerDistinctNumber) {
  // "not a directory", "too many symbolic links" and "permission denied" stand for any error
  // but a missing file.
  writeFile(dir_ / "plain", "x");
  const fs::path notDirectory = dir_ / "plain" / "receipt";
  fs::create_directory_symlink(dir_ / "loop", dir_ / "loop");
  const fs::path looping = dir_ / "loop" / "receipt";
  const fs::path locked = dir_ / "locked";
  fs::create_directory(locked);
  writeFile(locked / "receipt", "x");
  fs::permissions(locked, fs::perms::none, fs::perm_options::replace);
  auto count = [&](const fs::path& path, const std::string& error = "") {
    size_t n = 0;
    const std::string text = "Unable to watch file://" + path.string() + ": " + error;
    for (const auto& line : platform_.logLines()) n += line.find(text) != std::string::npos;
    return n;
  };

  std::vector<std::shared_ptr<ZBIAPFileMonitor>> monitors;
  auto watch = [&](const fs::path& path) {
    monitors.push_back(ZBIAPFileMonitor::initWithURL(path, delegate_));
    EXPECT_EQ(monitors.back()->source(), nullptr);
  };
  watch(looping);  // sets the last error reported
  watch(notDirectory);
  EXPECT_EQ(count(notDirectory, "20 - " + zbiap::systemErrorText(20)), 1u);
  watch(notDirectory);
  EXPECT_EQ(count(notDirectory), 1u) << "the same error again is not logged";
  const size_t loops = count(looping);
  watch(looping);
  EXPECT_EQ(count(looping), loops + 1) << "a different error number is logged";
  {
    // Root passes every permission check; this thread alone gives up its privilege while it
    // opens (the raw call changes the calling thread's credentials only) and takes it back.
    const bool root = geteuid() == 0;
    if (root) {
      ASSERT_EQ(syscall(SYS_setresuid, -1, 65534, -1), 0);
    }
    watch(locked / "receipt");
    watch(locked / "receipt");
    if (root) {
      ASSERT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
    }
  }
  EXPECT_EQ(count(locked / "receipt", "13 - "), 1u);
  fs::permissions(locked, fs::perms::owner_all, fs::perm_options::replace);
  EXPECT_EQ(platform_.mainQueue().pendingCount(), 0u) << "no retry after such errors";
  platform_.advanceBy(std::chrono::seconds(1));
  EXPECT_TRUE(delegate_->urls.empty());
}

}  // namespace
