#include "support/pe_file.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace nvtest {

namespace {

constexpr size_t kSymbolSize = 18; // IMAGE_SIZEOF_SYMBOL

template <class T>
bool ReadAt(const std::vector<BYTE>& bytes, size_t offset, T* out)
{
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T))
        return false;
    std::memcpy(out, bytes.data() + offset, sizeof(T));
    return true;
}

std::string Lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// The RVAs of a directory's descriptors D, which end at the first whose field
// `last` is 0 (or at the image's end).
template <class D>
std::vector<DWORD> DescriptorTable(const PeFile& pe, DWORD start, DWORD D::*last)
{
    std::vector<DWORD> rvas;
    for (DWORD i = 0; start && i < 4096; ++i) {
        const DWORD rva = start + i * static_cast<DWORD>(sizeof(D));
        const BYTE* p = pe.AtRva(rva, sizeof(D));
        if (!p)
            break;
        D d;
        std::memcpy(&d, p, sizeof(d));
        if (d.*last == 0)
            break;
        rvas.push_back(rva);
    }
    return rvas;
}

// The structure a data directory starts with; false when the image has no such
// directory or it lies outside the file.
template <class T>
bool DirectoryHead(const PeFile& pe, unsigned index, T* out)
{
    const IMAGE_DATA_DIRECTORY& dir = pe.directory(index);
    const BYTE* p = dir.VirtualAddress ? pe.AtRva(dir.VirtualAddress, sizeof(T)) : nullptr;
    if (!p)
        return false;
    std::memcpy(out, p, sizeof(T));
    return true;
}

} // namespace

std::vector<BYTE> ReadFileBytes(const std::wstring& path)
{
    std::vector<BYTE> bytes;
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return bytes;
    BYTE buf[65536];
    DWORD n = 0;
    while (::ReadFile(file, buf, sizeof(buf), &n, nullptr) && n)
        bytes.insert(bytes.end(), buf, buf + n);
    ::CloseHandle(file);
    return bytes;
}

