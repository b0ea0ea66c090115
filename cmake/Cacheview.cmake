# Shared build rules: one warnings target, one static library per subsystem folder, and one test
# executable per subsystem built from the *_test.cpp files beside the code.

add_library(cacheview_warnings INTERFACE)
target_compile_options(cacheview_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Werror)

# cacheview_subsystem(<name> [DEPS <targets...>] [LIBS <system libs...>] [TEST_LIBS <libs...>])
# Builds library cv_<name> from every *.cpp of the folder that is not a test, and, when tests are
# enabled and the folder has *_test.cpp files, the executable <name>_tests labelled <name>.
function(cacheview_subsystem name)
  cmake_parse_arguments(ARG "" "" "DEPS;LIBS;TEST_LIBS" ${ARGN})
  file(GLOB all_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  file(GLOB test_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cpp)
  set(lib_sources ${all_sources})
  if(test_sources)
    list(REMOVE_ITEM lib_sources ${test_sources})
  endif()
  list(FILTER lib_sources EXCLUDE REGEX "/main\\.cpp$")

  if(lib_sources)
    add_library(cv_${name} STATIC ${lib_sources})
    target_include_directories(cv_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(cv_${name} PUBLIC ${ARG_DEPS} ${ARG_LIBS} PRIVATE cacheview_warnings)
  else()
    add_library(cv_${name} INTERFACE)
    target_include_directories(cv_${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(cv_${name} INTERFACE ${ARG_DEPS} ${ARG_LIBS})
  endif()

  if(CACHEVIEW_BUILD_TESTS AND test_sources)
    add_executable(${name}_tests ${test_sources})
    target_link_libraries(${name}_tests PRIVATE cv_${name} ${ARG_TEST_LIBS} GTest::gtest_main
                          GTest::gmock cacheview_test_support cacheview_warnings)
    gtest_discover_tests(${name}_tests PROPERTIES LABELS ${name} DISCOVERY_TIMEOUT 60)
  endif()
endfunction()

# The version header, generated from the project version: cacheview_version.h.
configure_file(${CMAKE_CURRENT_LIST_DIR}/version.h.in
               ${CMAKE_BINARY_DIR}/generated/cacheview_version.h @ONLY)
add_library(cacheview_version INTERFACE)
target_include_directories(cacheview_version INTERFACE ${CMAKE_BINARY_DIR}/generated)

# What the tests share: the scratch-directory and whole-file helpers (test_support/*.h) and the
# build's directory for files the tests leave behind.
add_library(cacheview_test_support INTERFACE)
target_include_directories(cacheview_test_support INTERFACE ${PROJECT_SOURCE_DIR}/tests/support)
target_compile_definitions(cacheview_test_support INTERFACE
  CACHEVIEW_TEST_TMPDIR="${CMAKE_BINARY_DIR}/test-tmp")
