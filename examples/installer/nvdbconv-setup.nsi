; nvdbconv-setup: the database step of the suite's installer, as an example client
; of NVDBConv.dll. The installer carries the library and brings the database to the
; newest format, one step per library load: the library picks its converter when it
; is loaded, so each step loads it afresh (LoadLibraryEx + GetProcAddress through the
; System plug-in), asks GetDBVersion, calls Convert, and then Cleanup when Convert
; succeeded or, when the backup key that "Backup" names exists, Rollback when it
; failed; then FreeLibrary, and the next step. A database already laid out as 3.0
; (no Data and no MainDB under the database key, whatever "Version" reads) is
; converted: the installer says so and calls nothing, so a repair or a second run
; changes nothing. It turns the strict conversion policy on first (StrictConversion
; = 1 under HKLM\SOFTWARE\Norvane\Policies\Default), and after a 2.0 -> 3.0 step
; names every user the policy held. Every result code goes to the log file, one
; line each (a 1.0 database with 2.0 users, all moved):
;
;   CoInitializeEx = 0x00000001
;   step 1
;   LoadLibrary = ok
;   GetDBVersion = 0x00000000 current 0x00010000 target 0x00020000
;   Convert = 0x00000000
;   Cleanup = 0x00000001
;   step 1 = converted 1.0 -> 2.0
;   FreeLibrary = ok
;   step 2
;   LoadLibrary = ok
;   GetDBVersion = 0x00000000 current 0x00020000 target 0x00030000
;   Convert = 0x00000000
;   Cleanup = 0x00000001
;   step 2 = converted 2.0 -> 3.0, users in the store: 4 of 4
;   FreeLibrary = ok
;   outcome = converted 1.0 -> 2.0 -> 3.0
;
; Outcomes and exit codes (SetErrorLevel): 0 converted, already converted or
; nothing to convert; 4 converted, but users were held in the old database (each
; named by a "held user" line; the next run tries them again); 1 a step failed (the
; library rolled that step back; steps before it stay done); 2 the library could
; not be used.
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

; The database and the held-users record live in the 32-bit view; a 1.0 database
; is backed up there too, a 2.0 database in the library's own (64-bit) view.
!define DB_KEY "SOFTWARE\Norvane\DB"
!define USERS_KEY "SOFTWARE\Norvane\DB\Data\Users"
!define HELD_USERS_KEY "SOFTWARE\Norvane\DBConversion\HeldUsers"
; HKEY_LOCAL_MACHINE, and KEY_READ with KEY_WOW64_32KEY or KEY_WOW64_64KEY.
!define HKLM_HANDLE -2147483646
!define KEY_READ_32 0x20219
!define KEY_READ_64 0x20119
; 1.0 -> 2.0 -> 3.0 takes two steps; more means a step made no progress.
!define MAX_STEPS 4

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

; $0 = RegOpenKeyExW's answer for HKLM\path in the view: 0 the key opens, 2 it is
; certainly absent, anything else it is there but cannot be opened.
!macro OpenKeyResult path access
  System::Call "advapi32::RegOpenKeyExW(p ${HKLM_HANDLE}, w '${path}', i 0, i ${access}, *p .r1) i .r0"
  ${If} $0 = 0
    System::Call "advapi32::RegCloseKey(p r1)"
  ${EndIf}
!macroend
!define OpenKeyResult "!insertmacro OpenKeyResult"

; $0 = 1 when the database is laid out as 3.0: the key opens, and Data and MainDB
; are certainly absent. A subkey that is there but cannot be opened is no 3.0 layout.
Function IsLayout30
  ${OpenKeyResult} "${DB_KEY}" ${KEY_READ_32}
  ${If} $0 <> 0
    StrCpy $0 0
    Return
  ${EndIf}
  ${OpenKeyResult} "${DB_KEY}\Data" ${KEY_READ_32}
  ${If} $0 <> 2
    StrCpy $0 0
    Return
  ${EndIf}
  ${OpenKeyResult} "${DB_KEY}\MainDB" ${KEY_READ_32}
  ${If} $0 <> 2
    StrCpy $0 0
    Return
  ${EndIf}
  StrCpy $0 1
