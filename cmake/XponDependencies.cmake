# Every third-party package comes from Debian 12; scripts/setup installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED)
find_package(fmt 9 REQUIRED)
find_package(spdlog 1.10 REQUIRED)
find_package(cppzmq REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(CLI11 REQUIRED)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(TOMLPLUSPLUS REQUIRED IMPORTED_TARGET tomlplusplus)
pkg_check_modules(FUSE3 REQUIRED IMPORTED_TARGET fuse3)

# The project's names for the libraries whose flavour depends on XPON_SLIM_LINK. With it,
# fmt, spdlog and toml++ are compiled into our own code (header-only) and ZeroMQ and SQLite
# are linked from their static archives, so that system-mgr maps no C++ shared library
# but libstdc++, which it then links statically as well (xpon_slim_program).
add_library(xpon_fmt INTERFACE)
add_library(xpon::fmt ALIAS xpon_fmt)
add_library(xpon_spdlog INTERFACE)
add_library(xpon::spdlog ALIAS xpon_spdlog)
add_library(xpon_tomlplusplus INTERFACE)
add_library(xpon::tomlplusplus ALIAS xpon_tomlplusplus)
if(XPON_SLIM_LINK)
  target_link_libraries(xpon_fmt INTERFACE fmt::fmt-header-only)
  # spdlog::spdlog_header_only would bring the shared fmt back; the same settings, our fmt.
  get_target_property(spdlog_includes spdlog::spdlog_header_only INTERFACE_INCLUDE_DIRECTORIES)
  target_include_directories(xpon_spdlog SYSTEM INTERFACE ${spdlog_includes})
  target_compile_definitions(xpon_spdlog INTERFACE SPDLOG_FMT_EXTERNAL)
  target_link_libraries(xpon_spdlog INTERFACE xpon::fmt Threads::Threads)
  # Without the pkg-config flags (TOML_HEADER_ONLY=0, TOML_SHARED_LIB=1) toml++ is header-only.
  target_include_directories(xpon_tomlplusplus SYSTEM INTERFACE ${TOMLPLUSPLUS_INCLUDE_DIRS})

  # cppzmq links the imported target libzmq, SQLite::SQLite3 is FindSQLite3's: both are
  # pointed at the static archive, with what the archive itself needs. GSSAPI has no static
  # library in Debian, so it stays shared.
  foreach(name zmq sodium pgm norm protokit bsd sqlite3)
    find_library(XPON_STATIC_${name} NAMES lib${name}.a REQUIRED)
  endforeach()
  find_library(XPON_GSSAPI NAMES gssapi_krb5 REQUIRED)
  set_target_properties(libzmq PROPERTIES IMPORTED_LOCATION ${XPON_STATIC_zmq})
  set_property(TARGET libzmq APPEND PROPERTY INTERFACE_LINK_LIBRARIES ${XPON_STATIC_sodium} ${XPON_STATIC_pgm}
                                                                      ${XPON_STATIC_norm} ${XPON_STATIC_protokit}
                                                                      ${XPON_STATIC_bsd} ${XPON_GSSAPI} Threads::Threads rt)
  set_target_properties(SQLite::SQLite3 PROPERTIES IMPORTED_LOCATION ${XPON_STATIC_sqlite3})
  set_property(TARGET SQLite::SQLite3 APPEND PROPERTY INTERFACE_LINK_LIBRARIES Threads::Threads m ${CMAKE_DL_LIBS})
else()
  target_link_libraries(xpon_fmt INTERFACE fmt::fmt)
  target_link_libraries(xpon_spdlog INTERFACE spdlog::spdlog)
  target_link_libraries(xpon_tomlplusplus INTERFACE PkgConfig::TOMLPLUSPLUS)
endif()

if(XPON_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(XPON_BUILD_BENCH)
  find_package(benchmark REQUIRED)
endif()
