// The manager through faults of its user defaults file (a real SQLite file): locked by another
// process, damaged, read-only, and a process killed with SIGKILL in the middle of a save. The
// manager keeps its catalogue in memory, nothing saved is lost or half-written, and saving works
// again once the fault ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/manager/manager_fixture.h"
#include "zbiap/platform/sqlite_user_defaults.h"

namespace zbiap::testing {
namespace {

constexpr char kSavedKey[] = "ZBIAPProductInfos";

class DefaultsFaultTest : public ManagerTest {
 protected:
  // A manager ready with `products`, from the bundle's copy and then the server's answer.
  void startReady(const std::vector<Dictionary>& products) {
    fetcher_->setBundle(FakeFetcher::succeed(makeResponse(products)));
    store_->scriptCountry(Answer::kAtOnce, "DE");
    makeManager();
    commit();
    fetcher_->answerPending(FakeFetcher::succeed(makeResponse(products)));
    ASSERT_TRUE(manager_->isReady());
  }

  ZBIAPErrorPtr refresh(const std::vector<Dictionary>& products) {
    fetcher_->enqueue(FakeFetcher::succeed(makeResponse(products)));
    ZBIAPErrorPtr result = ZBIAPError::make("unset", -1);
    manager_->refreshDynamicProductInfosWithCompletion([&](ZBIAPErrorPtr e) { result = e; });
    runUntilIdle();
    return result;
  }

  std::optional<Data> saved() { return platform_->userDefaults().dataForKey(kSavedKey); }

  // What a new launch restores, before any answer arrives.
  std::vector<std::string> relaunchedCatalogue() {
    relaunch();
    return ids();
  }

  std::vector<std::string> ids() const {
    std::vector<std::string> out;
    for (const auto& info : manager_->dynamicProductInfos())
      out.push_back(info->productIdentifier());
    return out;
  }

