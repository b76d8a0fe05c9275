# lodestone_add_fuzz_target(name SOURCES ... [LIBRARIES ...])
# A target that takes any bytes, with inputs worth keeping in corpus/NAME. Every preset runs those once, as the test
# Fuzz.NAME of the program replay_NAME, so that what was found stays mended. The fuzz preset also builds fuzz_NAME, which
# looks for more; `./dev fuzz` runs it.
include_guard(GLOBAL)
if(LODESTONE_FUZZ)
  add_custom_target(fuzz_targets)
endif()

function(lodestone_add_fuzz_target name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  set(support ${PROJECT_SOURCE_DIR}/core/app-specific/fuzz/support)
  add_library(fuzz_${name}_objects OBJECT ${ARG_SOURCES} ${support}/FuzzTarget.cpp)
  target_include_directories(fuzz_${name}_objects PUBLIC ${support})
  target_link_libraries(fuzz_${name}_objects PUBLIC ${ARG_LIBRARIES} PRIVATE lodestone_options)
  lodestone_tidy(fuzz_${name}_objects)

  add_executable(replay_${name} ${support}/ReplayCorpus.cpp)
  target_link_libraries(replay_${name} PRIVATE fuzz_${name}_objects lodestone_options)
  lodestone_tidy(replay_${name})
  add_test(NAME Fuzz.${name} COMMAND replay_${name} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
  set_tests_properties(Fuzz.${name} PROPERTIES TIMEOUT 300)

  if(LODESTONE_FUZZ)
    # New ways through the target's own checks are no discovery.
    set_source_files_properties(${ARG_SOURCES} PROPERTIES COMPILE_OPTIONS -fno-sanitize=fuzzer-no-link)
    add_executable(fuzz_${name} $<TARGET_OBJECTS:fuzz_${name}_objects>)
    target_link_libraries(fuzz_${name} PRIVATE ${ARG_LIBRARIES} lodestone_options)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    add_dependencies(fuzz_targets fuzz_${name})
  endif()
endfunction()
