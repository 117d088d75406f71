#pragma once

#include <optional>
#include <string>

namespace xpon::test {

/// A fresh directory under the system's temporary folder, removed with everything in it when the
/// object goes, unless something is still mounted inside (it never reaches into a foreign file system).
class TempDir {
 public:
  /// Makes "<temporary folder>/<prefix>-XXXXXX"; throws std::runtime_error when it cannot.
  explicit TempDir(const std::string& prefix = "xpon-test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  /// The directory.
  [[nodiscard]] const std::string& path() const { return path_; }

  /// A path under the directory: file("a/b") is "<directory>/a/b".
  [[nodiscard]] std::string file(const std::string& relative) const { return path_ + "/" + relative; }

  /// Writes `text` to file(relative) and returns that path; throws std::runtime_error when it cannot.
  std::string write(const std::string& relative, const std::string& text) const;

 private:
  std::string path_;
};

/// Sets (or with no value removes) an environment variable of this process for as long as the object
/// lives, then puts back what was there before.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, const std::optional<std::string>& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

/// A fresh, empty directory that is this process's XPON_ROOT for as long as the object lives.
class TempRoot {
 public:
  explicit TempRoot(const std::string& prefix = "xpon-tmp");
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  /// The root directory.
  [[nodiscard]] const std::string& path() const { return dir_.path(); }

  /// A path under the root: file("dev/board") is "<root>/dev/board".
  [[nodiscard]] std::string file(const std::string& relative) const { return dir_.file(relative); }

 private:
  TempDir dir_;
  ScopedEnv root_;
};

/// True when `directory` is a mount point now (as /proc/self/mountinfo lists it).
bool is_mount_point(const std::string& directory);

/// True when something is mounted at `directory` or anywhere below it.
bool has_mount_inside(const std::string& directory);

}  // namespace xpon::test
