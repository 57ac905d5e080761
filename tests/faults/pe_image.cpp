#include "pe_image.h"

#include <cxxabi.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace nvfaults {

namespace {

const IMAGE_NT_HEADERS* NtHeaders(const BYTE* base)
{
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    return reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
}

// "f(int)" and "ns::C::f() const" lose their parameter lists.
std::string WithoutParameters(const std::string& name)
{
    int depth = 0;
    for (size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if (c == '<')
            ++depth;
        else if (c == '>')
            --depth;
        else if (c == '(' && depth == 0 && i > 0)
            return name.substr(0, i);
    }
    return name;
}

std::string Demangle(const std::string& raw)
{
    int status = 0;
    char* text = abi::__cxa_demangle(raw.c_str(), nullptr, nullptr, &status);
    if (status != 0 || !text)
        return raw;
    std::string out = WithoutParameters(text);
    std::free(text);
    return out;
}

} // namespace

std::vector<ImportSlot> ListImports(HMODULE module)
{
    std::vector<ImportSlot> out;
    const BYTE* base = reinterpret_cast<const BYTE*>(module);
    const IMAGE_DATA_DIRECTORY& dir = NtHeaders(base)->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (dir.VirtualAddress == 0)
        return out;
    for (const auto* desc = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); desc->Name;
         ++desc) {
        const std::string dll = reinterpret_cast<const char*>(base + desc->Name);
        const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(
            base + (desc->OriginalFirstThunk ? desc->OriginalFirstThunk : desc->FirstThunk));
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(const_cast<BYTE*>(base) + desc->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            ImportSlot s;
            s.dll = dll;
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
                s.function = "#" + std::to_string(IMAGE_ORDINAL(names->u1.Ordinal));
            } else {
                const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
                s.function = reinterpret_cast<const char*>(byName->Name);
            }
            s.slot = reinterpret_cast<void**>(&slots->u1.Function);
            out.push_back(s);
        }
    }
    return out;
}

DWORD ImageSize(HMODULE module)
{
    return NtHeaders(reinterpret_cast<const BYTE*>(module))->OptionalHeader.SizeOfImage;
}

bool SymbolTable::Load(const std::wstring& path)
{
    // A shipped binary is stripped; its symbols sit in the debug file beside it.
    return LoadFrom(path) || LoadFrom(path + L".debug");
}

bool SymbolTable::LoadFrom(const std::wstring& path)
{
    m_symbols.clear();
    FILE* f = _wfopen(path.c_str(), L"rb");
    if (!f)
        return false;
    std::vector<BYTE> file;
    BYTE buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), f)) > 0)
        file.insert(file.end(), buffer, buffer + n);
    std::fclose(f);
    if (file.size() < sizeof(IMAGE_DOS_HEADER))
        return false;
    const IMAGE_NT_HEADERS* nt = NtHeaders(file.data());
    const IMAGE_FILE_HEADER& fh = nt->FileHeader;
    if (fh.PointerToSymbolTable == 0 || fh.NumberOfSymbols == 0)
        return false;
    const auto* sections = IMAGE_FIRST_SECTION(nt);
    const size_t symbolsAt = fh.PointerToSymbolTable;
    const size_t stringsAt = symbolsAt + static_cast<size_t>(fh.NumberOfSymbols) * IMAGE_SIZEOF_SYMBOL;
    if (stringsAt > file.size())
        return false;
    for (DWORD i = 0; i < fh.NumberOfSymbols; ++i) {
        const auto* sym = reinterpret_cast<const IMAGE_SYMBOL*>(file.data() + symbolsAt + i * IMAGE_SIZEOF_SYMBOL);
        const DWORD aux = sym->NumberOfAuxSymbols;
        if (sym->SectionNumber > 0 && sym->SectionNumber <= fh.NumberOfSections && ISFCN(sym->Type)) {
            std::string name;
            if (sym->N.Name.Short != 0) {
                name.assign(reinterpret_cast<const char*>(sym->N.ShortName),
                            strnlen(reinterpret_cast<const char*>(sym->N.ShortName), 8));
            } else if (stringsAt + sym->N.Name.Long < file.size()) {
                name = reinterpret_cast<const char*>(file.data() + stringsAt + sym->N.Name.Long);
            }
            m_symbols.push_back({sections[sym->SectionNumber - 1].VirtualAddress + sym->Value, Demangle(name)});
        }
        i += aux;
    }
    std::sort(m_symbols.begin(), m_symbols.end(), [](const Symbol& a, const Symbol& b) { return a.rva < b.rva; });
    return !m_symbols.empty();
}

const SymbolTable::Symbol* SymbolTable::Find(std::uint32_t rva) const
{
    auto it = std::upper_bound(m_symbols.begin(), m_symbols.end(), rva,
                               [](std::uint32_t v, const Symbol& s) { return v < s.rva; });
    if (it == m_symbols.begin())
        return nullptr;
    return &*std::prev(it);
}

std::string SymbolTable::FunctionAt(std::uint32_t rva) const
{
    const Symbol* s = Find(rva);
    return s ? s->name : std::string();
}

std::string SymbolTable::Describe(std::uint32_t rva) const
{
    char text[32];
    const Symbol* s = Find(rva);
    if (!s) {
        std::snprintf(text, sizeof(text), "?+0x%x", rva);
        return text;
    }
    std::snprintf(text, sizeof(text), "+0x%x", rva - s->rva);
    return s->name + text;
}

} // namespace nvfaults
