# Cross build: the DLL, the Windows tools and every test, run under Wine.
enable_language(RC)
set(NV_NATIVE_BUILD_DIR "" CACHE PATH "Native build tree whose tests CTest runs too")
set(NV_WINEPREFIX "${CMAKE_BINARY_DIR}/../wineprefix" CACHE PATH "Wine prefix the tests run in")

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

add_compile_definitions(UNICODE _UNICODE NOMINMAX _WIN32_WINNT=0x0601 WINVER=0x0601)

# CTest and gtest discovery run Windows binaries through this wrapper.
configure_file(${CMAKE_SOURCE_DIR}/cmake/wine-run.in ${CMAKE_BINARY_DIR}/wine-run @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)

# Every test that runs Windows code owns one Wine prefix while it runs: the tests
# share HKLM\SOFTWARE\Norvane, the trace settings and the store, so two of them must
# never meet in one registry. scripts/test hands CTest a resource file with one slot
# per prefix ($WINEPREFIX, then $WINEPREFIX-p1, ...) and runs that many tests at
# once; wine-run picks the prefix CTest allocated. Without a resource file CTest runs
# the tests one at a time in build/wineprefix. Any test added with add_test that runs
# Wine takes these properties too.
set(NV_WINE_TEST_PROPERTIES RESOURCE_GROUPS wineprefix:1)

set(NV_WIN_LIBS crypt32 advapi32 netapi32 ole32 oleaut32 uuid rpcrt4 wtsapi32 version)
include(${CMAKE_SOURCE_DIR}/cmake/hardening.cmake)

# Everything a test may load or start at run time: the DLL, the tools, the store.
add_custom_target(nv_runtime)

# Before the subdirectories, so that tests the tools' folders add are registered too.
enable_testing()

add_subdirectory(src)
add_dependencies(nv_runtime NVDBConv)
# The SDK: import libraries, the CMake package and the install layout.
include(${CMAKE_SOURCE_DIR}/cmake/sdk.cmake)
add_subdirectory(tools)
# The example Windows Installer package and its custom actions.
include(${CMAKE_SOURCE_DIR}/examples/msi/msi.cmake OPTIONAL)

enable_testing()
set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
include(GoogleTest)
add_subdirectory(tests)
add_subdirectory(tests/hardening)
add_subdirectory(tests/sdk)
add_subdirectory(bench)
nv_write_shipped_list()

# The native tests (the portable trace decoder) run in the same CTest session. Whether
# they exist is decided when CTest runs, so the order in which the two trees were
# configured does not matter; a native tree without them shows up as a failing test.
if(NV_NATIVE_BUILD_DIR)
    set(NV_NATIVE_TESTFILE ${NV_NATIVE_BUILD_DIR}/tools/nvtrace/CTestTestfile.cmake)
    file(WRITE ${CMAKE_BINARY_DIR}/native_tests.cmake
"if(EXISTS \"${NV_NATIVE_TESTFILE}\")
    include(\"${NV_NATIVE_TESTFILE}\")
else()
    add_test(native.NativeTreeHasNoNvtraceTests \"${CMAKE_COMMAND}\" -E false)
endif()
")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_BINARY_DIR}/native_tests.cmake)
endif()
