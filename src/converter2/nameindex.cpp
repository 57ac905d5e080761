#include "converter2/nameindex.h"

#include <memory>
#include <new>

#include "common/handles.h"
#include "common/hresult.h"
#include "common/regkey.h"

namespace nv {

LONG EnumRegistrySubkey(HKEY key, DWORD index, wchar_t* name, DWORD* cchName) noexcept
{
    return ::RegEnumKeyExW(key, index, name, cchName, nullptr, nullptr, nullptr, nullptr);
}

std::wstring GetNetBiosComputerName(DWORD initialChars)
{
    std::vector<wchar_t> buffer(initialChars ? initialChars : 1);
    for (;;) {
        DWORD cch = static_cast<DWORD>(buffer.size());
        if (::GetComputerNameExW(ComputerNameNetBIOS, buffer.data(), &cch))
            return std::wstring(buffer.data(), cch);
        DWORD err = ::GetLastError();
        // On ERROR_MORE_DATA the system names the size it needs, terminator included.
        if (err != ERROR_MORE_DATA || cch <= buffer.size())
            ThrowHr(err == 0 ? E_FAIL : HResultFromWin32(static_cast<LONG>(err)));
        buffer.assign(cch, L'\0');
    }
}

void CollectNameIndexesAndPolicies(HKEY hDatabase, REGSAM samView, const SubkeyEnumerator& enumSubkey,
                                   NameIndexMap& nameIndexes, PolicyKeyList& policyKeys)
{
    const std::wstring cachePrefix = std::wstring(kCacheKeyName) + L"\\";
    {
        CNVRegKey cache;
        // No Cache key just means no cached domains.
        if (cache.Open(hDatabase, kCacheKeyName, KEY_READ | samView) == ERROR_SUCCESS) {
            DWORD failedInARow = 0;
            for (DWORD index = 0;; ++index) {
                wchar_t name[kRegistryNameBufferChars];
                DWORD cch = kRegistryNameBufferChars - 1;
                LONG r = enumSubkey(cache, index, name, &cch);
                if (r == ERROR_NO_MORE_ITEMS)
                    break;
                // A subkey that cannot be listed is left out; the others still count.
                // A listing that fails on every index (a hive that stays locked) never
                // reaches "no more items": after a long run of failures it ends the
                // conversion with the last error instead of looping for ever.
                if (r != ERROR_SUCCESS) {
                    if (++failedInARow >= kMaxFailedSubkeysInARow)
                        ThrowHr(HResultFromWin32(r));
                    continue;
                }
                failedInARow = 0;
                const std::wstring store = cachePrefix + name;
                nameIndexes[name] = store + kStoreNameIndexSuffix;
                policyKeys.push_back(store + kStorePoliciesSuffix);
            }
        }
    }
    // After the domains on purpose: a domain bearing the computer's name is the
    // machine's own store.
    nameIndexes[GetNetBiosComputerName()] = kMachineNameIndexPath;
    policyKeys.push_back(kMachinePoliciesPath);
}

void StripNameIndex(HKEY hDatabase, REGSAM samView, const wchar_t* wszPath)
{
    CNVRegKey nameIndex;
    ThrowIfWin32Failed(nameIndex.Open(hDatabase, wszPath, KEY_ALL_ACCESS | samView));

    constexpr DWORD kIdentifierBytes = 16;
    std::vector<std::wstring> toDelete;
    // Built as the 2.0 index would key its users (no trailing '/') and then dropped:
    // the 2.0 layout keeps no copy of it.
    std::map<std::wstring, std::vector<BYTE>> identifiers;

    HRESULT hrScan = S_OK;
    for (DWORD i = 0;; ++i) {
        wchar_t name[kRegistryNameBufferChars] = {};
        DWORD cch = kRegistryNameBufferChars - 1;
        DWORD type = 0;
        DWORD cb = 0;
        LONG r = ::RegEnumValueW(nameIndex, i, name, &cch, nullptr, &type, nullptr, &cb);
        if (r == ERROR_NO_MORE_ITEMS)
            break;
        if (r != ERROR_SUCCESS && r != ERROR_MORE_DATA) {
            hrScan = HResultFromWin32(r);
            break;
        }
        // An empty value is an error here, as it is for the backup copy.
        if (cb == 0) {
            hrScan = HResultFromWin32(ERROR_NOT_ENOUGH_MEMORY);
            break;
        }
        std::unique_ptr<BYTE[]> data(new (std::nothrow) BYTE[cb]());
        if (!data) {
            hrScan = E_OUTOFMEMORY;
            break;
        }
        r = ::RegQueryValueExW(nameIndex, name, nullptr, &type, data.get(), &cb);
        if (r != ERROR_SUCCESS) {
            hrScan = HResultFromWin32(r);
            break;
        }
        if (cb == kIdentifierBytes) {
            toDelete.emplace_back(name);
            std::wstring user(name);
            if (!user.empty() && user.back() == L'/')
                user.pop_back();
            identifiers[user].assign(data.get(), data.get() + kIdentifierBytes);
        }
    }

    // Removed after the scan so that the enumeration indexes stay valid; also after
    // a failed scan, for what was found before the failure.
    for (const std::wstring& name : toDelete)
        ::RegDeleteValueW(nameIndex, name.c_str());

    ThrowIfFailed(hrScan);
}

} // namespace nv
