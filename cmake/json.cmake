# nv_json: the JSON library (nlohmann/json, header-only, from the distribution's
# nlohmann-json3-dev). Only its own folder goes on the include path: a forwarding
# folder in the build tree links to it, so the cross build never sees the host's
# /usr/include (whose C library headers would shadow MinGW's).
if(NOT TARGET nv_json)
    find_path(NV_JSON_INCLUDE_DIR nlohmann/json.hpp PATHS /usr/include NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
    if(NOT NV_JSON_INCLUDE_DIR)
        message(FATAL_ERROR "nlohmann/json.hpp not found: install nlohmann-json3-dev (scripts/setup does)")
    endif()
    set(nv_json_forward ${CMAKE_BINARY_DIR}/nv_json/include)
    file(MAKE_DIRECTORY ${nv_json_forward})
    if(NOT EXISTS ${nv_json_forward}/nlohmann/json.hpp)
        file(CREATE_LINK ${NV_JSON_INCLUDE_DIR}/nlohmann ${nv_json_forward}/nlohmann SYMBOLIC)
    endif()
    add_library(nv_json INTERFACE)
    target_include_directories(nv_json SYSTEM INTERFACE ${nv_json_forward})
endif()
