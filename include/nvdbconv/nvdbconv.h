/*
 * nvdbconv.h: what a host of NVDBConv.dll needs, in C or C++.
 *
 * NVDBConv.dll (64-bit) upgrades the Norvane suite's registry database in place,
 * one format step per load: 1.0 -> 2.0, then 2.0 -> 3.0. A host (an installer, a
 * custom action, a tool) either links through the import library (libNVDBConv.dll.a
 * for MinGW, NVDBConv.lib for MSVC's and LLVM's linkers; CMake: NVDBConv::NVDBConv)
 * and calls the prototypes below, or loads the library at run time and resolves
 * the exports by the names NVDBCONV_EXPORT_* into the PFN_NVDBCONV_* types. A host
 * that only loads at run time may define NVDBCONV_NO_PROTOTYPES first.
 *
 * The library decides what to convert when it is loaded (it reads the database's
 * "Version" in DllMain), so a second step needs a second load: free the library and
 * load it again, or run a new process. Everything here is the library's own
 * contract; the library is built from these definitions.
 *
 * docs/INTEGRATING.md (share/doc/NVDBConv in the SDK) says when to call what.
 */
#ifndef NVDBCONV_NVDBCONV_H
#define NVDBCONV_NVDBCONV_H

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Calling convention and linkage ----------------------------------------- */

/* Every export is __stdcall (the same as __cdecl on x64; it matters to 32-bit
   tools that read this header) and undecorated: "Convert", not "_Convert@0". */
#define NVDBCONV_CALL __stdcall

#ifndef NVDBCONV_API
#define NVDBCONV_API __declspec(dllimport)
#endif

#ifdef __cplusplus
#define NVDBCONV_INLINE inline
#else
#define NVDBCONV_INLINE static __inline
#endif

/* ---- Exports ----------------------------------------------------------------- */

/* The names to pass to GetProcAddress. */
#define NVDBCONV_EXPORT_CONVERT "Convert"
#define NVDBCONV_EXPORT_ROLLBACK "Rollback"
#define NVDBCONV_EXPORT_CLEANUP "Cleanup"
#define NVDBCONV_EXPORT_GETDBVERSION "GetDBVersion"
#define NVDBCONV_EXPORT_DLLREGISTERSERVER "DllRegisterServer"
#define NVDBCONV_EXPORT_DLLUNREGISTERSERVER "DllUnregisterServer"
#define NVDBCONV_EXPORT_DLLCANUNLOADNOW "DllCanUnloadNow"
#define NVDBCONV_EXPORT_DLLGETCLASSOBJECT "DllGetClassObject"

/* Convert: one format step. Backs the database up (the value "Backup" names the
   copy), converts, then removes the copy on success or calls Rollback on failure
   (which cannot reach the 32-bit database: see Rollback). S_OK when the step ran
   (under the 3.0 step some users may still have stayed: see
   NVDBCONV_KEY_HELD_USERS and the trace); E_FAIL when the library found no step for
   the database at load; NV_E_CONVERSION_BUSY when another process holds the
   conversion; any other failure leaves the database as the step stopped, with its
   backup and "Backup": the next Convert takes the step again. */
typedef HRESULT(NVDBCONV_CALL* PFN_NVDBCONV_CONVERT)(void);
/* Rollback: deletes the database key, copies back the backup key "Backup" names
   and deletes that key, all in the library's own (64-bit) registry view. The
   converters keep the database in the 32-bit view, so there it changes nothing and
   still answers S_OK. S_FALSE when there is no "Backup"; E_FAIL with no step. It
   deletes the database before it copies the backup back: call it only when the key
   that "Backup" names exists. */
typedef HRESULT(NVDBCONV_CALL* PFN_NVDBCONV_ROLLBACK)(void);
/* Cleanup: deletes the backup key and "Backup"; after the 3.0 step it also
   removes Data and MainDB once no user key is left. S_FALSE with no "Backup". */
typedef HRESULT(NVDBCONV_CALL* PFN_NVDBCONV_CLEANUP)(void);
/* GetDBVersion: the version found at load and the version the step would reach
   (NVDBCONV_VERSION_*; 0 and 0 when there is no database or no step). E_INVALIDARG
   when either pointer is null. */
typedef HRESULT(NVDBCONV_CALL* PFN_NVDBCONV_GETDBVERSION)(DWORD* pdwCurrent, DWORD* pdwTarget);
/* The COM server's exports (not in the import libraries: resolve them at run time).
   DllRegisterServer adds the converter to NVDBCONV_KEY_COMPONENTS. */
