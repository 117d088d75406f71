#pragma once

#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::logger::test {

/// A test with a fresh directory of its own, removed with everything in it afterwards.
class TempDirTest : public ::testing::Test {
 protected:
  /// The path of a file in the test's directory.
  [[nodiscard]] std::string path(std::string_view name) const { return (dir_ / name).string(); }

  /// Writes a file in the test's directory and returns its path.
  std::string write_file(std::string_view name, std::string_view text) const {
    return temp_.write(std::string(name), std::string(text));
  }

 private:
  xpon::test::TempDir temp_{"logger-test"};

 protected:
  std::filesystem::path dir_ = temp_.path();
};

/// The whole content of a file ("" when it does not exist).
inline std::string read_file(const std::string& file) {
  return xpon::test::read_text_file(file);
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
