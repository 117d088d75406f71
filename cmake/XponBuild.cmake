# Build-wide settings shared by every module: sanitizers, warnings and the
# helpers that declare libraries, programs and tests the same way everywhere.

# How much debug information the compiler writes: "full" (-g, the presets' own), or "lines"
# (-g1: line tables, enough for stack traces and sanitizer reports). CI builds every preset
# from scratch and asks for "lines", which compiles about a quarter faster.
set(XPON_DEBUG_INFO "full" CACHE STRING "Debug information: full (-g) or lines (-g1)")
set_property(CACHE XPON_DEBUG_INFO PROPERTY STRINGS full lines)
if(XPON_DEBUG_INFO STREQUAL "lines")
  add_compile_options(-g1)
elseif(NOT XPON_DEBUG_INFO STREQUAL "full")
  message(FATAL_ERROR "XPON_DEBUG_INFO must be full or lines, not '${XPON_DEBUG_INFO}'")
endif()

# How the test programs' own sources are optimised: "preset" (as the build type says), or "none"
# (-O0). The libraries and programs under test keep the build type's optimisation either way, so
# "none" tests the same code; CI, which builds every preset from scratch, asks for it because the
# test sources are over half of what it compiles and build at -O0 in about half the time.
set(XPON_TEST_OPTIMIZATION "preset" CACHE STRING "Optimisation of the test programs' sources: preset or none")
set_property(CACHE XPON_TEST_OPTIMIZATION PROPERTY STRINGS preset none)
if(NOT XPON_TEST_OPTIMIZATION MATCHES "^(preset|none)$")
  message(FATAL_ERROR "XPON_TEST_OPTIMIZATION must be preset or none, not '${XPON_TEST_OPTIMIZATION}'")
endif()

# Signed integer overflow is fatal in every build. The ASan preset reports it
# through UBSan (and aborts, -fno-sanitize-recover); every other build traps.
if(XPON_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(XPON_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fsanitize=signed-integer-overflow -fsanitize-undefined-trap-on-error)
  add_link_options(-fsanitize=thread)
elseif(XPON_SANITIZER STREQUAL "fuzzer")
  # -O1 as libFuzzer advises: the unoptimised code of a Debug build has several times the
  # coverage counters (a request handler's target: 2918 against 812), and every run scans them all.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
  add_link_options(-fsanitize=address,undefined)
elseif(XPON_SANITIZER STREQUAL "none")
  add_compile_options(-fsanitize=signed-integer-overflow -fsanitize-undefined-trap-on-error)
else()
  message(FATAL_ERROR "XPON_SANITIZER must be none, address, thread or fuzzer, not '${XPON_SANITIZER}'")
endif()

# A slim link (XPON_SLIM_LINK) lets the linker drop every function and object nobody uses.
if(XPON_SLIM_LINK)
  add_compile_options(-ffunction-sections -fdata-sections)
endif()

# xpon_slim_program(<target>): with XPON_SLIM_LINK, the program links libstdc++ and libgcc
# statically and keeps only the sections it uses, so that it maps fewer and smaller files.
# Only for programs that link no C++ shared library: a second libstdc++ would come with one.
function(xpon_slim_program target)
  if(XPON_SLIM_LINK)
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc LINKER:--gc-sections LINKER:--as-needed
                        LINKER:-O1)
  endif()
endfunction()

# Warnings are ours to fix, so they apply to our own targets only.
function(xpon_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
                                           -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual -Wnull-dereference)
  if(XPON_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# xpon_library(NAME <target> ALIAS <xpon::name> SOURCES ... [DEPS ...] [PRIVATE_DEPS ...])
function(xpon_library)
  cmake_parse_arguments(ARG "" "NAME;ALIAS" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${ARG_NAME} STATIC ${ARG_SOURCES})
  add_library(${ARG_ALIAS} ALIAS ${ARG_NAME})
  target_include_directories(${ARG_NAME} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include)
  target_link_libraries(${ARG_NAME} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  xpon_warnings(${ARG_NAME})
endfunction()

# Test programs carrying one of these labels are not declared at all: a preset whose test run
# leaves a label out (the cross build under qemu-user runs no system test) need not build them.
set(XPON_SKIP_TEST_LABELS "" CACHE STRING "Labels whose test programs are not built (a ;-list)")

# xpon_test(NAME <target> SOURCES ... DEPS ... [LABELS unit|component|system threaded ...])
# Tests are discovered when ctest runs, so a sanitizer build never runs them at build time.
# A program with a label of XPON_SKIP_TEST_LABELS is skipped: callers check if(TARGET ...).
function(xpon_test)
  cmake_parse_arguments(ARG "" "NAME;TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  if(NOT XPON_BUILD_TESTS)
    return()
  endif()
  foreach(label IN LISTS ARG_LABELS)
    if(label IN_LIST XPON_SKIP_TEST_LABELS)
      return()
    endif()
  endforeach()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  xpon_warnings(${ARG_NAME})
  if(XPON_TEST_OPTIMIZATION STREQUAL "none")
    # After the build type's flags on the command line, so this -O0 is the one that counts.
    target_compile_options(${ARG_NAME} PRIVATE -O0)
  endif()
  gtest_discover_tests(${ARG_NAME} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT ${ARG_TIMEOUT})
  # Labels are applied by a script of our own that runs after discovery: in PRE_TEST mode
  # CMake 3.25 flattens a list given in PROPERTIES, so only the first label would survive.
  if(ARG_LABELS)
    set(labels_file "${CMAKE_CURRENT_BINARY_DIR}/${ARG_NAME}_labels.cmake")
    file(GENERATE OUTPUT "${labels_file}"
         CONTENT "if(DEFINED ${ARG_NAME}_TESTS)\n  set_tests_properties(\${${ARG_NAME}_TESTS} PROPERTIES LABELS \"${ARG_LABELS}\")\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${labels_file}")
  endif()
  if("threaded" IN_LIST ARG_LABELS)
    set_property(GLOBAL APPEND PROPERTY XPON_THREADED_TEST_TARGETS ${ARG_NAME})
  endif()
endfunction()

# xpon_test_case_labels(TARGET <test target> CASES <Suite.Case>... LABELS <label>...): gives single
# cases of an xpon_test() program their own labels in place of the program's, to keep one case
# out of a preset without losing the others. A case not found stops ctest, so a rename is noticed.
function(xpon_test_case_labels)
  cmake_parse_arguments(ARG "" "TARGET" "CASES;LABELS" ${ARGN})
  if(NOT XPON_BUILD_TESTS)
    return()
  endif()
  set(labels_file "${CMAKE_CURRENT_BINARY_DIR}/${ARG_TARGET}_case_labels.cmake")
  file(GENERATE OUTPUT "${labels_file}"
       CONTENT "if(DEFINED ${ARG_TARGET}_TESTS)\n  set_tests_properties(${ARG_CASES} PROPERTIES LABELS \"${ARG_LABELS}\")\nendif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${labels_file}")
endfunction()
