# Native (Linux) build: only the portable tools and their tests.
enable_testing()
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
include(GoogleTest)
# A tool folder that appears later (a merge) reconfigures the tree.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools)
if(EXISTS ${CMAKE_SOURCE_DIR}/tools/nvtrace/CMakeLists.txt)
    add_subdirectory(tools/nvtrace)
endif()
