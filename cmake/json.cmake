# nlohmann/json, the header-only JSON library (Debian's nlohmann-json3-dev), as the
# interface target nv_json. Its headers include each other as <nlohmann/...>, so the
# include folder must hold "nlohmann"; the host's /usr/include must not be that folder
# in the cross build (its C library headers would shadow MinGW's). So the target's
# folder, in the build tree, holds nothing but a link to the nlohmann folder.
if(TARGET nv_json)
    return()
endif()
find_path(NV_JSON_HEADERS json.hpp
    PATHS /usr/include/nlohmann
    NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT NV_JSON_HEADERS)
    message(FATAL_ERROR "nlohmann/json.hpp not found: install nlohmann-json3-dev (scripts/setup does)")
endif()
set(NV_JSON_INCLUDE_DIR ${CMAKE_BINARY_DIR}/nv_json/include)
file(MAKE_DIRECTORY ${NV_JSON_INCLUDE_DIR})
if(NOT EXISTS ${NV_JSON_INCLUDE_DIR}/nlohmann/json.hpp)
    file(CREATE_LINK ${NV_JSON_HEADERS} ${NV_JSON_INCLUDE_DIR}/nlohmann SYMBOLIC)
endif()
add_library(nv_json INTERFACE)
target_include_directories(nv_json SYSTEM INTERFACE ${NV_JSON_INCLUDE_DIR})
