# Warnings for our own targets only; consumers of the installed package do not inherit them.
add_library(OrlWarnings INTERFACE)
target_compile_options(OrlWarnings INTERFACE -Wall -Wextra -Wpedantic)

# orl_add_test(<name> LABELS <labels...> SOURCES <files...> [LIBRARIES <targets...>])
# One GoogleTest executable; its cases are registered with ctest one by one when ctest runs.
function(orl_add_test name)
  cmake_parse_arguments(ARG "" "" "LABELS;SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} OrlTestSupport OrlWarnings)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS "${ARG_LABELS}")
endfunction()

# orl_add_benchmark(<name> <sources...>)
function(orl_add_benchmark name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE Orl::Ostrel benchmark::benchmark OrlWarnings)
endfunction()
