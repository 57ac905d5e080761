// QueryInterface from a table, in the shape of the classic COM samples' QITAB: each
// class lists the interfaces it offers as {IID, offset of that interface in the
// object}, and one function answers every query from such a list. An entry may name
// a test behaviour (storedata.h) that withdraws the interface; IUnknown is answered
// with the first entry, which no behaviour withdraws.
#pragma once
#include <windows.h>
#include <objbase.h>
#include <cstddef>

#include "storedata.h"

namespace nvstore {

struct QiEntry {
    const IID* iid;                 // nullptr ends the table
    std::ptrdiff_t offset;          // of the interface's vtable pointer in the object
    bool Behaviours::*switchedOff;  // the test behaviour that withdraws it, or nullptr
};

// The offset of Interface within Class, as the samples' OFFSETOFCLASS computes it.
template <class Interface, class Class>
std::ptrdiff_t OffsetOfInterface()
{
    constexpr std::ptrdiff_t kBase = 8; // any address but null: the cast of null stays null
    return reinterpret_cast<std::ptrdiff_t>(static_cast<Interface*>(reinterpret_cast<Class*>(kBase))) - kBase;
}

// Answers riid from the table: the interface's pointer in *ppv, AddRef'd, and S_OK;
// or E_NOINTERFACE with *ppv null (E_POINTER when ppv is null).
HRESULT QueryFromTable(void* object, const QiEntry* table, REFIID riid, void** ppv);

} // namespace nvstore
