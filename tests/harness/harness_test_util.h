#pragma once
// Helpers of the harness tests: parameter arrays, a private working directory, file reading.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "qlutil.h"

// A parameter array as the parser builds it: {"-a", "127.0.0.1"}, {"--retfiles", ""}.
class Params {
 public:
  Params(std::initializer_list<std::pair<const char *, const char *>> entries) {
    for (const auto &[name, value] : entries) {
      TEST_PARAMETER p{};
      strncpy(p.szParameter, name, sizeof p.szParameter - 1);
      strncpy(p.szValue, value, sizeof p.szValue - 1);
      params_.push_back(p);
    }
  }
  TEST_PARAMETER *data() { return params_.empty() ? nullptr : params_.data(); }
  int size() const { return static_cast<int>(params_.size()); }

 private:
  std::vector<TEST_PARAMETER> params_;
};

// Runs the test in a fresh temporary directory (result files land in the working directory).
class TempCwd {
 public:
  TempCwd() {
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    path_ =
        std::filesystem::temp_directory_path() / ("ql_harness_" + std::to_string(getpid()) + "_" +
                                                  info->test_suite_name() + "_" + info->name());
    std::filesystem::create_directories(path_);
    old_ = std::filesystem::current_path();
    std::filesystem::current_path(path_);
  }
  ~TempCwd() {
    std::filesystem::current_path(old_);
    std::filesystem::remove_all(path_);
  }
  const std::filesystem::path &path() const { return path_; }

 private:
  std::filesystem::path path_;
  std::filesystem::path old_;
};

inline std::string ReadFile(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline bool Contains(const std::string &haystack, const std::string &needle) {
  return haystack.find(needle) != std::string::npos;
}
