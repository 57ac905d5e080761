# Native (Linux) build: only the portable tools and their tests.
enable_testing()
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
include(GoogleTest)
if(EXISTS ${CMAKE_SOURCE_DIR}/tools/nvtrace/CMakeLists.txt)
    add_subdirectory(tools/nvtrace)
endif()
