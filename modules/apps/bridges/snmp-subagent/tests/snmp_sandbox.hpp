#pragma once

// Debian's snmpd (AgentX master, SNMPv2c on a free UDP port of loopback) and snmptrapd (its trap
// sink, writing each notification's variables to a file) started in a temporary directory, with
// nothing of the host's net-snmp configuration or MIB files (numeric OIDs only), and snmpget and
// snmpwalk to ask them. The tests of the subagent, in-process and as a program, share it.

#include "xpon/core/file_descriptor.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::snmp_subagent {

using namespace std::chrono_literals;

inline const std::string kSnmpd = "/usr/sbin/snmpd";
inline const std::string kSnmptrapd = "/usr/sbin/snmptrapd";
inline const std::string kSnmpget = "/usr/bin/snmpget";
inline const std::string kSnmpwalk = "/usr/bin/snmpwalk";
inline const std::string kSnmpbulkwalk = "/usr/bin/snmpbulkwalk";

/// What of Debian's net-snmp programs is missing, as a reason to skip (outside CI) or fail; empty
/// when all are there.
inline std::string missing_programs() {
  std::string missing;
  for (const auto* program : {&kSnmpd, &kSnmptrapd, &kSnmpget, &kSnmpwalk, &kSnmpbulkwalk}) {
    if (access(program->c_str(), X_OK) != 0) {
      missing += (missing.empty() ? "" : ", ") + *program;
    }
  }
  return missing.empty() ? std::string() : "not installed (packages snmpd, snmptrapd, snmp): " + missing;
}

/// A UDP port of loopback that nothing uses now.
inline std::uint16_t free_udp_port() {
  const core::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets API takes sockaddr
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (!socket || ::bind(socket.get(), generic, sizeof(address)) != 0 ||
      ::getsockname(socket.get(), generic, &length) != 0) {
    throw std::runtime_error("no free UDP port");
  }
  return ntohs(address.sin_port);
}

