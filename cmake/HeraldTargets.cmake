# herald_library(NAME [DEPS ...]): a library from src/NAME/*.cpp with public headers in
# include/NAME, and the alias herald::NAME.
function(herald_library name)
  cmake_parse_arguments(ARG "" "" "DEPS;PRIVATE_DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${name}/*.cpp)
  add_library(${name} STATIC ${sources})
  add_library(herald::${name} ALIAS ${name})
  target_include_directories(${name}
    PUBLIC ${CMAKE_SOURCE_DIR}/include
    PRIVATE ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# herald_test(NAME LABEL unit|integration SOURCES ... DEPS ...): one GoogleTest executable.
# Unit tests are also collected in the `unit_tests` target, which the sanitizer build makes.
if(NOT TARGET unit_tests)
  add_custom_target(unit_tests)
endif()
function(herald_test name)
  cmake_parse_arguments(ARG "" "LABEL" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${ARG_LABEL} TIMEOUT 120
               # One value per property: discovered tests lose the escaping of a list.
               ENVIRONMENT "HERALD_BIN_DIR=${CMAKE_BINARY_DIR}/bin"
               ENVIRONMENT_MODIFICATION "HERALD_SOURCE_DIR=set:${CMAKE_SOURCE_DIR}")
  if(ARG_LABEL STREQUAL "unit")
    add_dependencies(unit_tests ${name})
  endif()
endfunction()
