# Warnings for our own targets only; consumers of the installed package do not inherit them.
add_library(OrlWarnings INTERFACE)
target_compile_options(OrlWarnings INTERFACE -Wall -Wextra -Wpedantic)

# orl_add_test(<name> LABELS <labels...> SOURCES <files...> [LIBRARIES <targets...>])
# One GoogleTest executable; its cases are registered with ctest one by one when ctest runs.
function(orl_add_test name)
  cmake_parse_arguments(ARG "" "" "LABELS;SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} OrlTestSupport OrlWarnings)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 TEST_LIST ${name}_TESTS)
  # Labels are set by a script that ctest runs after discovery: a list of labels handed through
  # gtest_discover_tests' PROPERTIES would be split into separate arguments on the way.
  set(script "${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake")
  file(WRITE "${script}"
    "if(${name}_TESTS)\n  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${ARG_LABELS}\")\nendif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
  # The ThreadSanitizer run builds only these.
  if("concurrency" IN_LIST ARG_LABELS)
    if(NOT TARGET OrlConcurrencyTests)
      add_custom_target(OrlConcurrencyTests)
    endif()
    add_dependencies(OrlConcurrencyTests ${name})
  endif()
endfunction()

# orl_add_benchmark(<name> <sources...>)
function(orl_add_benchmark name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE Orl::Ostrel benchmark::benchmark OrlWarnings)
endfunction()
