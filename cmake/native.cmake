# Native (Linux) build: only the portable tools and their tests.
enable_testing()
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
include(GoogleTest)
# A tool folder that appears later (a merge) reconfigures the tree.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools)
if(EXISTS ${CMAKE_SOURCE_DIR}/tools/nvtrace/CMakeLists.txt)
    add_subdirectory(tools/nvtrace)
endif()

# The one Wine launcher's rule (scripts/wine-run), checked with a stand-in for wine64.
add_test(NAME native.scripts.WineRunLaunchRule COMMAND bash ${CMAKE_SOURCE_DIR}/tests/scripts/wine_run_test.sh)
