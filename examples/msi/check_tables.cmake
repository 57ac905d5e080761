# Reads the built package's tables with msiinfo and checks what Windows Installer
# will act on: the custom actions' types and entry points, what each deferred action
# receives, the schedule, the policy value and the installed files.
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/scriptargs.cmake)
nv_require_settings(MSIINFO PACKAGE)
if(NOT EXISTS "${PACKAGE}")
    message(FATAL_ERROR "${PACKAGE} is missing")
endif()

function(export_table table out)
    execute_process(COMMAND "${MSIINFO}" export "${PACKAGE}" ${table}
        RESULT_VARIABLE rc OUTPUT_VARIABLE text ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "msiinfo export ${table} failed (${rc}): ${err}")
    endif()
    string(REPLACE "\r" "" text "${text}")
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

function(expect_line table text line)
    string(FIND "\n${text}" "\n${line}\n" at)
    if(at EQUAL -1)
        message(FATAL_ERROR "${table} has no line '${line}':\n${text}")
    endif()
endfunction()

export_table(CustomAction actions)
message(STATUS "CustomAction:\n${actions}")
# Deferred (0x400) without impersonation (0x800), a DLL from the Binary table (1);
# rollback adds 0x100, commit 0x200.
expect_line(CustomAction "${actions}" "ConvertDatabase\t3073\tNvdbconvCa\tNvConvertDatabase\t")
expect_line(CustomAction "${actions}" "RollbackDatabase\t3329\tNvdbconvCa\tNvRollbackDatabase\t")
expect_line(CustomAction "${actions}" "CommitDatabase\t3585\tNvdbconvCa\tNvCommitDatabase\t")
foreach(name Convert Rollback Commit)
    expect_line(CustomAction "${actions}" "Set${name}DatabaseData\t2099\t${name}Database\t[#NVDBConvDll]\t")
endforeach()

export_table(InstallExecuteSequence sequence)
foreach(line "SetCommitDatabaseData\tNOT REMOVE~=\"ALL\"\t4001"
             "SetRollbackDatabaseData\tNOT REMOVE~=\"ALL\"\t4002"
             "SetConvertDatabaseData\tNOT REMOVE~=\"ALL\"\t4003"
             "CommitDatabase\tNOT REMOVE~=\"ALL\"\t6597"
             "RollbackDatabase\tNOT REMOVE~=\"ALL\"\t6598"
             "ConvertDatabase\tNOT REMOVE~=\"ALL\"\t6599"
             "InstallFiles\t\t4000"
             "WriteRegistryValues\t\t5000"
             "InstallFinalize\t\t6600")
    expect_line(InstallExecuteSequence "${sequence}" "${line}")
endforeach()

export_table(Registry registry)
string(REGEX MATCH "\n[^\t\n]+\t2\tSOFTWARE\\\\Norvane\\\\Policies\\\\Default\tStrictConversion\t#1\tStrictConversionPolicy\n"
       policy "\n${registry}")
if(NOT policy)
    message(FATAL_ERROR "Registry has no StrictConversion = 1 (HKLM):\n${registry}")
endif()

export_table(Component components)
expect_line(Component "${components}" "Library\t{A3303387-4F27-4286-A4E1-86026430CE94}\tINSTALLDIR\t256\t\tNVDBConvDll")
export_table(File files)
string(REGEX MATCH "\nNVDBConvDll\tLibrary\t[^\t]*NVDBConv.dll\t[0-9]+\t" file "\n${files}")
if(NOT file)
    message(FATAL_ERROR "File has no NVDBConv.dll:\n${files}")
endif()
export_table(Binary binary)
string(FIND "${binary}" "\nNvdbconvCa\t" at)
if(at EQUAL -1)
    message(FATAL_ERROR "Binary has no NvdbconvCa:\n${binary}")
endif()
