# Checks the layering of src/ (src/layers.cmake): every #include of a header in a
# src folder, made by a file of another src folder, must name a folder that the
# includer's layer lists. Also refused: a folder the list does not name, a layer
# that depends on one listed above it, and an include that climbs out with "..".
#
#   cmake -DNV_SRC=<src folder> [-DNV_STAMP=<file>] -P cmake/layercheck.cmake
#
# Exits non-zero with one line per offence; with NV_STAMP, touches that file on
# success (the build's record that the check ran).
cmake_minimum_required(VERSION 3.20)
if(NOT NV_SRC)
    message(FATAL_ERROR "layercheck: NV_SRC (the src folder) is not set")
endif()
include(${NV_SRC}/layers.cmake)

set(offences "")
set(seen "")
foreach(layer IN LISTS NV_LAYERS)
    foreach(dep IN LISTS NV_LAYER_DEPS_${layer})
        if(NOT dep IN_LIST seen)
            list(APPEND offences "src/layers.cmake: ${layer} depends on ${dep}, which is not listed below it")
        endif()
    endforeach()
    list(APPEND seen ${layer})
endforeach()

file(GLOB entries RELATIVE ${NV_SRC} ${NV_SRC}/*)
foreach(entry IN LISTS entries)
    if(IS_DIRECTORY ${NV_SRC}/${entry} AND NOT entry IN_LIST NV_LAYERS)
        list(APPEND offences "src/${entry}: a folder that src/layers.cmake does not place in a layer")
    endif()
endforeach()

foreach(layer IN LISTS NV_LAYERS)
    set(allowed ${layer} ${NV_LAYER_DEPS_${layer}})
    file(GLOB_RECURSE files RELATIVE ${NV_SRC} ${NV_SRC}/${layer}/*)
    list(SORT files)
    foreach(file IN LISTS files)
        if(NOT file MATCHES "\\.(h|hpp|cpp|cc|inl|in|rc)$")
            continue()
        endif()
        file(STRINGS ${NV_SRC}/${file} lines REGEX "^[ \t]*#[ \t]*include")
        file(READ ${NV_SRC}/${file} content)
        foreach(line IN LISTS lines)
            if(NOT line MATCHES "^[ \t]*#[ \t]*include[ \t]*[\"<]([^\">]*)[\">]")
                continue()
            endif()
            set(target "${CMAKE_MATCH_1}")
            # The line's number: one more than the line breaks before it.
            string(FIND "${content}" "${line}" at)
            string(SUBSTRING "${content}" 0 ${at} before)
            string(REGEX MATCHALL "\n" breaks "${before}")
            list(LENGTH breaks number)
            math(EXPR number "${number} + 1")
            if(target MATCHES "(^|/)\\.\\.(/|$)")
                list(APPEND offences "src/${file}:${number}: \"${target}\" climbs out of its folder (name the folder instead)")
            elseif(target MATCHES "^([^/]+)/" AND CMAKE_MATCH_1 IN_LIST NV_LAYERS)
                if(NOT CMAKE_MATCH_1 IN_LIST allowed)
                    string(REPLACE ";" " " from "${allowed}")
                    list(APPEND offences
                         "src/${file}:${number}: ${layer} may not include \"${target}\" (${layer} includes only from: ${from})")
                endif()
            endif()
        endforeach()
    endforeach()
endforeach()

if(offences)
    list(LENGTH offences count)
    string(REPLACE ";" "\n" text "${offences}")
    message("${text}")
    message(FATAL_ERROR "layercheck: ${count} offence(s) against the layers of src/ (src/layers.cmake)")
endif()
if(NV_STAMP)
    file(TOUCH ${NV_STAMP})
endif()
