# The example installer: built with makensis (Debian's nsis package) when it is
# there, into the bin folder beside the library it carries, where its test finds it.
find_program(NV_MAKENSIS makensis)
if(NV_MAKENSIS)
    set(NV_INSTALLER_SCRIPT ${CMAKE_SOURCE_DIR}/examples/installer/nvdbconv-setup.nsi)
    set(NV_INSTALLER_EXE ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/nvdbconv-setup.exe)
    add_custom_command(OUTPUT ${NV_INSTALLER_EXE}
        COMMAND ${NV_MAKENSIS} -V2 -WX -NOCD "-DNVDBCONV_DLL=$<TARGET_FILE:NVDBConv>"
                "-DOUTFILE=${NV_INSTALLER_EXE}" ${NV_INSTALLER_SCRIPT}
        DEPENDS NVDBConv ${NV_INSTALLER_SCRIPT}
        COMMENT "Building the example installer nvdbconv-setup.exe"
        VERBATIM)
    add_custom_target(nvdbconv_installer ALL DEPENDS ${NV_INSTALLER_EXE})
    add_dependencies(nv_runtime nvdbconv_installer)
else()
    message(STATUS "makensis not found: the example installer is not built (scripts/setup installs nsis)")
endif()
