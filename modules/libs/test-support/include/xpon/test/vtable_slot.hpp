#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace xpon::test {

/// The slot of a virtual member function in its class's virtual table, counted from 0 at the
/// table's address point (with the Itanium C++ ABI the two destructors take slots 0 and 1); -1
/// for a member function that is not virtual. Lets a test pin the slot order of an interface
/// that other binaries are built against.
template <typename Member>
std::ptrdiff_t vtable_slot(Member member) {
  static_assert(std::is_member_function_pointer_v<Member>);
  struct Representation {
    std::ptrdiff_t pointer;
    std::ptrdiff_t adjustment;
  };
  static_assert(sizeof(Member) == sizeof(Representation));
  Representation representation{};
  std::memcpy(&representation, &member, sizeof representation);
  constexpr auto kSlotSize = static_cast<std::ptrdiff_t>(sizeof(void*));
#if defined(__aarch64__) || defined(__arm__)
  // The Arm C++ ABI marks a virtual member in the adjustment and keeps the plain byte offset.
  if ((representation.adjustment & 1) == 0) {
    return -1;
  }
  return representation.pointer / kSlotSize;
#else
  // The Itanium C++ ABI keeps 1 + the byte offset of a virtual member.
  if ((representation.pointer & 1) == 0) {
    return -1;
  }
  return (representation.pointer - 1) / kSlotSize;
#endif
}

}  // namespace xpon::test
