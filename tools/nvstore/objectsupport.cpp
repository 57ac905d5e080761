#include "objectsupport.h"

namespace nvstore {

std::atomic<long> g_moduleCount{0};

std::mutex& StoreLock()
{
    static std::mutex lock;
    return lock;
}

BSTR AllocBstr(const std::wstring& s)
{
    BSTR b = ::SysAllocStringLen(s.data(), static_cast<UINT>(s.size()));
    if (!b)
        nv::ThrowHr(E_OUTOFMEMORY);
    return b;
}

void CheckInBlob(const CRYPT_DATA_BLOB* p)
{
    if (!p || (p->cbData && !p->pbData))
        nv::ThrowHr(E_INVALIDARG);
}

} // namespace nvstore
