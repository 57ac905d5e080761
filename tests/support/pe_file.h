// PeFile: what a reviewer checks in a 64-bit PE file on disk, read from its bytes
// without loading it: the header flags, the sections, the base relocations, the
// imported DLLs, the exported names, the COFF symbols (debug files keep them), the
// GNU debug link, and whether the stack protector's failure routine is called.
//
// Read() never throws; a file it cannot parse gives false and a reason. Lookups
// outside the file give empty results, so a truncated file fails the checks built
// on it instead of crashing the test.
#pragma once
#include <windows.h>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace nvtest {

struct PeSection {
    std::string name; // long names resolved through the string table
    DWORD virtualAddress = 0;
    DWORD virtualSize = 0;
    DWORD rawOffset = 0;
    DWORD rawSize = 0;
    DWORD characteristics = 0;
    bool writable() const { return (characteristics & IMAGE_SCN_MEM_WRITE) != 0; }
    bool executable() const { return (characteristics & (IMAGE_SCN_MEM_EXECUTE | IMAGE_SCN_CNT_CODE)) != 0; }
};

struct PeImport {
    std::string dll;
    std::vector<std::string> functions; // by name; "#n" for an ordinal
    bool delayed = false;
};

class PeFile {
public:
    bool Read(const std::wstring& path, std::string* error);

    WORD machine = 0;
    WORD fileCharacteristics = 0;
    WORD dllCharacteristics = 0;
    DWORD timeDateStamp = 0;
    DWORD numberOfSymbols = 0;
    std::vector<IMAGE_DATA_DIRECTORY> directories;
    std::vector<PeSection> sections;

    const IMAGE_DATA_DIRECTORY& directory(unsigned index) const;
    const PeSection* section(const std::string& name) const;
    // Imports of the import table and of the delay-load descriptors (those of the
    // directory, or those found in the sections when the linker left it empty), in
    // file order.
    std::vector<PeImport> Imports() const;
    std::vector<std::string> ImportedDlls() const; // lower case, both tables
    std::vector<std::string> Exports() const;      // exported names, sorted
    // COFF symbols that name a place in a section: name -> RVA.
    std::map<std::string, DWORD> Symbols() const;
    // .gnu_debuglink: the debug file's name and its CRC-32; false when absent.
    bool DebugLink(std::string* fileName, std::uint32_t* crc) const;
    // Direct calls (E8 rel32) in executable sections whose target is `rva`.
    size_t CountCallsTo(DWORD rva) const;
    // Any VS_VERSION_INFO resource at all.
    bool HasVersionResource() const;

    // Pointer to `size` bytes at an RVA, or null when they are not all in the file.
    const BYTE* AtRva(DWORD rva, size_t size) const;
    const std::vector<BYTE>& bytes() const { return m_bytes; }

private:
    std::string StringAtRva(DWORD rva) const;
    std::vector<DWORD> DelayDescriptors() const; // RVAs
    bool LooksLikeDelayDescriptor(DWORD rva) const;
    bool InImage(DWORD rva) const;
    std::vector<BYTE> m_bytes;
    DWORD m_stringTable = 0; // file offset of the COFF string table, 0 when none
};

// The CRC-32 that GNU debug links carry (the zlib polynomial).
std::uint32_t Crc32(const std::vector<BYTE>& data);
std::vector<BYTE> ReadFileBytes(const std::wstring& path);

} // namespace nvtest
