#include "xpon/test/proc_stats.hpp"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace xpon::test {

double proc_kib(pid_t pid, const std::string& file, const std::string& field) {
  std::ifstream lines("/proc/" + std::to_string(pid) + "/" + file);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind(field + ":", 0) == 0) {
      return std::stod(line.substr(field.size() + 1));
    }
  }
  return -1.0;
}

double status_kib(pid_t pid, const std::string& field) {
  return proc_kib(pid, "status", field);
}

double smaps_rollup_kib(pid_t pid, const std::string& field) {
  return proc_kib(pid, "smaps_rollup", field);
}

double cpu_seconds(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(stat, text);
  // The command name may hold spaces: the fields are counted from its closing parenthesis.
  const auto end_of_name = text.rfind(')');
  if (end_of_name == std::string::npos) {
    return -1.0;
  }
  std::istringstream fields(text.substr(end_of_name + 2));
  std::string field;
  double ticks = 0.0;
  // State is field 3 of the line; utime and stime are fields 14 and 15.
  for (int number = 3; number <= 15 && fields >> field; ++number) {
    if (number >= 14) {
      ticks += std::stod(field);
    }
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace xpon::test
