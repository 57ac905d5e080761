# Protections of every Windows binary, and what makes a binary shippable.
#
# - Stack protector and fortified string/memory calls everywhere. The support
#   library (libssp) is linked statically like the rest of the runtime, so nothing
#   new has to ship; the tests check for it in every shipped file.
# - ASLR with high-entropy addresses, DEP and a relocation table: binutils' PE
#   defaults, stated here so that a change of toolchain cannot drop them silently.
# - Debug information is produced, then split off: nv_ship() leaves a stripped
#   binary with a debug link next to <file>.debug, so a crash can be symbolised.
# - No link timestamp, and the source and build folders appear in debug information
#   as /nvdbconv and /nvdbconv-build (gdb: set substitute-path), so two builds of one
#   commit give the same bytes (the release script checks it; it also pins the
#   date the trace header shows with SOURCE_DATE_EPOCH).
add_compile_options(-fstack-protector-strong -g)
add_compile_definitions(_FORTIFY_SOURCE=2)
# The build folder (often inside the source folder) is mapped last, so that it wins.
add_compile_options(-fdebug-prefix-map=${CMAKE_SOURCE_DIR}=/nvdbconv
                    -fdebug-prefix-map=${CMAKE_BINARY_DIR}=/nvdbconv-build)
# The protector flag pulls libssp into the link.
add_link_options(-fstack-protector-strong
                 LINKER:--dynamicbase LINKER:--high-entropy-va LINKER:--nxcompat
                 LINKER:--no-insert-timestamp)

# Every binary the project ships (the release script and the binary checks read
# this list from shipped-binaries.txt in the bin folder), and the test and demo
# tools built the same way (demo-binaries.txt: the binary checks read it, a release
# leaves them out).
set_property(GLOBAL PROPERTY NV_SHIPPED_TARGETS "")
set_property(GLOBAL PROPERTY NV_DEMO_TARGETS "")

# nv_ship(target [DEMO] [DESCRIPTION text]): marks a binary as shipped, or with
# DEMO as a test and demo tool that is built and checked like a shipped one. Its
# debug information goes into <file>.debug beside it, the binary is stripped and
# gets a debug link to that file. With DESCRIPTION, the target also gets the
# project's version resource (cmake/version.rc.in), the same numbers in every binary.
function(nv_ship target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "DEMO" "DESCRIPTION" "")
    if(arg_DESCRIPTION)
        get_target_property(type ${target} TYPE)
        get_target_property(name ${target} OUTPUT_NAME)
        if(NOT name)
            set(name ${target})
        endif()
        if(type STREQUAL "EXECUTABLE")
            set(NV_RC_FILETYPE VFT_APP)
            set(NV_RC_FILENAME ${name}.exe)
        else()
            set(NV_RC_FILETYPE VFT_DLL)
            set(NV_RC_FILENAME ${name}.dll)
        endif()
        set(NV_RC_NAME ${name})
        set(NV_RC_DESCRIPTION ${arg_DESCRIPTION})
        set(rc ${NV_GENERATED_DIR}/version_${target}.rc)
        configure_file(${CMAKE_SOURCE_DIR}/cmake/version.rc.in ${rc} @ONLY)
        target_sources(${target} PRIVATE ${rc})
        target_include_directories(${target} PRIVATE ${NV_GENERATED_DIR})
    endif()
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND bash ${CMAKE_SOURCE_DIR}/cmake/ship-binary.sh ${CMAKE_OBJCOPY} ${CMAKE_STRIP}
                $<TARGET_FILE:${target}>
        COMMENT "Splitting the debug information of $<TARGET_FILE_NAME:${target}>"
        VERBATIM)
    if(arg_DEMO)
        set_property(GLOBAL APPEND PROPERTY NV_DEMO_TARGETS ${target})
    else()
        set_property(GLOBAL APPEND PROPERTY NV_SHIPPED_TARGETS ${target})
    endif()
endfunction()

# Written once every target exists: one file name per line, for the release script
# and the binary checks.
function(nv_write_shipped_list)
    foreach(list SHIPPED DEMO)
        get_property(targets GLOBAL PROPERTY NV_${list}_TARGETS)
        set(names "")
        foreach(t IN LISTS targets)
            string(APPEND names "$<TARGET_FILE_NAME:${t}>\n")
        endforeach()
        string(TOLOWER ${list} file)
        file(GENERATE OUTPUT ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${file}-binaries.txt CONTENT "${names}")
    endforeach()
endfunction()