FunctionEnd

; $0 = the number of user keys under Data\Users (0 without the key).
Function CountUserKeys
  SetRegView 32
  StrCpy $0 0
  ${Do}
    ClearErrors
    EnumRegKey $1 HKLM "${USERS_KEY}" $0
    ${If} ${Errors}
    ${OrIf} $1 == ""
      ${Break}
    ${EndIf}
    IntOp $0 $0 + 1
  ${Loop}
  SetRegView default
FunctionEnd

; Logs every user key left under Data\Users with what the strict policy's held-users
; record says of it; $0 = how many.
Function LogUsersLeft
  SetRegView 32
  StrCpy $0 0
  ${Do}
    ClearErrors
    EnumRegKey $1 HKLM "${USERS_KEY}" $0
    ${If} ${Errors}
    ${OrIf} $1 == ""
      ${Break}
    ${EndIf}
    IntOp $0 $0 + 1
    ClearErrors
    ReadRegStr $2 HKLM "${HELD_USERS_KEY}\$1" "SID"
    ${If} ${Errors}
      ${LogLine} "kept old data = $1 (no held-users record; its status is in the library's trace)"
    ${Else}
      ReadRegDWORD $3 HKLM "${HELD_USERS_KEY}\$1" "Result"
      IntFmt $3 "0x%08X" $3
      ReadRegStr $4 HKLM "${HELD_USERS_KEY}\$1" "Reason"
      ${LogLine} "held user = $1 $2 $3: $4"
    ${EndIf}
  ${Loop}
  SetRegView default
FunctionEnd

; After a failed Convert ($3 the version it started from): Rollback only when the
; backup key that "Backup" names exists, in the view the library keeps it in.
; Rollback deletes the database before it copies the backup back: without the
; backup it would lose the database. Convert has rolled its own step back already,
; so usually there is no "Backup" left.
Function RollbackIfBackedUp
  SetRegView 32
  ClearErrors
  ReadRegStr $5 HKLM "${DB_KEY}" "Backup"
  SetRegView default
  ${If} ${Errors}
  ${OrIf} $5 == ""
    ${LogLine} "Rollback = not called: no $\"Backup$\" value"
    Return
  ${EndIf}
  IntOp $6 $3 >> 16
  ${If} $6 = 1
    ${OpenKeyResult} "$5" ${KEY_READ_32}
    StrCpy $6 "32-bit"
  ${Else}
    ${OpenKeyResult} "$5" ${KEY_READ_64}
    StrCpy $6 "64-bit"
  ${EndIf}
  ${If} $0 <> 0
    ${LogLine} "Rollback = not called: $\"Backup$\" names HKLM\$5, which is missing ($6 view)"
    Return
  ${EndIf}
  ${CallAction} "Rollback"
