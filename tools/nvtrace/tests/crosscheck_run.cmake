# Runs the cross-check: produce a trace with the real library under Wine, decode it
# with the native nvtrace and with nvtrace.exe, and check what they show.
include(${CMAKE_CURRENT_LIST_DIR}/../../../cmake/scriptargs.cmake)
nv_require_settings(WINE_RUN PRODUCER NVTRACE_EXE NVTRACE_NATIVE WORK_DIR)
if(NOT EXISTS "${NVTRACE_NATIVE}")
    message(FATAL_ERROR "native decoder ${NVTRACE_NATIVE} is missing: build the native tree first")
endif()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
set(trace "${WORK_DIR}/real_library.trc3")
# Wine's Z: drive is the Unix root.
string(REPLACE "/" "\\" windows_trace "Z:${trace}")

execute_process(COMMAND "${WINE_RUN}" "${PRODUCER}" "${windows_trace}"
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS "${trace}")
    message(FATAL_ERROR "producer failed (${rc}): ${out} ${err}")
endif()
message(STATUS "producer: ${out}")

execute_process(COMMAND "${NVTRACE_NATIVE}" "${trace}"
    RESULT_VARIABLE rc OUTPUT_VARIABLE listing ERROR_VARIABLE err)
message(STATUS "native nvtrace:\n${listing}")
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "native nvtrace failed (${rc}): ${err}")
endif()

# Header as the library wrote it, in order.
set(header_re "^trace3\nCompiled: [A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9][0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\nOS: [^\n]+\nServicePack: [^\n]*\nMachine name: [^\n]*\nTrace Ver: 3\\.0\\.1\nFileVersion: 3\\.0\\.1\\.0\n(Product: [^\n]+\n)*(No Palmera products found\n)?installation: (LOCAL|NETWORK)\n[0-9][0-9]/[0-9][0-9]/[0-9][0-9][0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9]\n\\.\n")
if(NOT listing MATCHES "${header_re}")
    message(FATAL_ERROR "header not as expected")
endif()
# Readable scopes, lines and results: "mm/dd/yy hh:mm:ss.mmm  thread  <indent>kind text".
set(prefix "\n[0-9][0-9]/[0-9][0-9]/[0-9][0-9] ([0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9]|--:--:--\\.---) +[0-9]+  ")
foreach(kind_re "> CDBConverter::FinalConstruct\n" "  +U wszVersion = 3\\.0\n" "  +E 0x80070002 HRESULT_FROM_WIN32\\(ERROR_FILE_NOT_FOUND\\)\n" "<\n"
                "N [0-9][0-9]-[0-9][0-9]-[0-9][0-9][0-9][0-9]\n")
    if(NOT listing MATCHES "${prefix} *${kind_re}")
        message(FATAL_ERROR "no record matching '${kind_re}' in the listing")
    endif()
endforeach()

# The same file through the Windows build of the tool.
execute_process(COMMAND "${WINE_RUN}" "${NVTRACE_EXE}" "${windows_trace}"
    RESULT_VARIABLE rc OUTPUT_VARIABLE windows_listing ERROR_VARIABLE err)
string(REPLACE "\r\n" "\n" windows_listing "${windows_listing}")
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nvtrace.exe failed (${rc}): ${err}")
endif()
if(NOT windows_listing STREQUAL listing)
    message(FATAL_ERROR "nvtrace.exe shows something else:\n${windows_listing}")
endif()
