#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::logger::test {

/// A fresh directory for one test, removed with everything in it afterwards.
class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/logger-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }

  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  /// The path of a file in the test's directory.
  [[nodiscard]] std::string path(std::string_view name) const { return (dir_ / name).string(); }

  /// Writes a file in the test's directory and returns its path.
  std::string write_file(std::string_view name, std::string_view text) const {
    std::string file = path(name);
    std::ofstream out(file, std::ios::binary);
    out << text;
    return file;
  }

  std::filesystem::path dir_;
};

/// The whole content of a file ("" when it does not exist).
inline std::string read_file(const std::string& file) {
  std::string text;
  std::FILE* stream = std::fopen(file.c_str(), "rb");
  if (stream == nullptr) {
    return text;
  }
  char buffer[4096];
  for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, stream)) > 0;) {
    text.append(buffer, count);
  }
  std::fclose(stream);
  return text;
}

/// The lines of a text, without their line ends.
inline std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

}  // namespace xpon::logger::test