std::uint32_t Crc32(const std::vector<BYTE>& data)
{
    std::uint32_t crc = 0xFFFFFFFFu;
    for (BYTE b : data) {
        crc ^= b;
        for (int i = 0; i < 8; ++i)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

bool PeFile::Read(const std::wstring& path, std::string* error)
{
    m_bytes = ReadFileBytes(path);
    IMAGE_DOS_HEADER dos;
    if (!ReadAt(m_bytes, 0, &dos) || dos.e_magic != IMAGE_DOS_SIGNATURE) {
        *error = "no MZ header (missing or unreadable file)";
        return false;
    }
    IMAGE_NT_HEADERS64 nt;
    if (!ReadAt(m_bytes, static_cast<size_t>(dos.e_lfanew), &nt) || nt.Signature != IMAGE_NT_SIGNATURE) {
        *error = "no PE header";
        return false;
    }
    if (nt.OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
        *error = "not a PE32+ (64-bit) image";
        return false;
    }
    machine = nt.FileHeader.Machine;
    fileCharacteristics = nt.FileHeader.Characteristics;
    dllCharacteristics = nt.OptionalHeader.DllCharacteristics;
    timeDateStamp = nt.FileHeader.TimeDateStamp;
    numberOfSymbols = nt.FileHeader.NumberOfSymbols;
    const DWORD dirCount = std::min<DWORD>(nt.OptionalHeader.NumberOfRvaAndSizes, IMAGE_NUMBEROF_DIRECTORY_ENTRIES);
    directories.assign(nt.OptionalHeader.DataDirectory, nt.OptionalHeader.DataDirectory + dirCount);
    if (nt.FileHeader.PointerToSymbolTable)
        m_stringTable = nt.FileHeader.PointerToSymbolTable + nt.FileHeader.NumberOfSymbols * kSymbolSize;

    const size_t first = static_cast<size_t>(dos.e_lfanew) + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                         nt.FileHeader.SizeOfOptionalHeader;
    sections.clear();
    for (WORD i = 0; i < nt.FileHeader.NumberOfSections; ++i) {
        IMAGE_SECTION_HEADER h;
        if (!ReadAt(m_bytes, first + i * sizeof(h), &h)) {
            *error = "section table cut short";
            return false;
        }
        PeSection s;
        s.name.assign(reinterpret_cast<const char*>(h.Name), strnlen(reinterpret_cast<const char*>(h.Name), 8));
        if (s.name.size() > 1 && s.name[0] == '/' && m_stringTable) {
            const size_t at = m_stringTable + std::strtoul(s.name.c_str() + 1, nullptr, 10);
            if (at < m_bytes.size())
                s.name.assign(reinterpret_cast<const char*>(m_bytes.data() + at),
                              strnlen(reinterpret_cast<const char*>(m_bytes.data() + at), m_bytes.size() - at));
        }
        s.virtualAddress = h.VirtualAddress;
        s.virtualSize = h.Misc.VirtualSize;
        s.rawOffset = h.PointerToRawData;
        s.rawSize = h.SizeOfRawData;
        s.characteristics = h.Characteristics;
        sections.push_back(s);
    }
    return true;
}

const IMAGE_DATA_DIRECTORY& PeFile::directory(unsigned index) const
{
    static const IMAGE_DATA_DIRECTORY none = {0, 0};
    return index < directories.size() ? directories[index] : none;
}

const PeSection* PeFile::section(const std::string& name) const
{
    for (const PeSection& s : sections)
        if (s.name == name)
            return &s;
    return nullptr;
}

const BYTE* PeFile::AtRva(DWORD rva, size_t size) const
{
    for (const PeSection& s : sections) {
        const DWORD extent = std::max(s.virtualSize, s.rawSize);
        if (rva < s.virtualAddress || rva - s.virtualAddress >= extent)
            continue;
        const size_t within = rva - s.virtualAddress;
        if (within + size > s.rawSize)
            return nullptr;
        const size_t offset = s.rawOffset + within;
        if (offset > m_bytes.size() || m_bytes.size() - offset < size)
            return nullptr;
        return m_bytes.data() + offset;
    }
    return nullptr;
}

std::string PeFile::StringAtRva(DWORD rva) const
{
    std::string text;
    for (DWORD i = 0; i < 4096; ++i) {
        const BYTE* c = AtRva(rva + i, 1);
        if (!c || *c == 0)
            break;
        text += static_cast<char>(*c);
    }
    return text;
}

std::vector<PeImport> PeFile::Imports() const
{
    std::vector<PeImport> imports;
    auto thunks = [&](DWORD rva, PeImport* into) {
        for (DWORD i = 0; rva && i < 65536; ++i) {
            const BYTE* p = AtRva(rva + i * 8, 8);
            if (!p)
                break;
            ULONGLONG thunk;
            std::memcpy(&thunk, p, 8);
            if (thunk == 0)
                break;
            if (thunk & IMAGE_ORDINAL_FLAG64)
                into->functions.push_back("#" + std::to_string(thunk & 0xFFFF));
            else
                into->functions.push_back(StringAtRva(static_cast<DWORD>(thunk) + 2));
        }
    };
    const IMAGE_DATA_DIRECTORY& dir = directory(IMAGE_DIRECTORY_ENTRY_IMPORT);
    for (DWORD rva : DescriptorTable(*this, dir.VirtualAddress, &IMAGE_IMPORT_DESCRIPTOR::Name)) {
        IMAGE_IMPORT_DESCRIPTOR d;
        std::memcpy(&d, AtRva(rva, sizeof(d)), sizeof(d));
        PeImport import;
        import.dll = StringAtRva(d.Name);
        thunks(d.OriginalFirstThunk ? d.OriginalFirstThunk : d.FirstThunk, &import);
        imports.push_back(import);
    }
    for (DWORD rva : DelayDescriptors()) {
        IMAGE_DELAYLOAD_DESCRIPTOR d;
        std::memcpy(&d, AtRva(rva, sizeof(d)), sizeof(d));
        PeImport import;
        import.delayed = true;
        import.dll = StringAtRva(d.DllNameRVA);
        thunks(d.ImportNameTableRVA, &import);
        imports.push_back(import);
    }
    return imports;
}

// The delay-load directory when the linker filled it. GNU ld does not: the
// descriptors that a delay-load import library (dlltool --output-delaylib) brings
// lie in a section with nothing pointing at them but the library's own thunks. So
// without a directory every section is searched for them: a descriptor with RVA
// attributes whose library name is a "*.dll" string, whose module handle and
// address table lie in the image, and whose name table starts with an import by
// name or by ordinal.
std::vector<DWORD> PeFile::DelayDescriptors() const
{
    constexpr DWORD kSize = sizeof(IMAGE_DELAYLOAD_DESCRIPTOR);
    std::vector<DWORD> found;
    const IMAGE_DATA_DIRECTORY& delay = directory(IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT);
    if (delay.VirtualAddress)
        return DescriptorTable(*this, delay.VirtualAddress, &IMAGE_DELAYLOAD_DESCRIPTOR::DllNameRVA);
    for (const PeSection& s : sections) {
        const DWORD extent = std::min(s.rawSize, s.virtualSize ? s.virtualSize : s.rawSize);
        for (DWORD at = 0; at + kSize <= extent; at += 4) {
            const DWORD rva = s.virtualAddress + at;
            if (LooksLikeDelayDescriptor(rva))
                found.push_back(rva);
        }
    }
    return found;
}

bool PeFile::LooksLikeDelayDescriptor(DWORD rva) const
{
    const BYTE* p = AtRva(rva, sizeof(IMAGE_DELAYLOAD_DESCRIPTOR));
    if (!p)
        return false;
    IMAGE_DELAYLOAD_DESCRIPTOR d;
    std::memcpy(&d, p, sizeof(d));
    if (d.Attributes.AllAttributes != 1 || !d.DllNameRVA || !d.ModuleHandleRVA || !d.ImportAddressTableRVA ||
        !d.ImportNameTableRVA)
        return false;
    if (!InImage(d.ModuleHandleRVA) || !InImage(d.ImportAddressTableRVA))
        return false;
    const std::string name = StringAtRva(d.DllNameRVA);
    if (name.size() < 5 || name.size() > 255 || Lower(name.substr(name.size() - 4)) != ".dll")
        return false;
    for (char c : name)
        if (c < 0x21 || c > 0x7e)
            return false;
    const BYTE* first = AtRva(d.ImportNameTableRVA, 8);
    if (!first)
        return false;
    ULONGLONG thunk;
    std::memcpy(&thunk, first, 8);
    if (thunk == 0)
        return false;
    if (thunk & IMAGE_ORDINAL_FLAG64)
        return (thunk & ~(IMAGE_ORDINAL_FLAG64 | 0xFFFFull)) == 0;
    return thunk < 0x80000000ull && !StringAtRva(static_cast<DWORD>(thunk) + 2).empty();
}

bool PeFile::InImage(DWORD rva) const
{
    for (const PeSection& s : sections)
        if (rva >= s.virtualAddress && rva - s.virtualAddress < std::max(s.virtualSize, s.rawSize))
            return true;
    return false;
}

std::vector<std::string> PeFile::ImportedDlls() const
{
    std::vector<std::string> dlls;
    for (const PeImport& i : Imports())
        dlls.push_back(Lower(i.dll));
    std::sort(dlls.begin(), dlls.end());
    dlls.erase(std::unique(dlls.begin(), dlls.end()), dlls.end());
    return dlls;
}

std::vector<std::string> PeFile::Exports() const
{
    std::vector<std::string> names;
    IMAGE_EXPORT_DIRECTORY e;
    if (!DirectoryHead(*this, IMAGE_DIRECTORY_ENTRY_EXPORT, &e))
        return names;
    for (DWORD i = 0; i < e.NumberOfNames && i < 65536; ++i) {
        const BYTE* n = AtRva(e.AddressOfNames + i * 4, 4);
        if (!n)
            break;
        DWORD rva;
        std::memcpy(&rva, n, 4);
        names.push_back(StringAtRva(rva));
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::map<std::string, DWORD> PeFile::Symbols() const
{
    std::map<std::string, DWORD> symbols;
    if (!m_stringTable)
        return symbols;
    const size_t table = m_stringTable - numberOfSymbols * kSymbolSize;
    for (DWORD i = 0; i < numberOfSymbols; ++i) {
        const size_t at = table + i * kSymbolSize;
        if (at + kSymbolSize > m_bytes.size())
            break;
        const BYTE* s = m_bytes.data() + at;
        std::string name;
        DWORD zeroes, offset, value;
        std::memcpy(&zeroes, s, 4);
        std::memcpy(&offset, s + 4, 4);
        std::memcpy(&value, s + 8, 4);
        SHORT sectionNumber;
        std::memcpy(&sectionNumber, s + 12, 2);
        const BYTE auxCount = s[17];
        if (zeroes == 0) {
            const size_t nameAt = m_stringTable + offset;
            if (nameAt < m_bytes.size())
                name.assign(reinterpret_cast<const char*>(m_bytes.data() + nameAt),
                            strnlen(reinterpret_cast<const char*>(m_bytes.data() + nameAt), m_bytes.size() - nameAt));
        } else {
            name.assign(reinterpret_cast<const char*>(s), strnlen(reinterpret_cast<const char*>(s), 8));
        }
        if (sectionNumber > 0 && static_cast<size_t>(sectionNumber) <= sections.size())
            symbols.emplace(name, sections[sectionNumber - 1].virtualAddress + value);
        i += auxCount;
    }
    return symbols;
}

bool PeFile::DebugLink(std::string* fileName, std::uint32_t* crc) const
{
    const PeSection* s = section(".gnu_debuglink");
    if (!s || s->rawSize < 8 || s->rawOffset + static_cast<size_t>(s->rawSize) > m_bytes.size())
        return false;
    const char* data = reinterpret_cast<const char*>(m_bytes.data() + s->rawOffset);
    const size_t length = strnlen(data, s->rawSize);
    const size_t crcAt = (length + 1 + 3) & ~static_cast<size_t>(3);
    if (crcAt + 4 > std::min<size_t>(s->rawSize, s->virtualSize ? s->virtualSize : s->rawSize))
        return false;
    fileName->assign(data, length);
    std::memcpy(crc, data + crcAt, 4);
    return true;
}

size_t PeFile::CountCallsTo(DWORD rva) const
{
    size_t calls = 0;
    for (const PeSection& s : sections) {
        if (!s.executable() || s.rawOffset + static_cast<size_t>(s.rawSize) > m_bytes.size())
            continue;
        const DWORD size = std::min(s.rawSize, s.virtualSize);
        const BYTE* code = m_bytes.data() + s.rawOffset;
        for (DWORD i = 0; i + 5 <= size; ++i) {
            if (code[i] != 0xE8)
                continue;
            std::int32_t rel;
            std::memcpy(&rel, code + i + 1, 4);
            if (static_cast<DWORD>(s.virtualAddress + i + 5 + rel) == rva)
                ++calls;
        }
    }
    return calls;
}

bool PeFile::HasVersionResource() const
{
    // Root directory of the resources: look for the RT_VERSION (16) id entry.
    const IMAGE_DATA_DIRECTORY& dir = directory(IMAGE_DIRECTORY_ENTRY_RESOURCE);
    IMAGE_RESOURCE_DIRECTORY root;
    if (!DirectoryHead(*this, IMAGE_DIRECTORY_ENTRY_RESOURCE, &root))
        return false;
    const DWORD count = root.NumberOfNamedEntries + root.NumberOfIdEntries;
    for (DWORD i = 0; i < count; ++i) {
        const BYTE* e = AtRva(dir.VirtualAddress + sizeof(root) + i * 8, 8);
        if (!e)
            return false;
        DWORD name;
        std::memcpy(&name, e, 4);
        if (name == reinterpret_cast<ULONG_PTR>(RT_VERSION))
            return true;
    }
    return false;
}

} // namespace nvtest
