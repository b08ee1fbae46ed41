// Runs the built zbiap tool as a user would: through the shell, in a scratch directory of the
// test's own that is removed afterwards, with standard output and error caught in files.
#ifndef ZBIAP_TESTS_CLI_CLI_RUNNER_H_
#define ZBIAP_TESTS_CLI_CLI_RUNNER_H_

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "testing/testdata.h"

namespace zbiap::testing {

struct CliOutcome {
  int status;  // the exit code; -1 when the tool did not exit normally
  std::string out;
  std::string err;
};

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("zbiap_cli_" + std::to_string(reinterpret_cast<uintptr_t>(this)) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::filesystem::path file(const std::string& name, const std::string& bytes) {
    std::filesystem::path p = dir_ / name;
    std::ofstream(p, std::ios::binary) << bytes;
    return p;
  }

  // `arguments` go through the shell as they are: quote what needs it.
  CliOutcome run(const std::string& arguments, const std::string& stdinFile = "") {
    return runProgram(ZBIAP_CLI_PATH, arguments, stdinFile);
  }
  // Any program; `environment` ("NAME=value ...", quoted as needed) is set for it alone.
  CliOutcome runProgram(const std::string& program, const std::string& arguments,
                        const std::string& stdinFile = "", const std::string& environment = "") {
    std::string command = environment + " '" + program + "' " + arguments + " >'" +
                          (dir_ / "out").string() + "' 2>'" + (dir_ / "err").string() + "'";
    if (!stdinFile.empty()) command += " <'" + stdinFile + "'";
    int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(dir_ / "out"),
            readFile(dir_ / "err")};
  }

  std::filesystem::path dir_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_CLI_CLI_RUNNER_H_
