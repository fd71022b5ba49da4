#pragma once
// Helpers shared by the front-end tests: stdout capture, a scratch working directory, argument
// vectors, and the help screen as the command list defines it.

#include <gtest/gtest.h>
#ifdef _WIN32
#include <process.h>
#define getpid _getpid
#else
#include <unistd.h>
#endif

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "qlutil.h"

namespace frontend_test {

// Everything the callable writes to standard output.
inline std::string CaptureStdout(const std::function<void()> &fn) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  fn();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

inline std::string ReadFile(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Runs the test in a fresh temporary directory (the driver writes its result files into the
// current directory) and goes back afterwards.
class ScratchDirTest : public testing::Test {
 protected:
  void SetUp() override {
    old_ = std::filesystem::current_path();
    const auto *info = testing::UnitTest::GetInstance()->current_test_info();
    dir_ = std::filesystem::temp_directory_path() /
           (std::string("qlutil_frontend_") + info->test_suite_name() + "_" + info->name() + "_" +
            std::to_string(::getpid()));
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    std::filesystem::current_path(dir_);
  }
  void TearDown() override {
    std::filesystem::current_path(old_);
    std::filesystem::remove_all(dir_);
  }
  std::filesystem::path old_;
  std::filesystem::path dir_;
};

// An argument vector that owns its strings; argv[0] is the program name.
class Args {
 public:
  Args(std::initializer_list<std::string> args) : strings_(args) {
    strings_.insert(strings_.begin(), "qlutil");
  }
  int argc() const { return static_cast<int>(strings_.size()); }
  // Valid until the next call or the end of this object.
  const char *const *argv() const {
    ptrs_.clear();
    for (const auto &s : strings_) ptrs_.push_back(s.c_str());
    ptrs_.push_back(nullptr);
    return ptrs_.data();
  }

 private:
  std::vector<std::string> strings_;
  mutable std::vector<const char *> ptrs_;
};

// The lines the help screen opens with.
inline std::string HelpIntro() {
  return "Command invocation:\r\n"
         "     -f      Functional test command - see list below\r\n"
         "     -p      Performance test command - see list below\r\n"
         "     -s      Stress test command - see list below\r\n"
         "     -j      Utility command - see list below\r\n";
}

inline std::string Banner() {
  return "QUELTA utility tools - Version: 4.10.0.0\n\r"
         "-------------------------------------------------------\r\n";
}

}  // namespace frontend_test
