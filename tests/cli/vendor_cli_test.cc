// The vendor's side of the catalogue: keygen makes a key pair, catalog sign turns a catalogue
// into a signed answer (refusing what apps would reject) and an nginx site, and Debian's nginx
// serves it to the real fetcher (OAuth-signed POST through libcurl) and a real manager.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "cli_runner.h"
#include "testing/fake_store.h"
#include "testing/test_platform.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/devserver/answer_signing_key.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"

extern char** environ;

namespace zbiap::testing {
namespace {

namespace fs = std::filesystem;

class VendorCLITest : public CliTest {
 protected:
  fs::path example() { return sourceDir() / "examples" / "catalog.json"; }

  // keygen into dir_/key; the public key text, as printed and as written beside the key.
  std::string keygen() {
    CliOutcome made = run("keygen --bits 2048 --out '" + (dir_ / "key").string() + "'");
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(readFile(dir_ / "key" / "answer-signing-key.pub"), made.out);
    return made.out.substr(0, made.out.find('\n'));
  }

  CliOutcome sign(const fs::path& catalogue, const std::string& options = "") {
    return run("catalog sign --key '" + (dir_ / "key" / "answer-signing-key.pem").string() +
               "' --out '" + (dir_ / "signed").string() + "' " + options + " '" +
               catalogue.string() + "'");
  }
};

TEST_F(VendorCLITest, KeygenSignAndVerifyRoundTrip) {
  const std::string publicKey = keygen();
  const fs::path pem = dir_ / "key" / "answer-signing-key.pem";
  EXPECT_EQ(fs::status(pem).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  // Never over an existing key: the old one stays as it was.
  const std::string before = readFile(pem);
  CliOutcome again = run("keygen --out '" + (dir_ / "key").string() + "'");
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("never written over"), std::string::npos) << again.err;
  EXPECT_EQ(readFile(pem), before);

  CliOutcome signedOut = sign(example());
  ASSERT_EQ(signedOut.status, 0) << signedOut.err;
  EXPECT_EQ(readFile(dir_ / "signed" / "answer.json"), readFile(example()));
  const std::string signature = readFile(dir_ / "signed" / "answer.signature");
  EXPECT_EQ(signedOut.out, signature + "\n");
  const std::string verify =
      "catalog verify --signature-key '" + publicKey + "' --signature '" + signature + "' ";
  EXPECT_EQ(run(verify + "'" + (dir_ / "signed" / "answer.json").string() + "'").out, "valid\n");
  std::string tampered = readFile(example());
  tampered[tampered.find("14.99")] = '0';
  EXPECT_EQ(run(verify + "'" + file("tampered.json", tampered).string() + "'").status, 1);
}

TEST_F(VendorCLITest, SignRefusesWhatAppsRejectAndWarnsPerDroppedProduct) {
  keygen();
  const std::string good = R"({"identifier":"a","inactive":false,"sort_key":1,"title":"A"})";
  struct Case {
    const char* name;
    std::string catalogue;
    int status;
    std::string said;
  };
  const Case cases[] = {
      {"not JSON", "{", 1, "JSON parsing failed."},
      {"no product reads", R"({"products":[{"inactive":false}]})", 1,
       "error: products[0] is rejected"},
      // Apps without an English text fall back to German, which this title lacks.
      {"no German fallback",
       R"({"products":[{"identifier":"a","inactive":false,"sort_key":1,"title":{"en":"A"}}]})", 1,
       "Parsing the required key 'title' failed!"},
      {"one product dropped", R"({"products":[)" + good + R"(,{"identifier":"b","inactive":0}]})",
       0, "warning: products[1] (b) is rejected by apps\n  ! Dynamic IAP: Required key 'title'"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(dir_ / "signed");
    CliOutcome outcome = sign(file("catalogue.json", c.catalogue));
    EXPECT_EQ(outcome.status, c.status);
    EXPECT_NE(outcome.err.find(c.said), std::string::npos) << outcome.err;
    EXPECT_EQ(fs::exists(dir_ / "signed" / "answer.json"), c.status == 0);
  }
  // The public half is no signing key; a site path nginx would misread is refused.
  CliOutcome wrongKey =
      run("catalog sign --key '" + (dir_ / "key" / "answer-signing-key.pub").string() + "' '" +
          example().string() + "'");
  EXPECT_EQ(wrongKey.status, 1);
  EXPECT_NE(wrongKey.err.find("not an unencrypted PEM private key"), std::string::npos);
  EXPECT_EQ(sign(example(), "--nginx --base-path 'x;' ").status, 2);
}

// nginx, found where Debian puts it; empty when not installed.
std::string nginxBinary() {
  for (const char* candidate : {"/usr/sbin/nginx", "/usr/local/sbin/nginx"}) {
    if (access(candidate, X_OK) == 0) return candidate;
  }
  return {};
}

// A loopback port nothing listens on now.
int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

bool accepting(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool up = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return up;
}

// nginx in the foreground as a child, unprivileged-capable: everything it writes is under `dir`,
// and the site file is included as a vendor's nginx.conf would include it.
class NginxProcess {
 public:
  NginxProcess(const std::string& binary, const fs::path& dir, const fs::path& site, int port) {
    std::string temporaries;
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
      temporaries += std::string("  ") + kind + "_temp_path " + (dir / kind).string() + ";\n";
    }
    std::ofstream(dir / "nginx.conf") << "worker_processes 1;\nevents { worker_connections 64; }\n"
                                         "http {\n" +
                                             temporaries + "  include " + site.string() + ";\n}\n";
    const std::string globals =
        "daemon off; pid " + (dir / "nginx.pid").string() + "; error_log stderr;";
    const std::string prefix = dir.string(), conf = (dir / "nginx.conf").string();
    const char* argv[] = {binary.c_str(), "-p", prefix.c_str(),  "-c",
                          conf.c_str(),   "-g", globals.c_str(), nullptr};
    if (posix_spawn(&pid_, binary.c_str(), nullptr, nullptr, const_cast<char**>(argv), environ) !=
        0) {
      pid_ = -1;
      return;
    }
    for (int i = 0; i < 200 && !accepting(port); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  ~NginxProcess() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);  // the master stops its worker and exits
    waitpid(pid_, nullptr, 0);
  }
  bool running() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

 private:
  pid_t pid_ = -1;
};

bool fetchSucceeds(const std::string& baseURL, const std::string& signatureKey, size_t* products) {
  auto fetcher = ZBIAPProductInfoV1Fetcher::initWithBaseURL(baseURL, "application/json", "consumer",
                                                            "secret", signatureKey);
  auto outcome = std::make_shared<std::promise<bool>>();
  auto answered = outcome->get_future();
  fetcher->fetchWithSuccess(
      [outcome, products](std::shared_ptr<ZBIAPProductInfoResponse> response) {
        *products = response->productInfos() ? response->productInfos()->size() : 0;
        outcome->set_value(true);
      },
      [outcome](ZBIAPErrorPtr) { outcome->set_value(false); });
  return answered.wait_for(std::chrono::seconds(20)) == std::future_status::ready && answered.get();
}

TEST_F(VendorCLITest, NginxServesTheSignedAnswerToTheFetcherAndTheManager) {
  const std::string nginx = nginxBinary();
  if (nginx.empty()) GTEST_SKIP() << "nginx is not installed (scripts/install-deps installs it)";
  const std::string publicKey = keygen();
  const int port = freePort();
  CliOutcome signedOut =
      sign(example(), "--nginx --base-path /shop --listen 127.0.0.1:" + std::to_string(port));
  ASSERT_EQ(signedOut.status, 0) << signedOut.err;
  fs::create_directories(dir_ / "nginx");
  NginxProcess server(nginx, dir_ / "nginx", dir_ / "signed" / "nginx-site.conf", port);
  ASSERT_TRUE(server.running()) << "nginx did not start";
  // A base URL with a trailing slash, as hosts often write it.
  const std::string baseURL = "http://127.0.0.1:" + std::to_string(port) + "/shop/";

  TestPlatform platform;
  size_t products = 0;
  EXPECT_TRUE(fetchSucceeds(baseURL, publicKey, &products));
  EXPECT_EQ(products, 4u);
  // Any other key refuses the answer, as it refuses any bad signature.
  EXPECT_FALSE(
      fetchSucceeds(baseURL, AnswerSigningKey::generate(2048)->publicKeyBase64(), &products));

  // The store knows every product it is asked for.
  auto store = FakeStore::create();
  store->scriptCountry(Answer::kAtOnce, "US");
  auto manager = ZBIAPManager::initWithConfiguration(ZBIAPManagerConfiguration::initWithStore(
      store, "com.example.app.lifetime", "US",
      ZBIAPProductInfoV1Fetcher::initWithBaseURL(baseURL, "application/json", "consumer", "secret",
                                                 publicKey)));
  manager->commitConfiguration();
  EXPECT_TRUE(platform.runUntil([&] {
    return manager->isReady() && manager->dynamicProductInfosWithStoreProducts().size() == 4;
  }));
  store->dropPending();
  manager.reset();

  // A body changed on the server after signing no longer matches its header.
  std::string body = readFile(dir_ / "signed" / "answer.json");
  body[body.find("14.99")] = '0';
  std::ofstream(dir_ / "signed" / "answer.json", std::ios::binary | std::ios::trunc) << body;
  EXPECT_FALSE(fetchSucceeds(baseURL, publicKey, &products));
}

}  // namespace
}  // namespace zbiap::testing
