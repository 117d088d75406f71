#pragma once

#include <sys/types.h>

#include <cstddef>
#include <set>
#include <string>

namespace xpon::test {

/// The descriptors of this process that a program it starts would inherit (open without
/// FD_CLOEXEC), each as "<number> -> <what it refers to>"; the standard streams 0 to 2 are left
/// out. A test takes the set before and after a component opens its descriptors: anything new
/// would leak into every child of the process.
std::set<std::string> inheritable_descriptors();

/// The same for another running process of the same user (read from /proc/<pid>/fdinfo).
std::set<std::string> inheritable_descriptors(pid_t process);

/// What `after` holds that `before` did not.
std::set<std::string> added_descriptors(const std::set<std::string>& before, const std::set<std::string>& after);

/// How many descriptors of this process refer to `target`: a file's path, or a kernel object's
/// name as /proc shows it ("anon_inode:[eventfd]").
std::size_t descriptors_open_on(const std::string& target);

}  // namespace xpon::test
