# Cross-check (cross build only): a trace written by the real NVDBConv.dll under Wine
# must decode with the native nvtrace, and nvtrace.exe must print the same listing.
add_executable(crosscheck_producer ${CMAKE_CURRENT_LIST_DIR}/crosscheck_producer.cpp)
target_include_directories(crosscheck_producer PRIVATE ${CMAKE_SOURCE_DIR}/src)
target_link_libraries(crosscheck_producer PRIVATE nvexitfile)
target_link_options(crosscheck_producer PRIVATE -municode)
nv_strict(crosscheck_producer)
add_dependencies(crosscheck_producer NVDBConv nvtrace)

if(NV_NATIVE_BUILD_DIR)
    add_test(NAME nvtrace.CrossCheck.RealLibraryTraceDecodesNatively
        COMMAND ${CMAKE_COMMAND}
            -DWINE_RUN=${CMAKE_BINARY_DIR}/wine-run
            -DPRODUCER=$<TARGET_FILE:crosscheck_producer>
            -DNVTRACE_EXE=$<TARGET_FILE:nvtrace>
            -DNVTRACE_NATIVE=${NV_NATIVE_BUILD_DIR}/tools/nvtrace/nvtrace
            -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/crosscheck
            -P ${CMAKE_CURRENT_LIST_DIR}/crosscheck_run.cmake)
    # It writes the shared Tracing settings, as the Windows tests do.
    set_tests_properties(nvtrace.CrossCheck.RealLibraryTraceDecodesNatively PROPERTIES
        ${NV_WINE_TEST_PROPERTIES} TIMEOUT 300)
endif()
