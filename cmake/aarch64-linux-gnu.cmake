# Cross build for the boards: 64-bit Arm, Debian multiarch. The compilers come from
# crossbuild-essential-arm64 and the libraries from the :arm64 development packages, which
# install beside the amd64 ones (/usr/lib/aarch64-linux-gnu); the headers under /usr/include
# are shared by both architectures.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# pkg-config must see the arm64 .pc files only, never the build machine's.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Test programs run under user-mode emulation; -L / lets it find the arm64 loader and
# libraries that multiarch installed in the build machine's own root.
find_program(XPON_QEMU_AARCH64 qemu-aarch64-static)
if(XPON_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${XPON_QEMU_AARCH64};-L;/")
endif()
