// The process entry of system-mgr: reads its (absent) arguments and runs the daemon's cycles
// with the daemon's own parts.

#include "xpon/system_mgr/process_entry.hpp"

#include <malloc.h>

#include <cstdio>
#include <string_view>

namespace {

void print_usage(std::FILE* out) {
  std::fputs(
      "Usage: system-mgr [--help]\n"
      "\n"
      "The system manager daemon of the line card: watches the board's health, publishes\n"
      "alarm records and events on the IPC bus, drives the fans and answers requests.\n"
      "Runs under systemd (Type=notify); SIGHUP restarts it in place, SIGINT and SIGTERM stop it.\n"
      "\n"
      "Environment:\n"
      "  XPON_ROOT      place every fixed path (/dev/board, /etc, /var/lib/xpon, /run, the\n"
      "                 factory EEPROM images) under this directory, as on a development machine\n"
      "  NOTIFY_SOCKET  systemd's notification socket (set by systemd)\n",
      out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    const std::string_view argument(argv[1]);
    if (argc == 2 && (argument == "--help" || argument == "-h")) {
      print_usage(stdout);
      return 0;
    }
    std::fprintf(stderr, "system-mgr: unexpected argument '%s'\n", argv[1]);
    print_usage(stderr);
    return 2;
  }

  // Every thread that allocates would get a heap arena of its own (up to eight per core), each
  // keeping pages of its own in the resident set; the daemon's threads allocate little and seldom
  // at the same time, so two arenas serve them all (docs/system-mgr.md has the figures).
  (void)::mallopt(M_ARENA_MAX, 2);
  return xpon::system_mgr::run_daemon(xpon::system_mgr::daemon_cycle_parts());
}
