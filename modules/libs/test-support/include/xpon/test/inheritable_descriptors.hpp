#pragma once

#include <set>
#include <string>

namespace xpon::test {

/// The descriptors of this process that a program it starts would inherit (open without
/// FD_CLOEXEC), each as "<number> -> <what it refers to>"; the standard streams 0 to 2 are left
/// out. A test takes the set before and after a component opens its descriptors: anything new
/// would leak into every child of the process.
std::set<std::string> inheritable_descriptors();

/// What `after` holds that `before` did not.
std::set<std::string> added_descriptors(const std::set<std::string>& before, const std::set<std::string>& after);

}  // namespace xpon::test
