# Helpers shared by every directory of the build.

# velmor_library(<name> [LIBS <deps>...])
# One static library per source directory, made of every .cc and .c file in
# the directory that calls it.
function(velmor_library name)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/*.cc ${CMAKE_CURRENT_SOURCE_DIR}/*.c)
  if(srcs)
    add_library(${name} STATIC ${srcs})
    target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/src ${CMAKE_BINARY_DIR}/src)
    target_link_libraries(${name} PUBLIC ${ARG_LIBS} Threads::Threads)
  else()
    # A directory whose first source has not landed yet.
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${CMAKE_SOURCE_DIR}/src ${CMAKE_BINARY_DIR}/src)
    target_link_libraries(${name} INTERFACE ${ARG_LIBS} Threads::Threads)
  endif()
endfunction()

# velmor_tests([LIBS <deps>...])
# One GoogleTest executable per *_test.cc file of the calling directory, each
# registered with ctest under its file name.
function(velmor_tests)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cc)
  file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR}/tests ${CMAKE_CURRENT_SOURCE_DIR})
  string(REPLACE "/" "_" prefix "${rel}")
  foreach(src ${tests})
    get_filename_component(base ${src} NAME_WE)
    set(exe ${prefix}_${base})
    add_executable(${exe} ${src})
    target_link_libraries(${exe} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
    target_compile_definitions(${exe} PRIVATE
      VELMOR_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
      VELMOR_BINARY_DIR="${CMAKE_BINARY_DIR}")
    add_test(NAME ${exe} COMMAND ${exe})
    set_tests_properties(${exe} PROPERTIES TIMEOUT 600)
  endforeach()
endfunction()

# velmor_benches([LIBS <deps>...])
# One Google Benchmark executable per bench_*.cc file of the calling directory.
function(velmor_benches)
  if(NOT VELMOR_BENCH)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB benches CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/bench_*.cc)
  foreach(src ${benches})
    get_filename_component(name ${src} NAME_WE)
    add_executable(${name} ${src})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} benchmark::benchmark)
    target_compile_definitions(${name} PRIVATE
      VELMOR_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
      VELMOR_BINARY_DIR="${CMAKE_BINARY_DIR}")
  endforeach()
endfunction()

# velmor_fuzzers(<area> [LIBS <deps>...])
# Every fuzz/<area>/<name>_fuzz.cc becomes a fuzz target (see velmor_fuzz).
function(velmor_fuzzers area)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB targets CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/fuzz/${area}/*_fuzz.cc)
  foreach(src ${targets})
    get_filename_component(base ${src} NAME_WE)
    string(REGEX REPLACE "_fuzz$" "" name ${base})
    velmor_fuzz(${name} ${src} LIBS ${ARG_LIBS})
  endforeach()
endfunction()

# velmor_tool(<name> [LIBS <deps>...])
# An executable made of every .cc file of the calling directory.
function(velmor_tool name)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cc ${CMAKE_CURRENT_SOURCE_DIR}/*.c)
  add_executable(${name} ${srcs})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
endfunction()

# velmor_fuzz(<name> <source> [LIBS <deps>...])
# Every fuzz target is built twice over: as a replay program that ctest runs
# over the target's corpus (fuzz/corpus/<name>/, crashes included), and, with
# VELMOR_FUZZ=ON under clang, as a libFuzzer binary <name>_fuzzer.
function(velmor_fuzz name src)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  add_executable(${name}_replay ${src} ${CMAKE_SOURCE_DIR}/fuzz/replay_main.cc)
  target_link_libraries(${name}_replay PRIVATE ${ARG_LIBS})
  target_compile_definitions(${name}_replay PRIVATE VELMOR_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  file(MAKE_DIRECTORY ${CMAKE_SOURCE_DIR}/fuzz/corpus/${name})
  add_test(NAME fuzz_${name}_corpus
           COMMAND ${name}_replay ${CMAKE_SOURCE_DIR}/fuzz/corpus/${name})
  if(VELMOR_FUZZ)
    add_executable(${name}_fuzzer ${src})
    target_compile_options(${name}_fuzzer PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_options(${name}_fuzzer PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_libraries(${name}_fuzzer PRIVATE ${ARG_LIBS})
    target_compile_definitions(${name}_fuzzer PRIVATE VELMOR_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  endif()
endfunction()
