# One library per source folder, which sees the headers of the libraries it is linked to and no
# others: each library publishes a directory of its own below ${CMAKE_BINARY_DIR}/include that holds
# links to its folder's headers under their paths in the source tree. A dependency against the
# arrows of docs/map.md therefore fails to compile.

include(GoogleTest)

# _precompile(TARGET HEADERS...): a precompiled header for others to reuse.
#
# The file contains absolute paths, so ccache would take it for a different one in each checkout.
# The checksum of its sources beside it is what ccache uses instead.
function(_precompile target)
  # Touched only if it is new.
  file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/pch/empty.cpp" CONTENT "\n")
  add_library(${target} OBJECT "${CMAKE_BINARY_DIR}/pch/empty.cpp")
  list(TRANSFORM ARGN PREPEND "#include " OUTPUT_VARIABLE includes)
  list(JOIN includes "\n" includes)
  set(probe "${CMAKE_BINARY_DIR}/pch/${target}.cpp")
  file(CONFIGURE OUTPUT "${probe}" CONTENT "${includes}\n")
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -std=c++23 -E -P "${probe}" OUTPUT_VARIABLE text
                  COMMAND_ERROR_IS_FATAL ANY)
  string(SHA256 checksum "${CMAKE_CXX_COMPILER_VERSION} ${text}")
  file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/CMakeFiles/${target}.dir/cmake_pch.hxx.gch.sum"
       CONTENT "${checksum}\n")
  target_precompile_headers(${target} PRIVATE ${ARGN})
  set_target_properties(${target} PROPERTIES UNITY_BUILD OFF)
endfunction()

# _for_shared_library(TARGET): the kit's shared library is made of the static ones. Their names are not
# visible outside of it, so in programs the code is as fast as without this.
function(_for_shared_library target)
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()
if(EXISTS /var/lib/dpkg/status)  # Another version of a package may bring other headers.
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS /var/lib/dpkg/status)
endif()

# Optimising a test takes longer than running it (the tested code is optimised), and two of UBSan's
# checks are a third of the compile time: a null pointer that a test itself dereferences is reported
# anyway.
set(test_options -O0)
if(VANTOR_SANITIZE MATCHES "undefined")
  list(APPEND test_options -fno-sanitize=null,alignment)
endif()

set(common_headers
  <algorithm> <atomic> <chrono> <expected> <functional> <map> <memory> <mutex> <optional> <span>
  <string> <string_view> <unordered_map> <utility> <variant> <vector>)
_precompile(pch ${common_headers})
_for_shared_library(pch)
_precompile(test_pch ${common_headers} <gmock/gmock.h> <gtest/gtest.h>)
target_link_libraries(test_pch PRIVATE GTest::gmock)
target_compile_options(test_pch PRIVATE ${test_options})

function(_publish_headers target source_folder)
  file(RELATIVE_PATH folder "${CMAKE_SOURCE_DIR}" "${source_folder}")
  set(published "${CMAKE_BINARY_DIR}/include/${target}")
  file(REMOVE_RECURSE "${published}")
  file(MAKE_DIRECTORY "${published}/${folder}")
  file(GLOB headers CONFIGURE_DEPENDS "${source_folder}/*.h")
  foreach(header IN LISTS headers)
    get_filename_component(name "${header}" NAME)
    file(CREATE_LINK "${header}" "${published}/${folder}/${name}" SYMBOLIC)
  endforeach()
  set(${target}_INCLUDE "${published}" PARENT_SCOPE)
endfunction()

# folder_part(TARGET FOLDER [LINK targets...] [PRIVATE targets...])
#
# A static library of every .cpp in FOLDER but main.cpp and the tests. LINK is visible to users of the
# library, PRIVATE to its own sources.
function(folder_part target folder)
  cmake_parse_arguments(ARG "" "" "LINK;PRIVATE" ${ARGN})
  get_filename_component(folder "${folder}" ABSOLUTE)
  file(GLOB sources CONFIGURE_DEPENDS "${folder}/*.cpp")
  list(FILTER sources EXCLUDE REGEX "(_test|/main)\\.cpp$")
  _publish_headers(${target} "${folder}")
  if(sources)
    add_library(${target} STATIC ${sources})
    target_include_directories(${target} PUBLIC "${${target}_INCLUDE}")
    target_link_libraries(${target} PUBLIC ${ARG_LINK} PRIVATE ${ARG_PRIVATE})
    target_precompile_headers(${target} REUSE_FROM pch)
    _for_shared_library(${target})
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE "${${target}_INCLUDE}")
    target_link_libraries(${target} INTERFACE ${ARG_LINK})
  endif()
endfunction()

