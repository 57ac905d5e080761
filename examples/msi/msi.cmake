# The example Windows Installer package (examples/msi). Its custom-action DLL is
# cross-built with the rest; the package itself is made with wixl and msitools
# (scripts/setup installs both) into the bin folder, where its tests find it.
add_library(nvdbconv_ca SHARED ${CMAKE_CURRENT_LIST_DIR}/nvdbconv_ca.cpp)
set_target_properties(nvdbconv_ca PROPERTIES PREFIX "" OUTPUT_NAME "nvdbconv_ca")
target_link_libraries(nvdbconv_ca PRIVATE msi ole32 advapi32)
# The SDK header (include/nvdbconv/nvdbconv.h), as a package outside the tree gets it.
target_include_directories(nvdbconv_ca PRIVATE ${CMAKE_SOURCE_DIR}/include)
nv_strict(nvdbconv_ca)
add_dependencies(nv_runtime nvdbconv_ca)

find_program(NV_WIXL wixl)
find_program(NV_MSIBUILD msibuild)
find_program(NV_MSIINFO msiinfo)
if(NV_WIXL AND NV_MSIBUILD AND NV_MSIINFO)
    set(NV_MSI_PACKAGE ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/nvdbconv-upgrade.msi)
    add_custom_command(OUTPUT ${NV_MSI_PACKAGE}
        COMMAND ${CMAKE_CURRENT_LIST_DIR}/build-msi $<TARGET_FILE:NVDBConv> $<TARGET_FILE:nvdbconv_ca>
                ${NV_MSI_PACKAGE}
        DEPENDS NVDBConv nvdbconv_ca ${CMAKE_CURRENT_LIST_DIR}/build-msi
                ${CMAKE_CURRENT_LIST_DIR}/nvdbconv-upgrade.wxs
        COMMENT "Building the example package nvdbconv-upgrade.msi"
        VERBATIM)
    add_custom_target(nvdbconv_msi ALL DEPENDS ${NV_MSI_PACKAGE})
    add_dependencies(nv_runtime nvdbconv_msi)

    # The finished tables, read back on Linux: types, CustomActionData, schedule,
    # the policy value and the files.
    add_test(NAME installer.MsiTablesAsBuilt
        COMMAND ${CMAKE_COMMAND} -DMSIINFO=${NV_MSIINFO} -DPACKAGE=${NV_MSI_PACKAGE}
                -P ${CMAKE_CURRENT_LIST_DIR}/check_tables.cmake)
    set_tests_properties(installer.MsiTablesAsBuilt PROPERTIES LABELS installer TIMEOUT 60)
else()
    message(STATUS "wixl or msitools not found: the example package is not built (scripts/setup installs them)")
endif()
