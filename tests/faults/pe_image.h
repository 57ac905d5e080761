// Reading a PE image: the import table of a loaded module (names and address
// table slots) and the COFF symbol table of a DLL file (to name the function an
// address lies in).
#pragma once
#include <windows.h>
#include <cstdint>
#include <string>
#include <vector>

namespace nvfaults {

struct ImportSlot {
    std::string dll;      // as the import directory spells it
    std::string function; // "#<ordinal>" for imports by ordinal
    void** slot = nullptr; // the module's import address table entry
};

// Every import of a loaded module, in import directory order.
std::vector<ImportSlot> ListImports(HMODULE module);

// Size of a loaded module's image.
DWORD ImageSize(HMODULE module);

// Function symbols of a DLL file, by relative virtual address.
class SymbolTable {
public:
    // False when neither the file nor its debug file (<file>.debug) can be read
    // with a symbol table.
    bool Load(const std::wstring& path);
    // "name+0xoffset" (demangled, without parameter lists) of the function that
    // holds the address, or "?+0xrva".
    std::string Describe(std::uint32_t rva) const;
    // Only the function's name (demangled, without parameters), or "".
    std::string FunctionAt(std::uint32_t rva) const;

private:
    struct Symbol {
        std::uint32_t rva;
        std::string name;
    };
    std::vector<Symbol> m_symbols; // sorted by rva
    bool LoadFrom(const std::wstring& path);
    const Symbol* Find(std::uint32_t rva) const;
};

} // namespace nvfaults