  std::string fileBytes() {
    std::ifstream in(platform_->userDefaultsPath(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  const std::vector<Dictionary> a_ = {productDictionary("a", "A")};
  const std::vector<Dictionary> ab_ = {productDictionary("a", "A"), productDictionary("b", "B")};
  const std::vector<Dictionary> abc_ = {productDictionary("a", "A"), productDictionary("b", "B"),
                                        productDictionary("c", "C")};
};

// Another process holds an exclusive lock on the file until told through a pipe.
class LockingProcess {
 public:
  explicit LockingProcess(const std::string& path) {
    int ready[2], release[2];
    if (pipe(ready) != 0 || pipe(release) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      sqlite3* db = nullptr;
      char byte = 0;
      bool locked = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
                    sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) == SQLITE_OK;
      byte = locked ? 1 : 0;
      (void)!write(ready[1], &byte, 1);
      (void)!read(release[0], &byte, 1);
      _exit(0);
    }
    char byte = 0;
    locked_ = read(ready[0], &byte, 1) == 1 && byte == 1;
    release_ = release[1];
    close(ready[0]);
    close(ready[1]);
    close(release[0]);
  }
  ~LockingProcess() { release(); }
  bool locked() const { return locked_; }
  void release() {
    if (pid_ <= 0) return;
    char byte = 0;
    (void)!write(release_, &byte, 1);
    close(release_);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int release_ = -1;
  bool locked_ = false;
};

TEST_F(DefaultsFaultTest, LockedByAnotherProcess) {
  startReady(a_);
  ASSERT_TRUE(saved().has_value());
  const std::optional<Data> before = saved();
  {
    LockingProcess holder(platform_->userDefaultsPath().string());
    ASSERT_TRUE(holder.locked());
    // The new catalogue is taken in memory; the save waits for the lock, gives up, and says so.
    platform_->clearLog();
    EXPECT_EQ(refresh(ab_), nullptr);
    EXPECT_EQ(ids(), (std::vector<std::string>{"a", "b"}));
    EXPECT_FALSE(platform_->logLines().empty());
  }
  // The lock is gone: what was saved before is intact, and the next save goes through.
  EXPECT_EQ(saved(), before);
  EXPECT_EQ(refresh(abc_), nullptr);
  EXPECT_EQ(relaunchedCatalogue(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(DefaultsFaultTest, DamagedFileIsMovedAsideAndCachingGoesOn) {
  std::string garbage;
  for (int i = 0; i < 8192; ++i) garbage += static_cast<char>((i * 7919) % 251);
  platform_->reopenUserDefaults();
  {
    std::ofstream out(platform_->userDefaultsPath(), std::ios::binary | std::ios::trunc);
    out << garbage;
  }
  platform_->reopenUserDefaults();
  // Nothing readable is saved: the bundle's copy starts the app, the server's answer follows.
  startReady(a_);
  EXPECT_EQ(refresh(ab_), nullptr);
  EXPECT_EQ(ids(), (std::vector<std::string>{"a", "b"}));
  // The damaged file is kept beside a new one, which caches the catalogue again.
  std::ifstream aside(platform_->userDefaultsPath().string() + ".corrupt", std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(aside), {}), garbage);
  EXPECT_EQ(relaunchedCatalogue(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(DefaultsFaultTest, ReadOnlyFileKeepsWhatItHas) {
  startReady(a_);
  ASSERT_TRUE(saved().has_value());
  const std::string before = fileBytes();
  const std::string path = platform_->userDefaultsPath().string();
  // Root writes through file modes, but not through the immutable flag.
  int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  int flags = 0;
  const bool immutable = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
                         (flags |= FS_IMMUTABLE_FL, ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0);
  if (!immutable && geteuid() != 0) chmod(path.c_str(), 0444);
  if (!immutable && geteuid() == 0) {
    close(fd);
    GTEST_SKIP() << "cannot make the file read-only for root here (no immutable flag)";
  }
  platform_->reopenUserDefaults();
  EXPECT_EQ(refresh(ab_), nullptr);
  EXPECT_EQ(ids(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(fileBytes(), before);

  if (immutable) {
    flags &= ~FS_IMMUTABLE_FL;
    ioctl(fd, FS_IOC_SETFLAGS, &flags);
  } else {
    chmod(path.c_str(), 0644);
  }
  close(fd);
  EXPECT_EQ(refresh(abc_), nullptr);
  EXPECT_EQ(relaunchedCatalogue(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(DefaultsFaultTest, ProcessKilledDuringASaveLeavesAWholeCatalogue) {
  // The two catalogues as the manager saves them.
  startReady(ab_);
  ASSERT_TRUE(saved().has_value());
  const Data two = *saved();
  ASSERT_EQ(refresh(abc_), nullptr);
  const Data three = *saved();
  ASSERT_NE(two, three);

  for (int round = 0; round < 3; ++round) {
    const std::string path = platform_->userDefaultsPath().string();
    int busy[2];
    ASSERT_EQ(pipe(busy), 0);
    pid_t child = fork();
    if (child == 0) {
      // Saves the two catalogues in turn, as fast as it can, until killed; says so once it has
      // saved a few times, so that the kill lands among saves.
      SQLiteUserDefaults defaults(path, nullptr);
      for (uint64_t i = 0;; ++i) {
        defaults.setData(kSavedKey, i % 2 ? two : three);
        if (i == static_cast<uint64_t>(5 + 7 * round)) (void)!write(busy[1], "x", 1);
      }
    }
    ASSERT_GT(child, 0);
    char byte;
    ASSERT_EQ(read(busy[0], &byte, 1), 1);
    kill(child, SIGKILL);
    close(busy[0]);
    close(busy[1]);
    waitpid(child, nullptr, 0);

    std::vector<std::string> restored = relaunchedCatalogue();
    EXPECT_TRUE(restored == (std::vector<std::string>{"a", "b"}) ||
                restored == (std::vector<std::string>{"a", "b", "c"}))
        << "round " << round << ": " << restored.size() << " products";
    const std::optional<Data> left = saved();
    ASSERT_TRUE(left.has_value());
    EXPECT_TRUE(*left == two || *left == three);
  }
}

}  // namespace
}  // namespace zbiap::testing