FunctionEnd

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

  ; A 2.0 conversion creates the storage server's COM objects on this thread. NSIS
  ; has made it an apartment already (S_FALSE); a success of either kind is balanced
  ; by CoUninitialize below.
  System::Call "ole32::CoInitializeEx(p 0, i 2) i .r0"
  IntFmt $2 "0x%08X" $0
  ${LogLine} "CoInitializeEx = $2"
  StrCpy $R9 $0

  StrCpy $R2 0  ; exit code
  StrCpy $R3 "" ; the formats reached, "1.0 -> 2.0 -> 3.0"
  StrCpy $R4 0  ; step
  StrCpy $R5 0  ; users held by the last step
  ${Do}
    ; Finished means finished: after the last step "Version" still reads 2.x, and
    ; Convert would back the database up and fail on the missing Data\Users.
    Call IsLayout30
    ${If} $0 = 1
      ${If} $R3 == ""
        ${LogLine} "layout = 3.0 (no Data and no MainDB under HKLM\${DB_KEY})"
        ${LogLine} "outcome = already converted"
      ${Else}
        ${LogLine} "outcome = converted $R3"
      ${EndIf}
      ${Break}
    ${EndIf}
    IntOp $R4 $R4 + 1
    ${If} $R4 > ${MAX_STEPS}
      ${LogLine} "outcome = no progress after ${MAX_STEPS} steps"
      StrCpy $R2 1
      ${Break}
    ${EndIf}
    ${LogLine} "step $R4"

    ; By its full path, with its dependencies from the system directory only
    ; (0x800, LOAD_LIBRARY_SEARCH_SYSTEM32): an installer started from a downloads
    ; folder must not pick up a DLL planted beside it.
    System::Call "kernel32::LoadLibraryExW(w '$PLUGINSDIR\NVDBConv.dll', p 0, i 0x800) p .r0"
    StrCpy $Module $0
    ${If} $Module P= 0
      System::Call "kernel32::GetLastError() i .r1"
      ${LogLine} "LoadLibrary = failed, error $1"
      ${LogLine} "outcome = no library"
      StrCpy $R2 2
      ${Break}
    ${EndIf}
    ${LogLine} "LoadLibrary = ok"

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
    StrCpy $R8 $4 ; the target, kept past the calls below
    ; "1.0" and "2.0": the step's formats.
    IntOp $7 $3 >> 16
    IntOp $8 $3 & 0xFFFF
    StrCpy $7 "$7.$8"
    IntOp $8 $4 >> 16
    IntOp $9 $4 & 0xFFFF
    StrCpy $8 "$8.$9"

    StrCpy $R6 "" ; what ends the loop after this step
    ${If} $0 < 0
      ${LogLine} "outcome = no library"
      StrCpy $R2 2
      StrCpy $R6 "stop"
    ${ElseIf} $4 = 0
      ${If} $R3 == ""
        ${LogLine} "outcome = nothing to convert"
      ${Else}
        ${LogLine} "outcome = converted $R3"
      ${EndIf}
      StrCpy $R6 "stop"
    ${Else}
      IntOp $9 $3 >> 16
      StrCpy $R7 0
      ${If} $9 = 2
        Call CountUserKeys
        StrCpy $R7 $0
      ${EndIf}
      ${CallAction} "Convert"
      ${If} $0 < 0
        Call RollbackIfBackedUp
        ${LogLine} "step $R4 = failed $7 -> $8"
        ${LogLine} "outcome = failed, database left as the step stopped"
        StrCpy $R2 1
        StrCpy $R6 "stop"
      ${Else}
        ${CallAction} "Cleanup"
        ${If} $R3 == ""
          StrCpy $R3 $7
        ${EndIf}
        StrCpy $R3 "$R3 -> $8"
        ${If} $9 = 2
          Call LogUsersLeft
          StrCpy $R5 $0
          IntOp $1 $R7 - $R5
          ${LogLine} "step $R4 = converted $7 -> $8, users in the store: $1 of $R7"
        ${Else}
          ${LogLine} "step $R4 = converted $7 -> $8"
        ${EndIf}
        ; The newest format: a user held in the old database stays for the next run.
        ${If} $R8 >= 0x00030000
          StrCpy $R6 "last"
        ${EndIf}
      ${EndIf}
    ${EndIf}

    System::Call "kernel32::FreeLibrary(p $Module) i .r0"
    ${If} $0 <> 0
      ${LogLine} "FreeLibrary = ok"
    ${Else}
      ${LogLine} "FreeLibrary = failed"
    ${EndIf}
    ${If} $R6 == "last"
      ${If} $R5 > 0
        ${LogLine} "outcome = converted $R3, users held in the old database: $R5"
        StrCpy $R2 4
      ${Else}
        ${LogLine} "outcome = converted $R3"
      ${EndIf}
      ${Break}
    ${ElseIf} $R6 == "stop"
      ${Break}
    ${EndIf}
  ${Loop}

  ${If} $R9 >= 0
    System::Call "ole32::CoUninitialize()"
  ${EndIf}
  FileClose $Log
  SetErrorLevel $R2
SectionEnd
