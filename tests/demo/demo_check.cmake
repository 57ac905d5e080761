# Runs scripts/demo with a small user count and checks what it reports: the exit
# code, the status after each step, the store summary and the decoded trace.
# Called by CTest: cmake -DNV_ROOT=... -DNV_BUILD_DIR=... -DNV_DEMO_DIR=...
#                        -DNV_DEMO_USERS=N -DNV_DEMO_DOMAINS=N -P demo_check.cmake
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/scriptargs.cmake)
nv_require_settings(NV_ROOT NV_BUILD_DIR NV_DEMO_DIR NV_DEMO_USERS NV_DEMO_DOMAINS)

execute_process(
    COMMAND env NV_DEMO_USERS=${NV_DEMO_USERS} NV_DEMO_DOMAINS=${NV_DEMO_DOMAINS} NV_DEMO_SKIP_BUILD=1
            NV_BUILD_DIR=${NV_BUILD_DIR} NV_DEMO_DIR=${NV_DEMO_DIR} NV_WINEPREFIX=${NV_DEMO_DIR}/wineprefix
            bash ${NV_ROOT}/scripts/demo
    INPUT_FILE /dev/null
    OUTPUT_VARIABLE out
    ERROR_VARIABLE err
    RESULT_VARIABLE rc
    TIMEOUT 280)
message("${out}")
if(err)
    message("stderr:\n${err}")
endif()

set(problems "")
function(expect regex what)
    if(NOT out MATCHES "${regex}")
        set(problems "${problems}  missing: ${what}\n" PARENT_SCOPE)
    endif()
endfunction()

if(NOT rc STREQUAL "0")
    string(APPEND problems "  the demo exited with '${rc}', not 0\n")
endif()
set(n ${NV_DEMO_USERS})
expect("written: +format 1\\.0 \\(seed [0-9]+\\): ${n} users in the name indexes of ${NV_DEMO_DOMAINS} domains" "the written line for ${n} users")
expect("nvdbgen: wrote a format 1\\.0 database" "nvdbgen's report")
expect("2\\.0-style users: ${n} with sealed records under Data" "${n} users with sealed 2.0 records")
# The three status runs, in order: 1.0, then 2.0 with every user waiting, then 3.0.
expect("state +format 1\\.0: convert rewrites it to 2\\.0.*state +format 2\\.0: ${n} users to move into the store.*state +format 3\\.0: the users live in the store"
       "the status after each step (1.0, 2.0 with ${n} users, 3.0)")
expect("users +${n} of ${n} moved in" "the 2.0 -> 3.0 convert moving ${n} of ${n} users")
expect("Cleanup +0x00000001 S_FALSE" "the installer-style cleanup answering S_FALSE")
expect("database: +1\\.0 -> 2\\.0 -> 3\\.0" "the summary's database line")
expect("store: +${n} users, ${n} registered, ([0-9]+) secrets \\(([0-9]+) open" "the store line with ${n} users")
if(out MATCHES "store: +${n} users, ${n} registered, ([0-9]+) secrets \\(([0-9]+) open")
    if(NOT CMAKE_MATCH_1 STREQUAL CMAKE_MATCH_2 OR CMAKE_MATCH_1 EQUAL 0)
        string(APPEND problems "  secrets: ${CMAKE_MATCH_1} stored, ${CMAKE_MATCH_2} open with their user's key\n")
    endif()
endif()
expect("old data: +0 user keys left" "no user keys left")
expect("every user accounted for: ${n} with 2\\.0 records = ${n} in the store \\+ 0 left" "the accounted-for line")

# The trace file exists and its decoded form tells the story.
if(out MATCHES "trace: +([^\n]+\\.trc3)")
    set(trace "${CMAKE_MATCH_1}")
    if(NOT EXISTS "${trace}")
        string(APPEND problems "  the trace file ${trace} does not exist\n")
    endif()
else()
    string(APPEND problems "  missing: the trace file's path\n")
endif()
if(EXISTS "${NV_DEMO_DIR}/trace.txt")
    file(READ "${NV_DEMO_DIR}/trace.txt" decoded)
    foreach(line "U Using CConverter2" "U version put" "U Using CConverter3" "U Completely delete old DB")
        if(NOT decoded MATCHES "${line}")
            string(APPEND problems "  the decoded trace lacks '${line}'\n")
        endif()
    endforeach()
    string(REGEX MATCHALL "U Conversion process is over for 'S-1-[-0-9]+'" over "${decoded}")
    list(LENGTH over converted)
    if(NOT converted EQUAL n)
        string(APPEND problems "  the decoded trace shows ${converted} users converted, not ${n}\n")
    endif()
else()
    string(APPEND problems "  no decoded trace at ${NV_DEMO_DIR}/trace.txt\n")
endif()

if(problems)
    message(FATAL_ERROR "The demo's report is not what it should be:\n${problems}")
endif()
message(STATUS "demo: ${n} users written, ${n} in the store, trace decoded")