typedef HRESULT(NVDBCONV_CALL* PFN_NVDBCONV_DLLREGISTERSERVER)(void);
typedef HRESULT(NVDBCONV_CALL* PFN_NVDBCONV_DLLUNREGISTERSERVER)(void);
typedef HRESULT(NVDBCONV_CALL* PFN_NVDBCONV_DLLCANUNLOADNOW)(void);
typedef HRESULT(NVDBCONV_CALL* PFN_NVDBCONV_DLLGETCLASSOBJECT)(REFCLSID rclsid, REFIID riid, void** ppv);

#ifndef NVDBCONV_NO_PROTOTYPES
NVDBCONV_API HRESULT NVDBCONV_CALL Convert(void);
NVDBCONV_API HRESULT NVDBCONV_CALL Rollback(void);
NVDBCONV_API HRESULT NVDBCONV_CALL Cleanup(void);
NVDBCONV_API HRESULT NVDBCONV_CALL GetDBVersion(DWORD* pdwCurrent, DWORD* pdwTarget);
#endif

/* ---- The library's own result codes ------------------------------------------- */

/* NV_E_CONVERSION_BUSY: another process converted, rolled back or cleaned up the
   database while this call waited (or holds it still); nothing was changed. Let it
   finish, load the library again and repeat the step. HRESULT_FROM_WIN32(ERROR_BUSY).
   NV_E_USER_INCOMPLETE: not returned by an export: the result of one user that the
   strict policy kept in the old database because not all of it reached the store
   ("Result" of the user's entry under NVDBCONV_KEY_HELD_USERS, and the trace).
   Constants in C++ (so that the library's namespaces can take them in), macros in C. */
#ifdef __cplusplus
static const HRESULT NV_E_CONVERSION_BUSY = static_cast<HRESULT>(0x800700AAL);
static const HRESULT NV_E_USER_INCOMPLETE = static_cast<HRESULT>(0x80040201L);
#else
#define NV_E_CONVERSION_BUSY ((HRESULT)0x800700AAL)
#define NV_E_USER_INCOMPLETE ((HRESULT)0x80040201L)
#endif

/* ---- Database versions ---------------------------------------------------------- */

/* Major version in the high 16 bits, minor in the low 16. */
#define NVDBCONV_MAKE_VERSION(major, minor) ((DWORD)((((DWORD)(major)) << 16) | ((DWORD)(minor)&0xFFFFu)))
#define NVDBCONV_VERSION_MAJOR(version) ((DWORD)(((version) >> 16) & 0xFFFFu))
#define NVDBCONV_VERSION_1_0 0x00010000UL
#define NVDBCONV_VERSION_2_0 0x00020000UL
#define NVDBCONV_VERSION_3_0 0x00030000UL

/* ---- Registry: paths under HKEY_LOCAL_MACHINE, their views, value names ---------- */

#define NVDBCONV_KEY_VENDOR L"SOFTWARE\\Norvane"
/* The database. The converters open it in the 32-bit view. */
#define NVDBCONV_KEY_DATABASE L"SOFTWARE\\Norvane\\DB"
#define NVDBCONV_DATABASE_VIEW KEY_WOW64_32KEY
/* "1.0", "2.0"; the 3.0 step leaves it reading "2.1": do not judge by it alone. */
#define NVDBCONV_VALUE_VERSION L"Version"
/* Keys only a database before format 3.0 holds (NVDBConvIsDatabaseLayout30). */
#define NVDBCONV_KEY_DATA L"SOFTWARE\\Norvane\\DB\\Data"
#define NVDBCONV_KEY_MAINDB L"SOFTWARE\\Norvane\\DB\\MainDB"
/* One subkey per user who has not reached the store yet. */
#define NVDBCONV_KEY_USERS L"SOFTWARE\\Norvane\\DB\\Data\\Users"

/* REG_SZ in the database key: the backup key of a step that has not finished.
   Convert removes it before it returns, after success or after restoring; found
   before a Convert, it means an earlier conversion was cut short. */
#define NVDBCONV_VALUE_BACKUP L"Backup"
/* The only two keys "Backup" may name (the library refuses any other text): the
   1.0 step keeps its copy in the 32-bit view, the 2.0 step in the library's own
   64-bit view. */
#define NVDBCONV_KEY_BACKUP_10 L"SOFTWARE\\Norvane\\DB-v1.0"
#define NVDBCONV_BACKUP_10_VIEW KEY_WOW64_32KEY
#define NVDBCONV_KEY_BACKUP_20 L"SOFTWARE\\Norvane\\DB-v2.0"
#define NVDBCONV_BACKUP_20_VIEW KEY_WOW64_64KEY

