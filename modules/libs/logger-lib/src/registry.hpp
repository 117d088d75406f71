#pragma once

#include "xpon/logger/raw_category.h"

#include <spdlog/common.h>
#include <spdlog/sinks/sink.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

// A category handle as C code sees it; owned by the process-wide registry and never freed, so
// a handle stays valid for as long as any library may hold it.
struct zlog_category_s {
  std::string name;
};

namespace xpon::logger::detail {

/// The pattern used when a configuration gives none, and by the built-in default routing.
inline constexpr std::string_view kDefaultPattern = "%Y-%m-%d %H:%M:%S.%e %n %l %s:%# %v";

/// The routing of one logging context: the lowest level written and the sinks written to.
struct ContextState {
  spdlog::level::level_enum level = spdlog::level::info;
  std::vector<spdlog::sink_ptr> sinks;
};

/// Makes `state` the routing of every logger until it is uninstalled.
void install(std::shared_ptr<ContextState> state);

/// Removes `state` from the routing; the context installed before it (or the default) takes over.
void uninstall(const std::shared_ptr<ContextState>& state) noexcept;

/// The handle of a category, made on first use.
zlog_category_s* category(std::string_view name);

/// Writes one line of a category through the current routing; never throws.
void write(const zlog_category_s& category, int level, std::string_view text, const spdlog::source_loc& where) noexcept;

/// Tells stderr that logging itself failed (a sink could not write), at most once a minute.
void report_failure(std::string_view what) noexcept;

}  // namespace xpon::logger::detail
