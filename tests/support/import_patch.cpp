#include "support/import_patch.h"

namespace nvtest {

ImportPatch::ImportPatch(HMODULE module, const std::map<std::string, void*>& hooks)
{
    auto* base = reinterpret_cast<BYTE*>(module);
    if (!base)
        return;
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (!dir.VirtualAddress)
        return;
    for (auto* d = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); d->Name; ++d) {
        if (!d->OriginalFirstThunk)
            continue;
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + d->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + d->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            const auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            const auto hook = hooks.find(reinterpret_cast<const char*>(byName->Name));
            if (hook == hooks.end())
                continue;
            auto* at = reinterpret_cast<ULONG_PTR*>(&slots->u1.Function);
            const ULONG_PTR original = *at;
            if (!Write(at, reinterpret_cast<ULONG_PTR>(hook->second))) {
                m_ok = false;
                continue;
            }
            m_patched.push_back({at, original});
            m_names.push_back(hook->first);
            m_originals.emplace(hook->first, reinterpret_cast<void*>(original));
        }
    }
}

ImportPatch::~ImportPatch()
{
    for (const Slot& s : m_patched)
        Write(s.at, s.original);
}

void* ImportPatch::Original(const std::string& name) const
{
    const auto it = m_originals.find(name);
    return it == m_originals.end() ? nullptr : it->second;
}

bool ImportPatch::Write(ULONG_PTR* at, ULONG_PTR value)
{
    DWORD old = 0;
    if (!::VirtualProtect(at, sizeof(*at), PAGE_READWRITE, &old))
        return false;
    *at = value;
    ::VirtualProtect(at, sizeof(*at), old, &old);
    return true;
}

} // namespace nvtest