/// How many times `part` occurs in `text`, without overlaps.
inline std::size_t count_of(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

class SnmpSandbox {
 public:
  SnmpSandbox() = default;
  ~SnmpSandbox() {
    (void)stop_snmpd();
    if (trapd_) {
      trapd_->stop(SIGTERM, 5s);
    }
  }
  SnmpSandbox(const SnmpSandbox&) = delete;
  SnmpSandbox& operator=(const SnmpSandbox&) = delete;
  SnmpSandbox(SnmpSandbox&&) = delete;
  SnmpSandbox& operator=(SnmpSandbox&&) = delete;

  /// Writes the configurations, sets the net-snmp variables of this process (a subagent in this
  /// process reads them too), starts snmptrapd, then snmpd; what went wrong, or empty.
  [[nodiscard]] std::string start() {
    std::filesystem::create_directories(dir_.file("mibs"));
    std::filesystem::create_directories(dir_.file("conf"));
    std::filesystem::create_directories(dir_.file("persistent"));
    environment_ = {"MIBS=", "MIBDIRS=" + dir_.file("mibs"), "SNMPCONFPATH=" + dir_.file("conf"),
                    "SNMP_PERSISTENT_DIR=" + dir_.file("persistent")};
    for (const auto& setting : environment_) {
      const auto equals = setting.find('=');
      scoped_.push_back(std::make_unique<test::ScopedEnv>(setting.substr(0, equals), setting.substr(equals + 1)));
    }
    agent_port_ = free_udp_port();
    trap_port_ = free_udp_port();
    dir_.write("snmpd.conf", "agentAddress udp:127.0.0.1:" + std::to_string(agent_port_) +
                                 "\nmaster agentx\nagentXSocket " + agentx_socket() +
                                 "\nrocommunity public 127.0.0.1\ntrap2sink 127.0.0.1:" + std::to_string(trap_port_) +
                                 " public\n");
    dir_.write("snmptrapd.conf", "disableAuthorization yes\n");
    trapd_ = std::make_unique<test::Process>(
        std::vector<std::string>{kSnmptrapd, "-f", "-Lo", "-On", "-C", "-c", dir_.file("snmptrapd.conf"), "-F",
                                 "TRAP %v\\n", "127.0.0.1:" + std::to_string(trap_port_)},
        environment_, dir_.file("traps.log"), dir_.file("snmptrapd.errors"));
    if (!test::wait_until([&] { return traps().find("NET-SNMP version") != std::string::npos; }, 10s)) {
      return "snmptrapd did not start: " + traps() + test::read_text_file(dir_.file("snmptrapd.errors"));
    }
    return start_snmpd();
  }

  /// Starts snmpd (again) and waits until it answers; what went wrong, or empty.
  [[nodiscard]] std::string start_snmpd() {
    snmpd_ =
        std::make_unique<test::Process>(std::vector<std::string>{kSnmpd, "-f", "-Lo", "-C", "-c",
                                                                 dir_.file("snmpd.conf"), "-p", dir_.file("snmpd.pid")},
                                        environment_, dir_.file("snmpd.log"), dir_.file("snmpd.errors"));
    if (!test::wait_until([&] { return get({"1.3.6.1.2.1.1.3.0"}).find("Timeticks") != std::string::npos; }, 10s,
                          20ms)) {
      return "snmpd does not answer: " + test::read_text_file(dir_.file("snmpd.log")) +
             test::read_text_file(dir_.file("snmpd.errors"));
    }
    return {};
  }

  /// Stops snmpd; true when it ended with status 0 (or was not running).
  bool stop_snmpd() {
    if (!snmpd_) {
      return true;
    }
    const bool clean = snmpd_->stop(SIGTERM, 5s).exited_with(0);
    snmpd_.reset();
    return clean;
  }

  /// The UDP port of loopback snmpd answers on.
  [[nodiscard]] std::uint16_t agent_port() const { return agent_port_; }

  /// The AgentX socket snmpd listens on.
  [[nodiscard]] std::string agentx_socket() const { return dir_.file("agentx"); }

  /// The environment entries of the sandbox, for a subagent started as a program.
  [[nodiscard]] const std::vector<std::string>& environment() const { return environment_; }

  /// snmpget -On of these OIDs: what it printed.
  std::string get(const std::vector<std::string>& oids) {
    std::vector<std::string> argv{kSnmpget, "-v2c", "-c", "public", "-On",
                                  "-t",     "0.5",  "-r", "0",      "127.0.0.1:" + std::to_string(agent_port_)};
    argv.insert(argv.end(), oids.begin(), oids.end());
    return test::run_program(argv, environment_, 10s).output;
  }

  /// snmpbulkwalk -On of the subtree, 25 rows a request: what it printed.
  std::string bulk_walk(const std::string& oid) {
    return test::run_program({kSnmpbulkwalk, "-v2c", "-c", "public", "-On", "-Cr25", "-t", "0.5", "-r", "0",
                              "127.0.0.1:" + std::to_string(agent_port_), oid},
                             environment_, 20s)
        .output;
  }

  /// snmpwalk -On of the subtree: what it printed.
  std::string walk(const std::string& oid) {
    return test::run_program({kSnmpwalk, "-v2c", "-c", "public", "-On", "-t", "0.5", "-r", "0",
                              "127.0.0.1:" + std::to_string(agent_port_), oid},
                             environment_, 20s)
        .output;
  }

  /// What snmptrapd has written so far: a line "TRAP" and the variables of each notification.
  std::string traps() const { return test::read_text_file(dir_.file("traps.log")); }

 private:
  test::TempDir dir_{"xpon-snmp"};
  std::vector<std::string> environment_;
  std::vector<std::unique_ptr<test::ScopedEnv>> scoped_;
  std::uint16_t agent_port_ = 0;
  std::uint16_t trap_port_ = 0;
  std::unique_ptr<test::Process> trapd_;
  std::unique_ptr<test::Process> snmpd_;
};

}  // namespace xpon::snmp_subagent
