# Helpers that keep each subsystem's CMakeLists.txt to a few lines.

# quorvi_library(NAME SOURCES... DEPS ...): static library quorvi_NAME.
function(quorvi_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(quorvi_${name} STATIC ${ARG_SOURCES})
  target_link_libraries(quorvi_${name} PUBLIC ${ARG_DEPS})
  target_include_directories(quorvi_${name} PUBLIC ${CMAKE_SOURCE_DIR}/src)
endfunction()

# quorvi_test(NAME SOURCES... DEPS ... [LABELS ...]): one gtest executable,
# registered with CTest as a single test so that ctest stays fast.
function(quorvi_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gtest_main Threads::Threads)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "QUORVI_BUILD_DIR=${CMAKE_BINARY_DIR};QUORVI_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
  if(ARG_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
endfunction()
