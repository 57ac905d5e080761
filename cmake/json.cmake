# nlohmann's JSON library (Debian's nlohmann-json3-dev, header-only) as the interface
# target nv_json. Only its own folder is put on the include path, copied into the
# build tree: the cross compiler must never see the rest of /usr/include.
include_guard(GLOBAL)
set(NV_NLOHMANN_JSON_DIR /usr/include/nlohmann CACHE PATH "Folder of nlohmann/json.hpp (nlohmann-json3-dev)")
if(NOT EXISTS ${NV_NLOHMANN_JSON_DIR}/json.hpp)
    message(FATAL_ERROR "nlohmann/json.hpp not found in ${NV_NLOHMANN_JSON_DIR}: run scripts/setup")
endif()
file(COPY ${NV_NLOHMANN_JSON_DIR} DESTINATION ${CMAKE_BINARY_DIR}/nv_json/include)
add_library(nv_json INTERFACE)
target_include_directories(nv_json SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/nv_json/include)
