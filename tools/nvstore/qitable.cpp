#include "qitable.h"

#include "common/hresult.h"

namespace nvstore {

namespace {

// Whether a test behaviour leaves an interface offered; a behaviour that cannot be
// read switches nothing off.
bool Offered(bool Behaviours::*switchedOff)
{
    bool offered = true;
    nv::Guarded([&]() -> HRESULT {
        offered = !(ReadBehaviours().*switchedOff);
        return S_OK;
    });
    return offered;
}

} // namespace

HRESULT QueryFromTable(void* object, const QiEntry* table, REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    const QiEntry* found = IsEqualIID(riid, __uuidof(IUnknown)) ? table : nullptr;
    for (const QiEntry* entry = table; !found && entry->iid; ++entry) {
        if (!IsEqualIID(riid, *entry->iid))
            continue;
        if (entry->switchedOff && !Offered(entry->switchedOff))
            return E_NOINTERFACE;
        found = entry;
    }
    if (!found)
        return E_NOINTERFACE;
    auto* unknown = reinterpret_cast<IUnknown*>(static_cast<BYTE*>(object) + found->offset);
    unknown->AddRef();
    *ppv = unknown;
    return S_OK;
}

} // namespace nvstore
