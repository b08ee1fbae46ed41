// zbiap's top level: help, the version and unknown commands, before any command runs.
#include <gtest/gtest.h>

#include <string>

#include "cli_runner.h"

namespace {

using zbiap::testing::CliOutcome;

class MainCLITest : public zbiap::testing::CliTest {};

TEST_F(MainCLITest, HelpVersionAndUnknownCommands) {
  const struct {
    std::string arguments;
    int status;
    std::string out;  // a part of standard output, or "" when it must be empty
    std::string err;  // likewise for standard error
  } cases[] = {
      {"", 2, "", "usage: zbiap <command>"},
      {"--version", 0, "zbiap ", ""},
      {"help", 0, "  serve ", ""},
      {"help catalog", 0, "usage: zbiap catalog", ""},
      {"help nothing", 2, "", "zbiap: unknown command 'nothing'\nusage: zbiap <command>"},
      {"nothing --help", 2, "", "zbiap: unknown command 'nothing'\n"},
  };
  for (const auto& c : cases) {
    CliOutcome outcome = run(c.arguments);
    EXPECT_EQ(outcome.status, c.status) << c.arguments;
    for (const auto& [stream, part] : {std::pair{&outcome.out, &c.out}, {&outcome.err, &c.err}}) {
      if (part->empty()) {
        EXPECT_EQ(*stream, "") << c.arguments;
      } else {
        EXPECT_NE(stream->find(*part), std::string::npos) << c.arguments << ": " << *stream;
      }
    }
  }
}

}  // namespace
