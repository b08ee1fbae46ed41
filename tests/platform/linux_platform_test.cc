#include "zbiap/platform/linux_platform.h"

#include <gtest/gtest.h>

#include <atomic>

#include "testing/test_platform.h"

namespace zbiap::testing {
namespace {

TEST(LinuxPlatformTest, UsesTheNamedBundleAndDefaultsFile) {
  TestPlatform scratch;  // Only for its temporary directory.
  std::filesystem::path dir = scratch.makeTempDir("linux");
  LinuxPlatform::Options options;
  options.bundleDir = dir / "bundle";
  options.userDefaultsPath = dir / "state" / "defaults.sqlite3";
  LinuxPlatform linux(options);
  EXPECT_EQ(linux.mainBundle().bundlePath(), dir / "bundle");
  EXPECT_EQ(linux.mainBundle().appStoreReceiptURL(), dir / "bundle" / "_MASReceipt" / "receipt");
  EXPECT_TRUE(linux.standardUserDefaults().setString("k", "v"));
  EXPECT_TRUE(std::filesystem::exists(dir / "state" / "defaults.sqlite3"));

  DeviceInfo device = linux.deviceInfo();
  EXPECT_FALSE(device.model.empty());
  EXPECT_FALSE(device.systemName.empty());
  EXPECT_FALSE(device.systemVersion.empty());
  EXPECT_FALSE(device.machineModel.empty());
  EXPECT_FALSE(linux.preferredLanguages().empty());

  // The global queue is a real pool; the main queue an event loop.
  std::atomic<bool> ran{false};
  linux.globalQueue().post([&] {
    ran = true;
    linux.mainQueue().post([&] { linux.eventLoop().stop(); });
  });
  linux.eventLoop().run();
  EXPECT_TRUE(ran.load());
}

TEST(LinuxPlatformTest, MainEventLoopIsOnlyForALinuxPlatform) {
  TestPlatform platform;
  EXPECT_EQ(LinuxPlatform::mainEventLoop(), nullptr);
}

}  // namespace
}  // namespace zbiap::testing
