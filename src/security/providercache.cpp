#include "security/providercache.h"

#include <cwchar>

#include "common/threadslot.h"

namespace nvsecurity {

namespace {
// The innermost cache of the thread.
nv::ThreadSlot g_providerCache;
CProviderCache* ThreadCache() noexcept { return static_cast<CProviderCache*>(g_providerCache.Get()); }
} // namespace

CProviderCache::CProviderCache() noexcept : m_outer(ThreadCache())
{
    g_providerCache.Set(this);
}

CProviderCache::~CProviderCache()
{
    g_providerCache.Set(m_outer);
    for (size_t i = 0; i < m_count; ++i)
        ::CryptReleaseContext(m_entries[i].hProv, 0);
}

bool CProviderCache::AcquireMachineContainer(const wchar_t* container, HCRYPTPROV* phProv) noexcept
{
    CProviderCache* cache = ThreadCache();
    if (cache && container) {
        for (size_t i = 0; i < cache->m_count; ++i) {
            Entry& e = cache->m_entries[i];
            if (std::wcscmp(e.container, container) == 0 && ::CryptContextAddRef(e.hProv, nullptr, 0)) {
                *phProv = e.hProv;
                return true;
            }
        }
    }
    HCRYPTPROV hProv = 0;
    if (!::CryptAcquireContextW(&hProv, container, kProviderName, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET))
        return false;
    // The cache keeps a reference of its own; a container it has no room or no
    // reference for is simply not shared.
    if (cache && container && cache->m_count < kMaxEntries && std::wcslen(container) < kContainerNameChars &&
        ::CryptContextAddRef(hProv, nullptr, 0)) {
        Entry& e = cache->m_entries[cache->m_count++];
        std::wcscpy(e.container, container);
        e.hProv = hProv;
    }
    *phProv = hProv;
    return true;
}

bool CProviderCache::FindHostContainer(REGSAM samView, wchar_t (&container)[kContainerNameChars]) noexcept
{
    const CProviderCache* cache = ThreadCache();
    if (!cache)
        return false;
    for (size_t i = 0; i < cache->m_hostCount; ++i) {
        if (cache->m_hosts[i].samView == samView) {
            std::wmemcpy(container, cache->m_hosts[i].container, kContainerNameChars);
            return true;
        }
    }
    return false;
}

void CProviderCache::RememberHostContainer(REGSAM samView, const wchar_t (&container)[kContainerNameChars]) noexcept
{
    CProviderCache* cache = ThreadCache();
    if (!cache || cache->m_hostCount == kMaxEntries)
        return;
    HostEntry& e = cache->m_hosts[cache->m_hostCount++];
    e.samView = samView;
    std::wmemcpy(e.container, container, kContainerNameChars);
}

} // namespace nvsecurity
