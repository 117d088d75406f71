// How many descriptors the process may still open. ZeroMQ aborts the whole process when its
// listener's accept() finds none left (libzmq asserts on EMFILE), so an endpoint refuses to
// open a socket of its own before the process comes near its RLIMIT_NOFILE.
#pragma once

#include <cstddef>
#include <optional>

namespace xpon::ipc::detail {

/// Descriptors a new outgoing link takes: the socket's ZeroMQ mailbox and its connection.
inline constexpr std::size_t kDescriptorsPerOutlet = 2;

/// Descriptors kept free under a limit for what the endpoint cannot refuse (connections its
/// inbox accepts, the rest of the process): a quarter of the limit, at least 16.
[[nodiscard]] std::size_t descriptor_reserve(std::size_t limit) noexcept;

/// The verdict: true when `needed` more descriptors still leave the reserve free with `open`
/// of `limit` in use.
[[nodiscard]] bool descriptors_to_spare(std::size_t open, std::size_t limit, std::size_t needed) noexcept;

/// The process's soft RLIMIT_NOFILE; nullopt when it is unlimited or cannot be read.
[[nodiscard]] std::optional<std::size_t> descriptor_limit() noexcept;

/// The descriptors the process has open (the entries of /proc/self/fd, less the one reading
/// them); nullopt when the directory cannot be read.
[[nodiscard]] std::optional<std::size_t> count_open_descriptors() noexcept;

/// True when the process may open `needed` more descriptors under its limit; also true when
/// the limit or the count cannot be had (nothing to judge by: ZeroMQ's own limits still apply).
[[nodiscard]] bool process_has_descriptors(std::size_t needed) noexcept;

}  // namespace xpon::ipc::detail