# folder_library(TARGET [LINK targets...] [PRIVATE targets...] [TEST targets...])
#
# The same of this folder, and a test program TARGET_tests of every *_test.cpp in it, if any, which sees
# TEST besides.
function(folder_library target)
  cmake_parse_arguments(ARG "" "" "LINK;PRIVATE;TEST" ${ARGN})
  folder_part(${target} . LINK ${ARG_LINK} PRIVATE ${ARG_PRIVATE})
  file(GLOB tests CONFIGURE_DEPENDS *_test.cpp)
  if(tests)
    folder_tests(${target}_tests SOURCES ${tests} LINK ${target} ${ARG_TEST})
  endif()
endfunction()

# tests_below(TARGET LINK targets...): one program with the tests of this folder and of all folders
# in it.
function(tests_below target)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  file(GLOB tests CONFIGURE_DEPENDS *_test.cpp */*_test.cpp)
  folder_tests(${target} SOURCES ${tests} LINK ${ARG_LINK})
endfunction()

# The topics of Platform/ have tables of their arrows, one for each column: Platform/CMakeLists.txt,
# Platform/Linux/CMakeLists.txt and Platform/Testing/CMakeLists.txt.
#
# topic(TOPIC [SEES topics...] [OUTSIDE targets...] [DEFINED_BY_SYSTEM])
#
# A library of a folder of Platform/, where TOPIC is the folder's path from there: it sees the topics
# that it names, and what those see. OUTSIDE is what its own sources use of other projects.
# DEFINED_BY_SYSTEM: it declares what the topic of the same name below the system's folder defines,
# which is thus found whatever the order in which a program names its libraries.
function(topic name)
  cmake_parse_arguments(ARG "DEFINED_BY_SYSTEM" "" "SEES;OUTSIDE" ${ARGN})
  set(folder "${CMAKE_SOURCE_DIR}/Platform/${name}")
  _topic_target(${name} target)
  set(seen "")
  foreach(other IN LISTS ARG_SEES)
    _topic_target(${other} other_target)
    list(APPEND seen ${other_target})
  endforeach()
  folder_part(${target} "${folder}" LINK ${seen} PRIVATE ${ARG_OUTSIDE})
  if(ARG_DEFINED_BY_SYSTEM)
    _topic_target(Linux/${name} system)
    target_link_libraries(${target} INTERFACE $<LINK_ONLY:${system}>)
  endif()
  set_property(DIRECTORY APPEND PROPERTY TOPICS ${target})
endfunction()

# Values: platform_Values; Linux/Files: platform_linux_Files.
function(_topic_target name result)
  string(REGEX REPLACE "^Linux/" "linux_" target "${name}")
  string(REGEX REPLACE "^Testing/" "testing_" target "${target}")
  set(${result} platform_${target} PARENT_SCOPE)
endfunction()

# folder_tests(TARGET SOURCES files... LINK targets...): a GoogleTest program; ctest knows each test
# by its own name.
function(folder_tests target)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${target} ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE ${ARG_LINK} GTest::gmock GTest::gtest GTest::gtest_main)
  target_precompile_headers(${target} REUSE_FROM test_pch)
  target_compile_options(${target} PRIVATE ${test_options})
  # Smaller batches than a library's, so that a changed test runs soon.
  set_target_properties(${target} PROPERTIES UNITY_BUILD_BATCH_SIZE 6)
  # Names without values, since some are addresses, which differ from run to run.
  gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST NO_PRETTY_VALUES PROPERTIES TIMEOUT 120)
endfunction()

# folder_program(TARGET LINK targets... [TEST targets...] [COMMAND_LINE])
#
# A program of main.cpp and of a library TARGET_parts with every other .cpp in this folder, and a test
# program TARGET_tests of every *_test.cpp, if any, which is linked with the same library.
# COMMAND_LINE: it parses a command line and prints, which takes it no time. Optimising the templates
# of CLI11 and JSON for that took an eighth of the whole build.
function(folder_program target)
  cmake_parse_arguments(ARG "COMMAND_LINE" "" "LINK;TEST" ${ARGN})
  folder_library(${target}_parts LINK ${ARG_LINK} TEST ${ARG_TEST})
  add_executable(${target} main.cpp)
  target_link_libraries(${target} PRIVATE ${target}_parts)
  if(ARG_COMMAND_LINE AND CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
    foreach(part IN ITEMS ${target} ${target}_parts)
      # At this level the compiler warns of uninitialised variants, as at -O1 (Toolchain.cmake).
      target_compile_options(${part} PRIVATE -Og $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
      set_target_properties(${part} PROPERTIES DISABLE_PRECOMPILE_HEADERS ON)  # It is for -O2.
    endforeach()
  endif()
endfunction()
