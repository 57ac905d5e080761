// The format 1.0 name indexes and policy keys, found and rewritten below an open
// database key.
//
// A 1.0 database keeps one user name index per user store: the machine's own store
// under MainDB and one per cached domain under Cache\<domain>. Each index maps a user
// name (possibly ending in '/') to a 16-byte identifier; the 2.0 form is the same key
// without its 16-byte values. Policy keys sit beside the indexes and go away in 2.0.
//
// These functions raise the library's COM error on failure; CConverter2 wraps them
// in its operations. They work with the view flags they are given, relative to the
// key handle they are given, and never touch anything else.
#pragma once
#include <windows.h>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace nv {

// Store name -> name index path (relative to the database key), in ordinal
// (case-sensitive) order of the store name: the order of conversion.
using NameIndexMap = std::map<std::wstring, std::wstring>;
// Policy key paths relative to the database key, in the order they were found.
using PolicyKeyList = std::vector<std::wstring>;

// Layout of a format 1.0 database, relative to the database key.
inline constexpr const wchar_t kCacheKeyName[] = L"Cache";
inline constexpr const wchar_t kStoreNameIndexSuffix[] = L"\\Users\\Index\\NameIndex";
inline constexpr const wchar_t kStorePoliciesSuffix[] = L"\\Policies";
inline constexpr const wchar_t kMachineNameIndexPath[] = L"MainDB\\Users\\Index\\NameIndex";
inline constexpr const wchar_t kMachinePoliciesPath[] = L"Data\\Policies";

// Name buffers hold the registry's longest key or value name.
constexpr DWORD kRegistryNameBufferChars = 16384;

// Enumerates one subkey name with RegEnumKeyExW's contract: index, name buffer,
// capacity in characters on entry and the name's length on success; a Win32 code.
using SubkeyEnumerator = std::function<LONG(HKEY key, DWORD index, wchar_t* name, DWORD* cchName)>;

// The registry's own enumerator (RegEnumKeyExW without class or time).
LONG EnumRegistrySubkey(HKEY key, DWORD index, wchar_t* name, DWORD* cchName) noexcept;

// The computer's NetBIOS name. The buffer starts at initialChars and grows to the
// size the system asks for; a failure that names no larger size is raised.
std::wstring GetNetBiosComputerName(DWORD initialChars = MAX_PATH);

// Cache listings that fail on this many indexes in a row end with the last error.
constexpr DWORD kMaxFailedSubkeysInARow = 1024;

// Fills the map and the list from the database key: every subkey of Cache (an
// enumeration error on one index skips that index; kMaxFailedSubkeysInARow of them in
// a row raise the last one), then the machine's store under the computer's name,
// which replaces a domain of the same name.
void CollectNameIndexesAndPolicies(HKEY hDatabase, REGSAM samView, const SubkeyEnumerator& enumSubkey,
                                   NameIndexMap& nameIndexes, PolicyKeyList& policyKeys);

// Removes every 16-byte value from the name index key at the path. Values of other
// sizes stay. An enumeration or read error ends the scan; the 16-byte values found
// before it are still removed, and then the error is raised. An empty value is
// such an error (ERROR_NOT_ENOUGH_MEMORY, as in the backup copy).
void StripNameIndex(HKEY hDatabase, REGSAM samView, const wchar_t* wszPath);

} // namespace nv
