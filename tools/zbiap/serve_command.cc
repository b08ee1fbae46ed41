// zbiap serve [--catalog FILE] [--port N]: runs the development catalogue server on 127.0.0.1
// and prints what a host app's fetcher needs: the base URL, the consumer key and secret, and the
// base64 PKCS #1 public key that verifies the answers. Serves until SIGINT or SIGTERM, printing a
// line per request on standard error. Exit 2 on bad usage, 1 when the catalogue cannot be read or
// is not JSON or the port cannot be bound.
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "commands.h"
#include "input.h"
#include "options.h"
#include "zbiap/devserver/catalog_server.h"

namespace zbiap::cli {
namespace {

volatile sig_atomic_t stopRequested = 0;

void onStopSignal(int) { stopRequested = 1; }

constexpr char kUsage[] = "usage: zbiap serve [--catalog FILE] [--port N]\n";

struct Options {
  std::string catalog;
  int port = 0;
};

// False on bad usage, with the reason and the usage printed (`exitCode` 2), or when help was
// asked for (`exitCode` 0).
bool parseOptions(const Args& args, Options& options, int* exitCode) {
  OptionParser parser("zbiap serve", kUsage);
  *exitCode = 2;
  std::string port;
  parser.value("--catalog", &options.catalog);
  parser.value("--port", &port);
  if (!parser.parse(args, nullptr, 0, 0)) {
    *exitCode = parser.exitCode();
    return false;
  }
  if (!port.empty()) {
    auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), options.port);
    if (error != std::errc() || end != port.data() + port.size() || options.port < 0 ||
        options.port > 65535) {
      parser.fail("--port wants a number from 0 to 65535, not '" + port + "'");
      return false;
    }
  }
  return true;
}

void printNewRequests(const CatalogServer& server, size_t& printed) {
  size_t count = server.requestCount();
  if (count == printed) return;
  auto requests = server.requests();
  size_t fresh = std::min(count - printed, requests.size());
  for (size_t i = requests.size() - fresh; i < requests.size(); ++i) {
    const auto& request = requests[i];
    std::fprintf(stderr, "%s %s -> %d%s%s\n", request.method.c_str(), request.target.c_str(),
                 request.status, request.authorized ? "" : " (OAuth: ",
                 request.authorized ? "" : (request.rejection + ")").c_str());
  }
  printed = count;
}

int runServe(const Args& args) {
  Options options;
  int exitCode;
  if (!parseOptions(args, options, &exitCode)) return exitCode;
  // The catalogue first: a bad path is told before the key is made.
  std::optional<std::string> text;
  if (!options.catalog.empty() && !(text = readInput("zbiap serve", options.catalog))) return 1;
  auto server = CatalogServer::create();
  if (server == nullptr) {
    std::fprintf(stderr, "zbiap serve: cannot make the server's RSA key\n");
    return 1;
  }
  if (text) {
    std::string error;
    if (!server->setCatalog(std::move(*text), &error)) {
      std::fprintf(stderr, "zbiap serve: %s: %s\n", options.catalog.c_str(), error.c_str());
      return 1;
    }
  }

  // Handlers rather than a blocked mask: threads made before this point (by libraries) would
  // otherwise take the signal with its default action.
  struct sigaction action = {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  struct sigaction previousInt, previousTerm;
  sigaction(SIGINT, &action, &previousInt);
  sigaction(SIGTERM, &action, &previousTerm);

  if (!server->start(options.port)) {
    sigaction(SIGINT, &previousInt, nullptr);
    sigaction(SIGTERM, &previousTerm, nullptr);
    std::fprintf(stderr, "zbiap serve: cannot listen on 127.0.0.1:%d\n", options.port);
    return 1;
  }
  std::printf("Catalogue server listening on %s\n", server->baseURL().c_str());
  std::printf("  catalogue:       %s\n",
              options.catalog.empty() ? "built-in example" : options.catalog.c_str());
  std::printf("  base URL:        %s\n", server->baseURL().c_str());
  std::printf("  consumer key:    %s\n", server->consumerKey().c_str());
  std::printf("  consumer secret: %s\n", server->consumerSecret().c_str());
  std::printf("  public key:      %s\n", server->publicKeyBase64().c_str());
  std::printf("Press Ctrl-C to stop.\n");
  std::fflush(stdout);

  size_t printed = 0;
  while (stopRequested == 0) {
    timespec interval{0, 100 * 1000 * 1000};
    nanosleep(&interval, nullptr);
    printNewRequests(*server, printed);
  }
  server->stop();
  printNewRequests(*server, printed);
  sigaction(SIGINT, &previousInt, nullptr);
  sigaction(SIGTERM, &previousTerm, nullptr);
  std::printf("Stopped.\n");
  return 0;
}

}  // namespace

ZBIAP_REGISTER_COMMAND(serve, "serve", "run the development catalogue server alone", runServe);

}  // namespace zbiap::cli
