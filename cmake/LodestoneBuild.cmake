# What every target of this project is built with, and how its tests are registered.

# lodestone_options: language level, warnings as errors, sanitizers. Private to our own targets.
add_library(lodestone_options INTERFACE)
target_compile_features(lodestone_options INTERFACE cxx_std_17)
target_compile_options(
  lodestone_options
  INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
            $<$<CXX_COMPILER_ID:Clang>:$<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety;-Wthread-safety-beta>>)
# One meaning of off_t, time_t and the socket calls on 32 and 64 bit alike.
target_compile_definitions(lodestone_options INTERFACE _GNU_SOURCE)

add_library(lodestone_sanitizers INTERFACE)
if(LODESTONE_SANITIZE)
  target_compile_options(lodestone_sanitizers INTERFACE -fsanitize=${LODESTONE_SANITIZE}
                                                        -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(lodestone_sanitizers INTERFACE -fsanitize=${LODESTONE_SANITIZE})
endif()
target_link_libraries(lodestone_options INTERFACE lodestone_sanitizers)

# lodestone_tidy(target): runs clang-tidy over the sources of a target in the tidy preset.
function(lodestone_tidy target)
  if(LODESTONE_TIDY)
    set_target_properties(${target} PROPERTIES CXX_CLANG_TIDY "clang-tidy;--quiet;--warnings-as-errors=*")
  endif()
endfunction()

# lodestone_add_test(name SOURCES ... [LIBRARIES ...] [TIMEOUT seconds] [WRAP function ...])
# One GoogleTest program; each case becomes a test of its own with its own process and time limit. WRAP names
# C functions whose calls from the linked objects go to the test's __wrap_NAME, for faults and interleavings.
function(lodestone_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBRARIES;WRAP;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  if(CMAKE_CROSSCOMPILING OR LODESTONE_SANITIZE)
    math(EXPR ARG_TIMEOUT "${ARG_TIMEOUT} * 5")
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} lodestone_options GTest::gtest_main)
  foreach(function IN LISTS ARG_WRAP)
    target_link_options(${name} PRIVATE "LINKER:--wrap=${function}")
  endforeach()
  gtest_discover_tests(
    ${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()
