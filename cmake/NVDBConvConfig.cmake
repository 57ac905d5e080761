# find_package(NVDBConv CONFIG) for the NVDBConv SDK: the imported target
# NVDBConv::NVDBConv, a shared library (bin/NVDBConv.dll) with its import library
# (lib/libNVDBConv.dll.a for GNU toolchains, lib/NVDBConv.lib otherwise) and the
# header folder (include/). 64-bit Windows only.
get_filename_component(_nvdbconv_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)

if(NOT CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(NVDBConv_FOUND FALSE)
    set(NVDBConv_NOT_FOUND_MESSAGE "NVDBConv.dll is a 64-bit library; this build is not 64-bit")
    return()
endif()

if(MINGW OR CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR CMAKE_C_COMPILER_ID STREQUAL "GNU")
    set(_nvdbconv_implib "${_nvdbconv_prefix}/lib/libNVDBConv.dll.a")
else()
    set(_nvdbconv_implib "${_nvdbconv_prefix}/lib/NVDBConv.lib")
endif()

foreach(_nvdbconv_file "${_nvdbconv_prefix}/bin/NVDBConv.dll" "${_nvdbconv_implib}"
                       "${_nvdbconv_prefix}/include/nvdbconv/nvdbconv.h")
    if(NOT EXISTS "${_nvdbconv_file}")
        set(NVDBConv_FOUND FALSE)
        set(NVDBConv_NOT_FOUND_MESSAGE "the NVDBConv SDK in ${_nvdbconv_prefix} has no ${_nvdbconv_file}")
        return()
    endif()
endforeach()

if(NOT TARGET NVDBConv::NVDBConv)
    add_library(NVDBConv::NVDBConv SHARED IMPORTED)
    set_target_properties(NVDBConv::NVDBConv PROPERTIES
        IMPORTED_LOCATION "${_nvdbconv_prefix}/bin/NVDBConv.dll"
        IMPORTED_IMPLIB "${_nvdbconv_implib}"
        INTERFACE_INCLUDE_DIRECTORIES "${_nvdbconv_prefix}/include")
endif()

set(NVDBConv_INCLUDE_DIR "${_nvdbconv_prefix}/include")
unset(_nvdbconv_file)
unset(_nvdbconv_implib)
unset(_nvdbconv_prefix)
