; nvdbconv-setup: the database step of the suite's installer, as an example client
; of NVDBConv.dll. The installer carries the library, loads it into its own process
; (LoadLibraryEx + GetProcAddress through the System plug-in), asks GetDBVersion, calls
; Convert, and then Cleanup when Convert succeeded or Rollback when it failed. It turns
; the strict conversion policy on first (StrictConversion = 1 under
; HKLM\SOFTWARE\Norvane\Policies\Default). Every result code goes to the log file,
; one line each:
;
;   LoadLibrary = ok
;   CoInitializeEx = 0x00000001
;   GetDBVersion = 0x00000000 current 0x00020000 target 0x00030000
;   Convert = 0x00000000
;   Cleanup = 0x00000001
;   outcome = converted
;   FreeLibrary = ok
;
; Outcomes: converted, rolled back, nothing to convert, no library. Exit codes
; (SetErrorLevel): 0 converted or nothing to convert, 1 rolled back, 2 the library
; could not be used.
;
; Build:  makensis -DNVDBCONV_DLL=/path/to/NVDBConv.dll [-DOUTFILE=setup.exe] nvdbconv-setup.nsi
; Run:    nvdbconv-setup.exe /S [/LOG=C:\path\to\setup.log]   (default log: $TEMP\nvdbconv-setup.log)

Unicode true
Target amd64-unicode

!ifndef NVDBCONV_DLL
  !error "Define NVDBCONV_DLL, the NVDBConv.dll to carry: makensis -DNVDBCONV_DLL=... nvdbconv-setup.nsi"
!endif
!ifndef OUTFILE
  !define OUTFILE "nvdbconv-setup.exe"
!endif

!include "LogicLib.nsh"
!include "FileFunc.nsh"

Name "Norvane database upgrade"
OutFile "${OUTFILE}"
RequestExecutionLevel admin
ShowInstDetails show
Page instfiles

Var Log
Var Module

; One log line, also shown in the details list.
!macro LogLine text
  FileWrite $Log "${text}$\r$\n"
  DetailPrint "${text}"
!macroend
!define LogLine "!insertmacro LogLine"

; Calls the export named `name` (no arguments, HRESULT result) and logs
; "name = 0x%08X". The result is left in $0.
!macro CallAction name
  System::Call "kernel32::GetProcAddress(p $Module, m '${name}') p .r1"
  ${If} $1 P= 0
    StrCpy $0 -2147023769 ; HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND)
  ${Else}
    System::Call "::$1() i .r0"
  ${EndIf}
  IntFmt $2 "0x%08X" $0
  ${LogLine} "${name} = $2"
!macroend
!define CallAction "!insertmacro CallAction"

Section "Upgrade the database"
  ${GetParameters} $R0
  ClearErrors
  ${GetOptions} $R0 "/LOG=" $R1
  ${If} ${Errors}
  ${OrIf} $R1 == ""
    StrCpy $R1 "$TEMP\nvdbconv-setup.log"
  ${EndIf}
  FileOpen $Log $R1 w

  ; The strict conversion policy: Convert deletes a user's old data only once all
  ; of that user reached the store; a user that did not stays for the next run.
  ; The library reads the value in its own (64-bit) registry view.
  SetRegView 64
  WriteRegDWORD HKLM "SOFTWARE\Norvane\Policies\Default" "StrictConversion" 1
  SetRegView default

  ; $PLUGINSDIR exists only after InitPluginsDir; without it the path is empty and
  ; the library cannot be loaded from there.
  InitPluginsDir
  SetOutPath $PLUGINSDIR
  File "/oname=NVDBConv.dll" "${NVDBCONV_DLL}"

  ; By its full path, with its dependencies from the system directory only
  ; (0x800, LOAD_LIBRARY_SEARCH_SYSTEM32): an installer started from a downloads
  ; folder must not pick up a DLL planted beside it.
  System::Call "kernel32::LoadLibraryExW(w '$PLUGINSDIR\NVDBConv.dll', p 0, i 0x800) p .r0"
  StrCpy $Module $0
  ${If} $Module P= 0
    System::Call "kernel32::GetLastError() i .r1"
    ${LogLine} "LoadLibrary = failed, error $1"
    ${LogLine} "outcome = no library"
    FileClose $Log
    SetErrorLevel 2
    Return
  ${EndIf}
  ${LogLine} "LoadLibrary = ok"

  ; A 2.0 conversion creates the storage server's COM objects on this thread. NSIS
  ; has made it an apartment already (S_FALSE); a success of either kind is balanced
  ; by CoUninitialize below.
  System::Call "ole32::CoInitializeEx(p 0, i 2) i .r0"
  IntFmt $2 "0x%08X" $0
  ${LogLine} "CoInitializeEx = $2"
  StrCpy $R9 $0

  StrCpy $R2 0 ; exit code
  System::Call "kernel32::GetProcAddress(p $Module, m 'GetDBVersion') p .r1"
  ${If} $1 P= 0
    StrCpy $0 -2147023769
    StrCpy $3 0
    StrCpy $4 0
  ${Else}
    System::Call "::$1(*i 0 r3, *i 0 r4) i .r0"
  ${EndIf}
  IntFmt $2 "0x%08X" $0
  IntFmt $5 "0x%08X" $3
  IntFmt $6 "0x%08X" $4
  ${LogLine} "GetDBVersion = $2 current $5 target $6"

  ${If} $0 < 0
    ${LogLine} "outcome = no library"
    StrCpy $R2 2
  ${ElseIf} $4 = 0
    ${LogLine} "outcome = nothing to convert"
  ${Else}
    ${CallAction} "Convert"
    ${If} $0 < 0
      ${CallAction} "Rollback"
      ${LogLine} "outcome = rolled back"
      StrCpy $R2 1
    ${Else}
      ${CallAction} "Cleanup"
      ${LogLine} "outcome = converted"
    ${EndIf}
  ${EndIf}

  ${If} $R9 >= 0
    System::Call "ole32::CoUninitialize()"
  ${EndIf}
  System::Call "kernel32::FreeLibrary(p $Module) i .r0"
  ${If} $0 <> 0
    ${LogLine} "FreeLibrary = ok"
  ${Else}
    ${LogLine} "FreeLibrary = failed"
  ${EndIf}
  FileClose $Log
  SetErrorLevel $R2
SectionEnd
