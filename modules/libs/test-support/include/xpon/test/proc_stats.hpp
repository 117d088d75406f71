#pragma once

// What /proc tells of a running process, for benchmarks that measure a daemon from outside:
// its CPU time and its memory.

#include <sys/types.h>

#include <string>

namespace xpon::test {

/// A value in KiB from a /proc file of the process whose lines read "Field: N kB" ("status",
/// "smaps_rollup"); -1 when it cannot be read.
double proc_kib(pid_t pid, const std::string& file, const std::string& field);

/// A value from /proc/PID/status in KiB ("VmRSS", "VmHWM"); -1 when it cannot be read.
double status_kib(pid_t pid, const std::string& field);

/// A value from /proc/PID/smaps_rollup in KiB ("Pss", "Pss_Anon", "Pss_File"); -1 when it
/// cannot be read. Proportional set sizes count a page shared with N processes as 1/N.
double smaps_rollup_kib(pid_t pid, const std::string& field);

/// User plus system time of a process in seconds, from /proc/PID/stat; -1 when unreadable.
double cpu_seconds(pid_t pid);

}  // namespace xpon::test
