# For the scripts CTest runs with cmake -P: stops with a clear message when a -D
# setting the script needs was not given.
#     include(${CMAKE_CURRENT_LIST_DIR}/../cmake/scriptargs.cmake)
#     nv_require_settings(NV_ROOT NV_BUILD_DIR)
function(nv_require_settings)
    get_filename_component(script "${CMAKE_SCRIPT_MODE_FILE}" NAME)
    foreach(var IN LISTS ARGN)
        if(NOT DEFINED ${var})
            message(FATAL_ERROR "${script} needs -D${var}=...")
        endif()
    endforeach()
endfunction()
