// zbiap serve as a vendor uses it: start it, point the tool's own catalog fetch at what it
// prints, stop it with Ctrl-C. Also its refusals of bad usage and bad catalogues.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <string>

#include "cli_runner.h"

namespace {

using zbiap::testing::CliOutcome;

class ServeCLITest : public zbiap::testing::CliTest {};

TEST_F(ServeCLITest, ServesTheFetchItPrintsTheSettingsForAndStopsOnInterrupt) {
  // The shell prints its process number and becomes the tool, whose output is read as it comes.
  const std::string command = "echo $$; exec '" + std::string(ZBIAP_CLI_PATH) +
                              "' serve --port 0 2>'" + (dir_ / "requests").string() + "'";
  FILE* serve = popen(command.c_str(), "r");
  ASSERT_NE(serve, nullptr);
  std::map<std::string, std::string> printed;  // "base URL" -> "http://127.0.0.1:..."
  char line[4096];
  pid_t pid = 0;
  while (std::fgets(line, sizeof line, serve) != nullptr) {
    std::string text(line);
    if (pid == 0) pid = std::stoi(text);
    if (text.starts_with("Press Ctrl-C")) break;
    if (auto colon = text.find(": "); colon != std::string::npos && text.starts_with("  ")) {
      printed[text.substr(2, colon - 2)] =
          text.substr(text.find_first_not_of(' ', colon + 1), std::string::npos);
      printed[text.substr(2, colon - 2)].pop_back();  // the newline
    }
  }
  ASSERT_GT(pid, 0);
  CliOutcome fetched =
      run("catalog fetch --base-url '" + printed["base URL"] +
          "' --accept application/json --consumer-key '" + printed["consumer key"] +
          "' --consumer-secret '" + printed["consumer secret"] + "' --signature-key '" +
          printed["public key"] + "' --country DE --json");
  EXPECT_EQ(fetched.status, 0) << fetched.err;
  EXPECT_NE(fetched.out.find("\"products\""), std::string::npos) << fetched.out;
  CliOutcome forged = run("catalog fetch --base-url '" + printed["base URL"] +
                          "' --accept application/json --consumer-key '" + printed["consumer key"] +
                          "' --consumer-secret wrong");
  EXPECT_EQ(forged.status, 1) << forged.out;

  ASSERT_EQ(kill(pid, SIGINT), 0);
  std::string rest;
  while (std::fgets(line, sizeof line, serve) != nullptr) rest += line;
  const int status = pclose(serve);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(rest, "Stopped.\n");
  // One line a request: the good one answered, the forged one refused with the reason.
  const std::string requests = zbiap::testing::readFile(dir_ / "requests");
  EXPECT_NE(requests.find(" -> 200\n"), std::string::npos) << requests;
  EXPECT_NE(requests.find(" -> 401 (OAuth: "), std::string::npos) << requests;
}

TEST_F(ServeCLITest, RefusesBadUsageAndCataloguesBeforeListening) {
  const struct {
    std::string arguments;
    int status;
    std::string says;
  } cases[] = {
      {"--port 70000", 2, "--port wants a number from 0 to 65535, not '70000'"},
      {"--port 8x", 2, "not '8x'"},
      {"--catalog '" + file("bad.json", "{\"products\": [").string() + "'", 1, "bad.json: "},
      {"--catalog '" + (dir_ / "absent.json").string() + "'", 1, "absent.json"},
  };
  for (const auto& c : cases) {
    CliOutcome outcome = run("serve " + c.arguments);
    EXPECT_EQ(outcome.status, c.status) << c.arguments;
    EXPECT_NE(outcome.err.find(c.says), std::string::npos) << c.arguments << ": " << outcome.err;
  }
}

}  // namespace
