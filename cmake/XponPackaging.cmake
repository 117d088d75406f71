# Debian packages made by CPack, one per install component:
#   daemon   -> xpon-system-mgr  the daemon, the event bus, their units, the default configuration
#   tools    -> xpon-tools       system-mgr-ctl, xpon-ipc, xpon-election-stub, xpon-cfg, xpon-factory, xpon-crate
#   emulator -> xpon-board-emu   the board emulator, its unit and the example scenarios
#   bridges  -> xpon-bridges     the Prometheus exporter (and SNMP subagent) with their units
# `cpack --config build/<preset>/CPackConfig.cmake -B build/<preset>/packages` makes them for the
# preset's architecture (amd64 for release, arm64 for the arm64 preset).

set(XPON_PACKAGE_MAINTAINER "xPON platform team <xpon-platform@example.org>"
    CACHE STRING "The Maintainer field of the Debian packages")

# Every package carries its copyright file and a compressed changelog, as Debian policy asks.
set(xpon_docs_dir "${PROJECT_BINARY_DIR}/packaging/doc")
file(MAKE_DIRECTORY "${xpon_docs_dir}")
file(READ "${PROJECT_SOURCE_DIR}/packaging/debian/changelog.in" xpon_changelog_template)
foreach(package xpon-system-mgr xpon-tools xpon-board-emu xpon-bridges)
  string(REPLACE "@PACKAGE@" "${package}" changelog "${xpon_changelog_template}")
  string(REPLACE "@VERSION@" "${PROJECT_VERSION}" changelog "${changelog}")
  string(REPLACE "@MAINTAINER@" "${XPON_PACKAGE_MAINTAINER}" changelog "${changelog}")
  file(WRITE "${xpon_docs_dir}/${package}/changelog.Debian" "${changelog}")
  # -n leaves the name and time out of the header, so the same source gives the same package.
  execute_process(COMMAND gzip -9nf "${xpon_docs_dir}/${package}/changelog.Debian" COMMAND_ERROR_IS_FATAL ANY)
endforeach()

set(xpon_components daemon tools emulator bridges)
set(xpon_package_daemon xpon-system-mgr)
set(xpon_package_tools xpon-tools)
set(xpon_package_emulator xpon-board-emu)
set(xpon_package_bridges xpon-bridges)
foreach(component IN LISTS xpon_components)
  set(package ${xpon_package_${component}})
  install(FILES "${PROJECT_SOURCE_DIR}/packaging/debian/copyright" "${xpon_docs_dir}/${package}/changelog.Debian.gz"
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME xpon)
# Each package has a summary line of its own: the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_VENDOR "xPON platform team")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "${XPON_PACKAGE_MAINTAINER}")
set(CPACK_COMPONENTS_ALL ${xpon_components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
# Maintainer scripts go in mode 0755 and the other control files 0644.
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
else()
  message(FATAL_ERROR "no Debian architecture known for ${CMAKE_SYSTEM_PROCESSOR}")
endif()

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME xpon-system-mgr)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS "xpon-tools (= ${PROJECT_VERSION}-1)")
set(CPACK_COMPONENT_DAEMON_DESCRIPTION
   "board-health daemon of xPON line cards
system-mgr watches the board of a GPON OLT line card (CPU load, memory, flash
partitions, temperatures, fans, optical modules) and raises and clears its
alarms; xpon-ipc-bus forwards the events of every endpoint of the board.
Both run as systemd services under the system user xpon.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-system-mgr/conffiles"
    "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-system-mgr/postinst"
    "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-system-mgr/prerm"
    "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-system-mgr/postrm")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME xpon-tools)
# xpon-crate is a Python 3 script (standard library only).
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "python3")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "xpon-system-mgr, xpon-board-emu")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
   "command-line tools for the xPON system manager
system-mgr-ctl asks the daemon for its readings and decodes its events,
xpon-ipc sends and serves raw IPC messages, xpon-election-stub stands in for
the Election Manager where the platform has none, xpon-cfg reads and changes
the configuration database, xpon-factory reads and writes factory EEPROM
images and xpon-crate runs a crate of emulated boards on one machine (with
the packages xpon-system-mgr and xpon-board-emu).")

set(CPACK_DEBIAN_EMULATOR_PACKAGE_NAME xpon-board-emu)
set(CPACK_DEBIAN_EMULATOR_PACKAGE_DEPENDS "fuse3")
set(CPACK_COMPONENT_EMULATOR_DESCRIPTION
   "board emulator for the xPON system manager
xpon-board-emu serves the board driver device of an xPON line card from a
scenario file through FUSE, so that the daemon and its tools run on a
development machine without the hardware. Example scenarios for the three
board families are included.")
set(CPACK_DEBIAN_EMULATOR_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-board-emu/postinst"
                                                "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-board-emu/postrm")

set(CPACK_DEBIAN_BRIDGES_PACKAGE_NAME xpon-bridges)
# The bridges run as the daemon's user xpon and ask the daemon over its IPC directory.
set(CPACK_DEBIAN_BRIDGES_PACKAGE_DEPENDS "xpon-system-mgr (= ${PROJECT_VERSION}-1)")
set(CPACK_DEBIAN_BRIDGES_PACKAGE_SUGGESTS "prometheus, snmpd")
set(CPACK_COMPONENT_BRIDGES_DESCRIPTION
   "operator bridges of the xPON system manager
xpon-exporter serves the board's temperatures, fans, supplies, crate modules,
optical modules with their diagnostics and the raised alarms as Prometheus
metrics over HTTP, read from the system manager over IPC.
xpon-snmp-subagent serves the same to the board's snmpd over AgentX
(ENTITY-MIB, ENTITY-SENSOR-MIB, ALARM-MIB and XPON-BOARD-MIB).")
set(CPACK_DEBIAN_BRIDGES_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-bridges/postinst"
                                               "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-bridges/prerm"
                                               "${PROJECT_SOURCE_DIR}/packaging/debian/xpon-bridges/postrm")

include(CPack)
