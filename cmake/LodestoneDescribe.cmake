include_guard(GLOBAL)

# lodestone_describe(target LAYOUT file NAME name [SIZE bytes])
# Makes the description of a record from its layout while building, and adds it to the target: the source with
# `sondeGet_<name>`, and the header `sonde_<name>.h`, whose `describes_<name><Record>()` checks the record.
# In a cross build the tool is a program of the target and runs through CMAKE_CROSSCOMPILING_EMULATOR.
function(lodestone_describe target)
  cmake_parse_arguments(ARG "" "LAYOUT;NAME;SIZE" "" ${ARGN})
  if(NOT ARG_LAYOUT OR NOT ARG_NAME OR ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "usage: lodestone_describe(target LAYOUT file NAME name [SIZE bytes])")
  endif()
  cmake_path(ABSOLUTE_PATH ARG_LAYOUT BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
  set(directory ${CMAKE_CURRENT_BINARY_DIR}/descriptions/${target})
  set(header sonde_${ARG_NAME}.h)
  set(source sonde_${ARG_NAME}.cpp)
  set(size)
  if(ARG_SIZE)
    set(size --size ${ARG_SIZE})
  endif()
  file(MAKE_DIRECTORY ${directory})
  add_custom_command(
    OUTPUT ${directory}/${source} ${directory}/${header}
    COMMAND lodestone-describe ${ARG_LAYOUT} --header ${ARG_NAME} --output ${directory}/${header}
    COMMAND lodestone-describe ${ARG_LAYOUT} --source ${ARG_NAME} --include ${header} ${size} --output
            ${directory}/${source}
    DEPENDS ${ARG_LAYOUT} lodestone-describe
    COMMENT "Describing ${ARG_NAME}"
    VERBATIM)
  target_sources(${target} PRIVATE ${directory}/${source} ${directory}/${header})
  target_include_directories(${target} PRIVATE ${directory})
endfunction()
