// Every zbiap command that reads a file, given paths that hold no input: each answers with one
// line naming the path and what is wrong and exits 1; none aborts, none waits on a FIFO.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "cli_runner.h"
#include "zbiap/devserver/catalog_server.h"

namespace {

using zbiap::testing::CliOutcome;

class InputCLITest : public zbiap::testing::CliTest {};

TEST_F(InputCLITest, EveryCommandRefusesPathsThatHoldNoInput) {
  const std::string fifo = (dir_ / "fifo").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::filesystem::path huge = file("huge", "");
  std::filesystem::resize_file(huge, std::uintmax_t{1} << 30);  // sparse: takes no disk
  const struct {
    std::string path;
    std::string says;
  } inputs[] = {
      {dir_.string(), "is a directory"},
      {file("empty", "").string(), "is empty"},
      {fifo, "is empty"},                    // nobody writes to it
      {"/proc/self/mem", "cannot be read"},  // a file whose reading fails, even for root
      {(dir_ / "missing").string(), "cannot be read: No such file"},
      {huge.string(), "is larger than"},
  };
  auto server = zbiap::CatalogServer::create();
  ASSERT_NE(server, nullptr);
  const std::string commands[] = {
      "receipt",
      "asn1",
      "catalog check",
      "catalog verify --signature x --signature-key " + server->publicKeyBase64(),
      "catalog preview",
      "catalog sign --key unused.pem",  // the catalogue is read first
      "serve --catalog",
      "demo --storekit",
      "demo --json --catalog",
  };
  for (const std::string& command : commands) {
    for (const auto& input : inputs) {
      SCOPED_TRACE(command + " " + input.path);
      CliOutcome outcome = run(command + " '" + input.path + "'");
      EXPECT_EQ(outcome.status, 1);
      // The demo reports on standard output, as its events; the others on standard error.
      const std::string said = outcome.err + outcome.out;
      EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
      EXPECT_NE(said.find("'" + input.path + "' " + input.says), std::string::npos) << said;
    }
  }
}

}  // namespace