/* Tracing, read when the library loads and now and then after (native view first,
   then the 32-bit view).
   DoTrace (DWORD, nonzero: on); TraceToFile (DWORD, 1 or absent: to a file);
   Verbosity (DWORD, 0..10); FileName (REG_SZ, full path of the file); TracePath
   (REG_SZ, the folder when FileName is absent); NewFileAlways (DWORD, 0: append to
   one file); DoProfiling (DWORD); Components and ComponentsNOT (REG_MULTI_SZ). */
#define NVDBCONV_KEY_TRACING L"SOFTWARE\\Norvane\\Tracing"
#define NVDBCONV_VALUE_DO_TRACE L"DoTrace"
#define NVDBCONV_VALUE_TRACE_TO_FILE L"TraceToFile"
#define NVDBCONV_VALUE_VERBOSITY L"Verbosity"
#define NVDBCONV_VALUE_FILE_NAME L"FileName"
#define NVDBCONV_VALUE_TRACE_PATH L"TracePath"
#define NVDBCONV_VALUE_NEW_FILE_ALWAYS L"NewFileAlways"
#define NVDBCONV_VALUE_DO_PROFILING L"DoProfiling"
#define NVDBCONV_VALUE_COMPONENTS L"Components"
#define NVDBCONV_VALUE_COMPONENTS_NOT L"ComponentsNOT"

/* Conversion policies, read in the library's own (64-bit) view at each Convert.
   StrictConversion: a REG_DWORD of 1 keeps every user whose data did not all reach
   the store in the old database (NV_E_USER_INCOMPLETE, NVDBCONV_KEY_HELD_USERS);
   Convert still answers S_OK. LogonInfoName: REG_SZ, the name of the user's logon
   secret in the store. */
#define NVDBCONV_KEY_POLICY L"SOFTWARE\\Norvane\\Policies\\Default"
#define NVDBCONV_VALUE_STRICT_CONVERSION L"StrictConversion"
#define NVDBCONV_STRICT_CONVERSION_ON 1UL
#define NVDBCONV_VALUE_LOGON_INFO_NAME L"LogonInfoName"

/* Users the strict policy held, one subkey {GUID} each (32-bit view, readable by
   LocalSystem and Administrators only): SID (REG_SZ), Result (REG_DWORD, the
   user's HRESULT) and Reason (REG_SZ, what is missing). A later Convert that moves
   the user removes its entry. */
#define NVDBCONV_KEY_CONVERSION L"SOFTWARE\\Norvane\\DBConversion"
#define NVDBCONV_KEY_HELD_USERS L"SOFTWARE\\Norvane\\DBConversion\\HeldUsers"
#define NVDBCONV_HELD_USERS_VIEW KEY_WOW64_32KEY
#define NVDBCONV_VALUE_HELD_SID L"SID"
#define NVDBCONV_VALUE_HELD_RESULT L"Result"
#define NVDBCONV_VALUE_HELD_REASON L"Reason"

/* The suite's component list that DllRegisterServer writes (native view). */
#define NVDBCONV_KEY_COMPONENTS L"SOFTWARE\\Norvane\\Core\\SysComponents"

/* ---- Is the database converted? --------------------------------------------------- */

/* TRUE when the database is laid out as format 3.0: its key opens (32-bit view)
   and holds neither Data nor MainDB, both certainly absent (ERROR_FILE_NOT_FOUND).
   That is "converted", whatever "Version" reads: the 3.0 step leaves "2.1" there,
   and the library still offers that step, which on a converted database makes a
   backup and then fails. So ask this before Convert and skip the step when it says
   TRUE. FALSE when there is no database, or when a key exists or cannot be read:
   the caller then goes on as for a database that is not finished. */
NVDBCONV_INLINE BOOL NVDBConvKeyIsAbsent(LPCWSTR path)
{
    HKEY key = NULL;
    const LONG r = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ | NVDBCONV_DATABASE_VIEW, &key);
    if (r == ERROR_SUCCESS)
        RegCloseKey(key);
    return r == ERROR_FILE_NOT_FOUND;
}

NVDBCONV_INLINE BOOL NVDBConvIsDatabaseLayout30(void)
{
    HKEY db = NULL;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, NVDBCONV_KEY_DATABASE, 0, KEY_READ | NVDBCONV_DATABASE_VIEW, &db) !=
        ERROR_SUCCESS)
        return FALSE;
    RegCloseKey(db);
    return NVDBConvKeyIsAbsent(NVDBCONV_KEY_DATA) && NVDBConvKeyIsAbsent(NVDBCONV_KEY_MAINDB);
}

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* NVDBCONV_NVDBCONV_H */
