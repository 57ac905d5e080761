// CProviderCache: the provider handles and host container names that the security
// contexts of one conversion share on a thread.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <cstddef>
#include "security/hostidentifier.h"

namespace nvsecurity {
inline constexpr const wchar_t kProviderName[] = L"Microsoft Enhanced Cryptographic Provider v1.0";

// What the security contexts of one conversion share. A conversion makes a
// short-lived security context for every secret it reads, all for the same host
// key and machine container. Opening the container loads its keys and releasing
// its last handle stores them back; opening the host key, replacing its access list
// and reading "HostId" crosses the redirected registry path and reads the caller's
// token. Each costs more than the work done with the context. While a cache is
// alive on the thread, the contexts of that thread:
//   - share one provider handle per container (each holding a reference of its own);
//   - do the host key's work once per registry view: the first context that is
//     constructed in a view opens the host key, replaces its access list and reads
//     (or creates) "HostId" as always; later ones in that view take the container
//     name it found. A construction that fails leaves nothing behind, so the next
//     one does the whole work again.
// Without a cache, every context does all of it itself. Caches nest: the innermost
// one is used.
class CProviderCache {
public:
    CProviderCache() noexcept;
    ~CProviderCache();
    CProviderCache(const CProviderCache&) = delete;
    CProviderCache& operator=(const CProviderCache&) = delete;

    // CryptAcquireContextW of the machine container with the Enhanced provider, or a
    // new reference on the handle the thread's cache holds for it. The caller releases
    // its handle with CryptReleaseContext. False with the last error as the open left it.
    static bool AcquireMachineContainer(const wchar_t* container, HCRYPTPROV* phProv) noexcept;

    // The container name that a context of this thread found through the host key of
    // the given view, while the thread's cache is alive; false when none did yet.
    static bool FindHostContainer(REGSAM samView, wchar_t (&container)[kContainerNameChars]) noexcept;
    // Remembers it for the later contexts of the thread (no cache: nothing happens).
    static void RememberHostContainer(REGSAM samView, const wchar_t (&container)[kContainerNameChars]) noexcept;

private:
    struct Entry {
        wchar_t container[kContainerNameChars];
        HCRYPTPROV hProv;
    };
    struct HostEntry {
        REGSAM samView;
        wchar_t container[kContainerNameChars];
    };
    static constexpr size_t kMaxEntries = 4;
    Entry m_entries[kMaxEntries] = {};
    size_t m_count = 0;
    HostEntry m_hosts[kMaxEntries] = {};
    size_t m_hostCount = 0;
    CProviderCache* m_outer = nullptr;
};

} // namespace nvsecurity
