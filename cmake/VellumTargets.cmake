# Shared settings for the project's own targets.
# (-Wnull-dereference is left out: GCC 12 reports false positives inside the
# standard library at -O2.) Warnings stay PRIVATE so they
# never leak onto consumers of the libraries.
function(vellum_defaults target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow
    -Wnon-virtual-dtor -Wold-style-cast -Wcast-align)
  if(NOT VELLUM_SANITIZE)
    # Debian's hardening, as its packages are built: checked string and memory
    # functions, stack protector, read-only relocations bound at start. The
    # privileged helpers run as root. Fortify needs optimization, so not in
    # Debug builds.
    target_compile_options(${target} PRIVATE -fstack-protector-strong
      $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now)
  endif()
  if(VELLUM_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 reports out-of-bounds copies inside libstdc++'s vector code at
    # -O3 that cannot happen (fixed in GCC 13).
    target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-stringop-overflow
      -Wno-stringop-overread)
  endif()
  if(VELLUM_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # ASan's instrumentation makes GCC's maybe-uninitialized analysis report
    # std::function and <regex> internals.
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
  endif()
endfunction()

# vellum_library(NAME folder SOURCES ... DEPS ...)
function(vellum_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  vellum_defaults(${name})
endfunction()

# vellum_test(NAME SOURCES ... DEPS ... [LABELS ...] [LOOP_DEVICES])
# LOOP_DEVICES: the tests attach loop devices; they never run beside other
# such tests, so a device one of them detaches and re-attaches stays its own.
function(vellum_test name)
  cmake_parse_arguments(ARG "LOOP_DEVICES" "" "SOURCES;DEPS;LABELS" ${ARGN})
  set(lock "")
  if(ARG_LOOP_DEVICES)
    set(lock RESOURCE_LOCK loop-devices)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} vellum_test_support GTest::gtest_main GTest::gmock)
  vellum_defaults(${name})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${ARG_LABELS}" ${lock})
endfunction()
