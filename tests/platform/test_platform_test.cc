#include "testing/test_platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "zbiap/platform/linux_platform.h"

namespace zbiap::testing {
namespace {

using std::chrono::seconds;

TEST(TestPlatformTest, InstallsItselfAndRestoresThePreviousPlatform) {
  Platform* before = &Platform::current();
  {
    TestPlatform outer;
    EXPECT_EQ(&Platform::current(), &outer.platform());
    {
      TestPlatform inner;
      EXPECT_EQ(&Platform::current(), &inner.platform());
    }
    EXPECT_EQ(&Platform::current(), &outer.platform());
  }
  EXPECT_EQ(&Platform::current(), before);
}

TEST(TestPlatformTest, ClockAndQueuesAreVirtualAndSettle) {
  TestPlatform platform;
  Platform& p = Platform::current();
  EXPECT_EQ(p.now(), ManualMainQueue::kDefaultStart);
  std::atomic<int> step{0};
  bool onMain = false;
  // Global work that hands its result to the main queue, as platform callbacks do.
  p.globalQueue().post([&] {
    step = 1;
    p.mainQueue().post([&] {
      onMain = p.mainQueue().isMainThread();
      step = 2;
    });
  });
  platform.settle();
  EXPECT_EQ(step.load(), 2);
  EXPECT_TRUE(onMain);
  bool fired = false;
  p.mainQueue().postAfter(seconds(60), [&] { fired = true; });
  platform.advanceBy(seconds(59));
  EXPECT_FALSE(fired);
  platform.advanceBy(seconds(1));
  EXPECT_TRUE(fired);
  EXPECT_EQ(p.now(), ManualMainQueue::kDefaultStart + seconds(60));
}

TEST(TestPlatformTest, EnvironmentIsAPrivateMap) {
  TestPlatform platform;
  Platform& p = Platform::current();
  EXPECT_EQ(p.environmentValue("PATH"), std::nullopt);  // The real environment is not seen.
  platform.setEnv("ZBIAP_LOGGING", "YES");
  EXPECT_EQ(p.environmentValue("ZBIAP_LOGGING"), "YES");
  platform.unsetEnv("ZBIAP_LOGGING");
  EXPECT_EQ(p.environmentValue("ZBIAP_LOGGING"), std::nullopt);
}

TEST(TestPlatformTest, BundleResourcesAndInfoDictionary) {
  TestPlatform platform;
  Bundle& bundle = Platform::current().mainBundle();
  EXPECT_EQ(bundle.bundlePath(), platform.bundleDir());
  EXPECT_TRUE(bundle.infoDictionary().empty());
  EXPECT_EQ(bundle.pathForResource("ZBIAPPInfos", "json"), std::nullopt);

  std::filesystem::path written = platform.writeResource("ZBIAPPInfos.json", "{}");
  EXPECT_EQ(bundle.pathForResource("ZBIAPPInfos", "json"), written);
  EXPECT_EQ(bundle.pathForResource("ZBIAPPInfos.json", ""), written);
  EXPECT_EQ(bundle.pathForResource("ZBIAPPInfos", "plist"), std::nullopt);
  EXPECT_EQ(bundle.pathForResource("../bundle/ZBIAPPInfos", "json"), std::nullopt);
  EXPECT_EQ(bundle.pathForResource("", ""), std::nullopt);

  platform.writeInfoDictionary({{"CFBundleIdentifier", Value("com.example.app")},
                                {"CFBundleShortVersionString", Value("2.1")}});
  Dictionary info = bundle.infoDictionary();
  EXPECT_EQ(info["CFBundleIdentifier"], Value("com.example.app"));
  EXPECT_EQ(info["CFBundleShortVersionString"], Value("2.1"));
  platform.writeInfoJSON("[1, 2]");  // Not a dictionary.
  EXPECT_TRUE(bundle.infoDictionary().empty());
  platform.writeInfoJSON("{\"a\": ");
  EXPECT_TRUE(bundle.infoDictionary().empty());

  EXPECT_EQ(bundle.appStoreReceiptURL(), platform.bundleDir() / "_MASReceipt" / "receipt");
  platform.bundle().setAppStoreReceiptURL(platform.bundleDir() / "receipt.bin");
  EXPECT_EQ(bundle.appStoreReceiptURL(), platform.bundleDir() / "receipt.bin");
}

TEST(TestPlatformTest, UserDefaultsAreFreshAndSurviveARelaunch) {
  std::filesystem::path first;
  {
    TestPlatform platform;
    first = platform.userDefaultsPath();
    UserDefaults& defaults = Platform::current().standardUserDefaults();
    EXPECT_TRUE(defaults.setData("ZBIAPProductInfos", Data{1, 2, 3}));
    platform.reopenUserDefaults();
    EXPECT_EQ(Platform::current().standardUserDefaults().dataForKey("ZBIAPProductInfos"),
              (Data{1, 2, 3}));
  }
  EXPECT_FALSE(std::filesystem::exists(first));  // Cleaned up.
  TestPlatform next;
  EXPECT_NE(next.userDefaultsPath(), first);
  EXPECT_EQ(next.userDefaults().dataForKey("ZBIAPProductInfos"), std::nullopt);
}

TEST(TestPlatformTest, DeviceLanguagesAndCapturedLog) {
  TestPlatform platform;
  Platform& p = Platform::current();
  EXPECT_EQ(p.deviceInfo().model, "Test Device");
  EXPECT_EQ(p.preferredLanguages(), (std::vector<std::string>{"en-US"}));
  platform.setDeviceInfo({"iPad", "iOS", "17.2", "iPad13,1"});
  platform.setPreferredLanguages({"de-DE", "en"});
  EXPECT_EQ(p.deviceInfo().systemVersion, "17.2");
  EXPECT_EQ(p.preferredLanguages(), (std::vector<std::string>{"de-DE", "en"}));

  p.systemLog("[ZBIAPManager] hello");
  std::thread([&] { p.systemLog("from a thread"); }).join();
  EXPECT_EQ(platform.logLines(),
            (std::vector<std::string>{"[ZBIAPManager] hello", "from a thread"}));
  EXPECT_TRUE(platform.logContains("hello"));
  platform.clearLog();
  EXPECT_TRUE(platform.logLines().empty());
}

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
