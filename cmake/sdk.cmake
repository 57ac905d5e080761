# The SDK: what a host needs to build against NVDBConv.dll, laid out by
# `cmake --install` as
#   bin/NVDBConv.dll
#   include/nvdbconv/nvdbconv.h
#   lib/libNVDBConv.dll.a            import library for MinGW-w64
#   lib/NVDBConv.lib                 import library in MSVC's format
#   lib/cmake/NVDBConv/              find_package(NVDBConv CONFIG) -> NVDBConv::NVDBConv
#   share/doc/NVDBConv/              INTEGRATING.md, the sample hosts
# scripts/sdk-archive packs that tree into one archive for dist/.
include(CMakePackageConfigHelpers)

set(NV_SDK_LIB_DIR ${CMAKE_BINARY_DIR}/lib)
# The linker writes the MinGW import library (libNVDBConv.dll.a) from the .def file.
set_target_properties(NVDBConv PROPERTIES ARCHIVE_OUTPUT_DIRECTORY ${NV_SDK_LIB_DIR})

# The MSVC-format import library, from the same .def file: its short import
# members name each export, so link.exe, lld-link and GNU ld all take it.
find_program(NV_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
set(NV_SDK_MSVC_IMPLIB ${NV_SDK_LIB_DIR}/NVDBConv.lib)
if(NV_LLVM_DLLTOOL)
    add_custom_command(OUTPUT ${NV_SDK_MSVC_IMPLIB}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${NV_SDK_LIB_DIR}
        COMMAND ${NV_LLVM_DLLTOOL} -m i386:x86-64 -D NVDBConv.dll
                -d ${CMAKE_SOURCE_DIR}/src/com/NVDBConv.def -l ${NV_SDK_MSVC_IMPLIB}
        DEPENDS ${CMAKE_SOURCE_DIR}/src/com/NVDBConv.def
        COMMENT "MSVC-format import library NVDBConv.lib"
        VERBATIM)
    add_custom_target(nvdbconv_msvc_implib ALL DEPENDS ${NV_SDK_MSVC_IMPLIB})
    add_dependencies(nv_runtime nvdbconv_msvc_implib)
else()
    message(STATUS "llvm-dlltool not found: no NVDBConv.lib (scripts/setup installs llvm)")
endif()

# The package files: a hand-written config (the imported target points into the
# installed tree) and a version file that takes any 3.x.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/sdk/NVDBConvConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)

install(TARGETS NVDBConv RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
install(FILES ${CMAKE_SOURCE_DIR}/include/nvdbconv/nvdbconv.h DESTINATION include/nvdbconv)
if(NV_LLVM_DLLTOOL)
    install(FILES ${NV_SDK_MSVC_IMPLIB} DESTINATION lib)
endif()
install(FILES ${CMAKE_SOURCE_DIR}/cmake/NVDBConvConfig.cmake
              ${CMAKE_BINARY_DIR}/sdk/NVDBConvConfigVersion.cmake
        DESTINATION lib/cmake/NVDBConv)
install(FILES ${CMAKE_SOURCE_DIR}/docs/INTEGRATING.md DESTINATION share/doc/NVDBConv)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/sdk-consumer/ DESTINATION share/doc/NVDBConv/sdk-consumer)
