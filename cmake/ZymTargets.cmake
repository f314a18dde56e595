# Shared build rules. Every target of the project links zym_options, so that flags live in one place.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()
# -O3 in place of CMake's default set; asserts stay in debug and sanitizer builds only.
set(CMAKE_CXX_FLAGS_RELEASE "-O3 -DNDEBUG")
set(CMAKE_C_FLAGS_RELEASE "-O3 -DNDEBUG")

add_library(zym_options INTERFACE)
target_include_directories(zym_options INTERFACE
  "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/include")
# A fused multiply-add happens where the code says fma and nowhere else: results are part of the
# interface, so the compiler must not contract a * b + c on its own.
target_compile_options(zym_options INTERFACE -ffp-contract=off
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wredundant-decls -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wsuggest-override>
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wzero-as-null-pointer-constant>)  # clang++ means NULL, too
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # This release sees an overlap in std::string's operator+ that is not there (GCC bug 105651).
  target_compile_options(zym_options INTERFACE -Wno-restrict)
endif()

if(ZYM_SANITIZE)
  target_compile_options(zym_options INTERFACE
    -fsanitize=${ZYM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(zym_options INTERFACE -fsanitize=${ZYM_SANITIZE})
  # Programs with a sanitizer's runtime are large: the default linker takes seconds for each.
  find_program(ZYM_LLD ld.lld)
  if(ZYM_LLD AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_link_options(zym_options INTERFACE -fuse-ld=lld)
  endif()
endif()
if(ZYM_FUZZ)
  # The libraries need the fuzzer's counters too: its search follows the code that inputs reach.
  target_compile_options(zym_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(ZYM_COVERAGE)
  target_compile_options(zym_options INTERFACE --coverage)
  target_link_options(zym_options INTERFACE --coverage)
endif()

# For what computes little: with the sanitizers, compiling that with optimisation takes longer than all
# of its tests; so it does where a cross-build is made for its few emulated tests. There g++ keeps the
# analysis of ranges, from which it has its warnings of indices out of bounds.
add_library(zym_idle_options INTERFACE)
if(ZYM_SANITIZE)
  target_compile_options(zym_idle_options INTERFACE -O0)
elseif(CMAKE_CROSSCOMPILING AND ZYM_TESTS)
  target_compile_options(zym_idle_options INTERFACE -O1 -ftree-vrp)
endif()

# What most sources include, compiled once for all libraries of the same flags: to read it takes
# longer than to compile what most sources add. clang-tidy goes without, and sees to it that every
# source includes what it uses; so does the build for ARM, for the warnings below.
set(zym_common_headers
  <algorithm> <array> <chrono> <cmath> <cstdint> <cstring> <filesystem> <functional> <limits> <map>
  <memory> <mutex> <optional> <span> <string> <string_view> <thread> <unordered_map> <utility>
  <vector>)

# zym_precompile_headers(name arguments of target_precompile_headers...), where that is of use.
function(zym_precompile_headers name)
  if(CMAKE_CROSSCOMPILING OR CMAKE_DISABLE_PRECOMPILE_HEADERS)
    return()
  endif()
  target_precompile_headers(${name} ${ARGN})
  # g++ forgets in a precompiled header where the standard library silences these, and then sees
  # faults in std::string that are not there.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${name} PRIVATE
      -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread)
  endif()
endfunction()

file(GENERATE OUTPUT "${CMAKE_BINARY_DIR}/common_headers.cpp" CONTENT "")
foreach(name zym_headers zym_openmp_headers)
  add_library(${name} OBJECT "${CMAKE_BINARY_DIR}/common_headers.cpp")
  target_link_libraries(${name} PRIVATE zym_options)
  zym_precompile_headers(${name} PRIVATE ${zym_common_headers})
endforeach()
target_link_libraries(zym_openmp_headers PRIVATE OpenMP::OpenMP_CXX)

# zym_add_library(name SOURCES ... DEPS ... [HEADERS target]): one static library per folder, linked
# into the plugin. HEADERS names the target of the same flags whose precompiled headers it uses, or is
# "none".
function(zym_add_library name)
  cmake_parse_arguments(ARG "" "HEADERS" "SOURCES;DEPS" ${ARGN})
  if(NOT ARG_HEADERS)
    set(ARG_HEADERS zym_headers)
  endif()
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC zym_options ${ARG_DEPS})
  if(NOT ARG_HEADERS STREQUAL "none")
    zym_precompile_headers(${name} REUSE_FROM ${ARG_HEADERS})
  endif()
endfunction()

# Tests spend their time in what they test.
add_library(zym_test_options INTERFACE)
target_compile_options(zym_test_options INTERFACE $<$<CONFIG:Release>:-O1>)
if(ZYM_SANITIZE OR ZYM_COVERAGE)
  target_compile_definitions(zym_test_options INTERFACE ZYM_INSTRUMENTED)
endif()
target_link_libraries(zym_test_options INTERFACE zym_options zym_idle_options)

include(EmulatedTests)

# Cases of shapes that go through the same code as smaller ones, only for longer.
set(zym_largest_shapes "*/27B:*/of27B:*/Heads24On4And48On16")

# zym_add_test(name SOURCES ... DEPS ... [LABELS ...] [TIMEOUT s] [JSON]): a GoogleTest program whose
# test cases become CTest tests of their own, except in a cross-build that leaves it out. With the
# sanitizers and through an emulator, where the start of a process takes longer than most cases, the
# program is one test, without the largest shapes. Idle OpenMP threads sleep: tests run beside each
# other, and threads that spin for work take the processor from those that have some. JSON: most of
# its sources read that.
function(zym_add_test name)
  cmake_parse_arguments(ARG "JSON" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 1800)  # generous: sanitizer builds on a busy machine
  endif()
  add_executable(${name} ${ARG_SOURCES})
  # OpenMP for all: precompiled headers serve programs of the same flags only.
  target_link_libraries(${name} PRIVATE
    zym_test_options ${ARG_DEPS} GTest::gtest_main OpenMP::OpenMP_CXX)
  if(NOT ARG_SOURCES MATCHES "\\.c(;|$)")  # a C program has no use for them
    if(ARG_JSON)
      target_precompile_headers(${name} REUSE_FROM zym_json_test_headers)
    else()
      target_precompile_headers(${name} REUSE_FROM zym_test_headers)
    endif()
  endif()
  if(CMAKE_CROSSCOMPILING AND NOT name IN_LIST zym_emulated_tests)
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
    return()
  endif()
  if(ZYM_SANITIZE OR CMAKE_CROSSCOMPILING)
    add_test(NAME ${name} COMMAND ${name} --gtest_brief=1 --gtest_filter=-${zym_largest_shapes})
    set_tests_properties(${name} PROPERTIES
      TIMEOUT ${ARG_TIMEOUT} ENVIRONMENT OMP_WAIT_POLICY=passive LABELS "${ARG_LABELS}")
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
      PROPERTIES TIMEOUT ${ARG_TIMEOUT} ENVIRONMENT OMP_WAIT_POLICY=passive LABELS "${ARG_LABELS}")
  endif()
endfunction()

# zym_add_benchmark(name SOURCES ... DEPS ...): a Google Benchmark program.
function(zym_add_benchmark name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE
    zym_options zym_idle_options ${ARG_DEPS} benchmark::benchmark_main)
endfunction()

# zym_add_fuzzer(name SOURCES ... DEPS ...): a libFuzzer target with ZYM_FUZZ; otherwise the same
# source with a small main that replays the seeds of fuzz/seeds/<name>, registered as a test.
function(zym_add_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zym_options ${ARG_DEPS})
  if(ZYM_FUZZ)
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  else()
    target_link_libraries(${name} PRIVATE zym_test_options zym_replay_main)
    add_test(NAME fuzz.${name} COMMAND ${name} "${PROJECT_SOURCE_DIR}/fuzz/seeds/${name}")
  endif()
endfunction()
