// zbiap_capi_servers COMMAND [ARGS...]: runs COMMAND beside the development catalogue server and
// account server on 127.0.0.1 and a fresh app bundle, for the tests of the C API, whose programs
// use nothing but zbiap_c.h. COMMAND finds them in the environment:
//   ZBIAP_TEST_BUNDLE         the app bundle directory (Info.json of com.example.app 1.0)
//   ZBIAP_TEST_CATALOG_URL    the catalogue server, with ZBIAP_TEST_CONSUMER_KEY,
//                             ZBIAP_TEST_CONSUMER_SECRET and ZBIAP_TEST_PUBLIC_KEY
//   ZBIAP_TEST_ACCOUNT_URL    the account server, where ZBIAP_TEST_ACCOUNT_TOKEN holds
//                             ZBIAP_TEST_ACCOUNT_PRODUCT
// Exits with COMMAND's status (128 + signal when it was killed), 2 on bad usage, 1 when a server
// cannot start. Leaves nothing behind.
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "zbiap/devserver/account_server.h"
#include "zbiap/devserver/catalog_server.h"

namespace {

constexpr char kToken[] = "capi-user";
constexpr char kAccountProduct[] = "com.example.web.pro";

int runChild(char** command) {
  pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) {
    execvp(command[0], command);
    std::perror(command[0]);
    _exit(127);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: zbiap_capi_servers COMMAND [ARGS...]\n");
    return 2;
  }
  auto catalog = zbiap::CatalogServer::create();
  zbiap::AccountServer account;
  if (!catalog || !catalog->start() || !account.start()) {
    std::fprintf(stderr, "zbiap_capi_servers: cannot start the servers on 127.0.0.1\n");
    return 1;
  }
  account.setProducts(
      kToken, {zbiap::AccountServer::Product::make(
                  kAccountProduct, zbiap::Date::fromSysTime(std::chrono::system_clock::now()))});

  namespace fs = std::filesystem;
  std::string home = (fs::temp_directory_path() / "zbiap-capi-XXXXXX").string();
  if (mkdtemp(home.data()) == nullptr) return 1;
  std::ofstream(fs::path(home) / "Info.json")
      << R"({"CFBundleIdentifier":"com.example.app","CFBundleShortVersionString":"1.0"})";

  setenv("ZBIAP_TEST_BUNDLE", home.c_str(), 1);
  setenv("ZBIAP_TEST_CATALOG_URL", catalog->baseURL().c_str(), 1);
  setenv("ZBIAP_TEST_CONSUMER_KEY", catalog->consumerKey().c_str(), 1);
  setenv("ZBIAP_TEST_CONSUMER_SECRET", catalog->consumerSecret().c_str(), 1);
  setenv("ZBIAP_TEST_PUBLIC_KEY", catalog->publicKeyBase64().c_str(), 1);
  setenv("ZBIAP_TEST_ACCOUNT_URL", account.baseURL().c_str(), 1);
  setenv("ZBIAP_TEST_ACCOUNT_TOKEN", kToken, 1);
  setenv("ZBIAP_TEST_ACCOUNT_PRODUCT", kAccountProduct, 1);
  // The servers are on loopback: never through a proxy.
  setenv("no_proxy", "127.0.0.1,localhost", 1);
  setenv("NO_PROXY", "127.0.0.1,localhost", 1);

  int status = runChild(argv + 1);
  account.stop();
  catalog->stop();
  std::error_code ignored;
  fs::remove_all(home, ignored);
  return status;
}
