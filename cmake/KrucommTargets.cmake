# One interface target carries what every translation unit of the project is compiled with; it is
# linked privately, so that none of it reaches a consumer of the installed libraries.
add_library(krucomm_options INTERFACE)
if(KRUCOMM_DEVELOPER)
  target_compile_options(
    krucomm_options
    INTERFACE -Wall
              -Wextra
              -Wpedantic
              -Wconversion
              -Wsign-conversion
              -Wshadow
              -Wold-style-cast
              -Wcast-align
              -Wformat=2
              -Werror)
endif()
if(KRUCOMM_SANITIZE STREQUAL "address")
  target_compile_options(
    krucomm_options INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all
                              -fno-omit-frame-pointer)
  target_link_options(krucomm_options INTERFACE -fsanitize=address,undefined)
elseif(KRUCOMM_SANITIZE STREQUAL "thread")
  target_compile_options(krucomm_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(krucomm_options INTERFACE -fsanitize=thread)
endif()
if(KRUCOMM_BUILD_FUZZ)
  # The fuzzer steers by the coverage of everything it runs, not of the harness alone.
  # Watching every comparison as well would cost a quarter of the speed, and the protocols' words
  # are in a dictionary.
  target_compile_options(krucomm_options INTERFACE -fsanitize=fuzzer-no-link
                                                   -fno-sanitize-coverage=trace-cmp)
  target_link_options(krucomm_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(KRUCOMM_COVERAGE)
  # Counters that several threads raise without care run backwards, which no report accepts.
  target_compile_options(krucomm_options INTERFACE --coverage -O0 -fprofile-update=atomic)
  target_link_options(krucomm_options INTERFACE --coverage)
endif()

# krucomm_add_mutable_library(<name>) makes <name>_static a shared object that hides nothing: ./dev
# mutate then replaces it without linking a single test anew.
function(krucomm_add_mutable_library name)
  set_target_properties(${name}_objects PROPERTIES CXX_VISIBILITY_PRESET default
                                                   VISIBILITY_INLINES_HIDDEN OFF)
  add_library(${name}_static SHARED $<TARGET_OBJECTS:${name}_objects>)
  target_link_options(${name}_static PRIVATE LINKER:-Bsymbolic-functions)
  set_property(GLOBAL APPEND_STRING PROPERTY KRUCOMM_MUTABLE_LIBRARIES
                                             "$<TARGET_FILE:${name}_static>\n")
endfunction()

# krucomm_add_library(<name> [C_FACE] SOURCES <file>... LINK <target>...) builds one set of objects
# into the shared library <name> and the static library <name>_static. The tests link the static
# one: they also exercise internals, which the shared object hides. A C_FACE shows plain functions,
# and its users need neither the language nor the libraries that are behind it.
function(krucomm_add_library name)
  cmake_parse_arguments(ARG "C_FACE" "" "SOURCES;LINK" ${ARGN})
  set(behind PUBLIC)
  set(exports "${PROJECT_SOURCE_DIR}/cmake/exports.map")
  if(ARG_C_FACE)
    set(behind PRIVATE)
    set(exports "${PROJECT_SOURCE_DIR}/cmake/exportsC.map")
  endif()
  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  target_include_directories(
    ${name}_objects
    PUBLIC "${PROJECT_SOURCE_DIR}/include" "${PROJECT_BINARY_DIR}/include"
    PRIVATE "${PROJECT_SOURCE_DIR}")
  target_link_libraries(${name}_objects PRIVATE krucomm_options ICU::uc)
  # A symbol that is unique in the whole process keeps its shared object, and with it the others,
  # loaded for ever; a host that unloads its module means all of it.
  target_compile_options(${name}_objects PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_objects>)
  set_target_properties(
    ${name}
    PROPERTIES LINKER_LANGUAGE CXX
               VERSION ${PROJECT_VERSION}
               SOVERSION ${PROJECT_VERSION_MAJOR}
               EXPORT_NAME ${name}
               LINK_DEPENDS "${exports}")
  # The library's calls to its own functions stay inside, whatever functions its host defines.
  target_link_options(${name} PRIVATE
                      "LINKER:--version-script=${exports}"
                      "LINKER:-Bsymbolic-functions")
  if(KRUCOMM_MUTATE)
    krucomm_add_mutable_library(${name})
  else()
    add_library(${name}_static STATIC $<TARGET_OBJECTS:${name}_objects>)
    set_target_properties(${name}_static PROPERTIES OUTPUT_NAME ${name})
  endif()
  set_target_properties(${name}_static PROPERTIES LINKER_LANGUAGE CXX EXPORT_NAME ${name}_static)
  foreach(library ${name} ${name}_static)
    target_include_directories(
      ${library} PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>"
                        "$<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>"
                        "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/krucomm>")
    target_compile_features(${library} ${behind} cxx_std_20)
    target_link_libraries(${library} ${behind} ICU::uc PRIVATE $<BUILD_INTERFACE:krucomm_options>)
  endforeach()
  foreach(dependency ${ARG_LINK})
    target_link_libraries(${name} ${behind} ${dependency})
    target_link_libraries(${name}_static ${behind} ${dependency}_static)
  endforeach()
  add_library(krucomm::${name} ALIAS ${name})
  add_library(krucomm::${name}_static ALIAS ${name}_static)
endfunction()
