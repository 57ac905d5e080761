#include "writer/legacy_writer.h"
#include "writer/db20_writer.h"

#include <cstring>
#include <cwchar>

#include "common/handles.h"
#include "common/hresult.h"

namespace nvwriter {

// --- Prng --------------------------------------------------------------------

uint64_t Prng::Next() noexcept
{
    uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

uint32_t Prng::Below(uint32_t bound) noexcept
{
    return bound ? static_cast<uint32_t>(Next() % bound) : 0;
}

void Prng::Fill(void* data, size_t cb) noexcept
{
    BYTE* p = static_cast<BYTE*>(data);
    while (cb) {
        uint64_t v = Next();
        size_t n = cb < sizeof(v) ? cb : sizeof(v);
        std::memcpy(p, &v, n);
        p += n;
        cb -= n;
    }
}

std::vector<BYTE> Prng::Bytes(size_t cb)
{
    std::vector<BYTE> data(cb);
    Fill(data.data(), cb);
    return data;
}

GUID Prng::Guid() noexcept
{
    GUID id;
    Fill(&id, sizeof(id));
    id.Data3 = static_cast<unsigned short>((id.Data3 & 0x0FFF) | 0x4000);
    id.Data4[0] = static_cast<unsigned char>((id.Data4[0] & 0x3F) | 0x80);
    return id;
}

std::wstring Prng::Chars(size_t n, const wchar_t* alphabet)
{
    const uint32_t len = static_cast<uint32_t>(std::wcslen(alphabet));
    std::wstring s;
    for (size_t i = 0; i < n; ++i)
        s += alphabet[Below(len)];
    return s;
}

std::wstring GuidText(const GUID& id)
{
    wchar_t text[40];
    std::swprintf(text, 40, L"{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned long>(id.Data1), id.Data2, id.Data3, id.Data4[0], id.Data4[1],
                  id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6], id.Data4[7]);
    return text;
}

// --- DbRecord ----------------------------------------------------------------

const StoreRecord* DbRecord::FindStore(const std::wstring& name, bool machine) const
{
    for (const StoreRecord& s : stores)
        if (s.machine == machine && (machine || s.name == name))
            return &s;
    return nullptr;
}

size_t DbRecord::ValueCount() const
{
    size_t n = 0;
    for (const auto& key : values)
        n += key.second.size();
    return n;
}

namespace {

bool IsAtOrBelow(const std::wstring& path, const std::wstring& top)
{
    return path == top || (path.size() > top.size() && path.compare(0, top.size(), top) == 0 &&
                           path[top.size()] == L'\\');
}

void RemoveTree(DbRecord& record, const std::wstring& top)
{
    for (auto it = record.keys.begin(); it != record.keys.end();)
        it = IsAtOrBelow(*it, top) ? record.keys.erase(it) : std::next(it);
    for (auto it = record.values.begin(); it != record.values.end();)
        it = IsAtOrBelow(it->first, top) ? record.values.erase(it) : std::next(it);
}

} // namespace

DbRecord DbRecord::ExpectedAfter10To20(const std::wstring& computerName) const
{
    DbRecord out = *this;
    out.versionText = L"2.0";

    // The stores a 1.0 -> 2.0 conversion visits: every subkey of Cache, and the
    // machine's, whose entry replaces a domain bearing the computer's name.
    std::vector<std::wstring> nameIndexes{L"MainDB\\Users\\Index\\NameIndex"};
    std::vector<std::wstring> policyKeys{L"Data\\Policies"};
    const std::wstring cache = L"Cache\\";
    for (const std::wstring& key : keys) {
        if (key.compare(0, cache.size(), cache) != 0 || key.find(L'\\', cache.size()) != std::wstring::npos)
            continue;
        const std::wstring domain = key.substr(cache.size());
        policyKeys.push_back(key + L"\\Policies");
        if (domain != computerName)
            nameIndexes.push_back(key + L"\\Users\\Index\\NameIndex");
    }

    for (const std::wstring& index : nameIndexes) {
        auto it = out.values.find(index);
        if (it == out.values.end())
            continue;
        for (auto v = it->second.begin(); v != it->second.end();)
            v = v->second.data.size() == 16 ? it->second.erase(v) : std::next(v);
    }
    for (const std::wstring& policy : policyKeys)
        RemoveTree(out, policy);
    for (StoreRecord& s : out.stores)
        if (!s.policiesPath.empty() && out.keys.count(s.policiesPath) == 0)
            s.policiesPath.clear();

    ValueRecord version;
    version.type = REG_SZ;
    const wchar_t text[] = L"2.0";
    version.data.assign(reinterpret_cast<const BYTE*>(text), reinterpret_cast<const BYTE*>(text) + sizeof(text));
    out.values[L""][L"Version"] = version;
    return out;
}

// --- DbWriter ----------------------------------------------------------------

DbWriter::DbWriter(std::wstring dbPath, REGSAM view)
{
    m_record.dbPath = std::move(dbPath);
    m_record.view = view;
}

std::wstring DbWriter::Full(const std::wstring& rel) const
{
    return rel.empty() ? m_record.dbPath : m_record.dbPath + L"\\" + rel;
}

void DbWriter::CreateKey(const std::wstring& rel) { Key(rel); }

HKEY DbWriter::Key(const std::wstring& rel)
{
    // Values come in runs for one key: keep the last key open.
    if (m_lastKey && m_lastRel == rel)
        return m_lastKey.get();
    m_lastKey.reset();
    nv::ThrowIfWin32Failed(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, Full(rel).c_str(), 0, nullptr,
                                             REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS | m_record.view, nullptr,
                                             m_lastKey.put(), nullptr));
    m_lastRel = rel;
    // The key and all its parents up to the database key now exist.
    std::wstring path = rel;
    for (;;) {
        m_record.keys.insert(path);
        if (path.empty())
            break;
        size_t slash = path.find_last_of(L'\\');
        path = slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
    }
    return m_lastKey.get();
}

void DbWriter::SetValue(const std::wstring& rel, const std::wstring& name, DWORD type, const void* data, DWORD cb)
{
    HKEY key = Key(rel);
    // The registry may append a terminator to string data when the byte after it
    // happens to be zero; padding with non-zero bytes keeps what lands exact.
    std::vector<BYTE> padded(static_cast<size_t>(cb) + 2, 0xFF);
    if (cb)
        std::memcpy(padded.data(), data, cb);
    nv::ThrowIfWin32Failed(::RegSetValueExW(key, name.c_str(), 0, type, padded.data(), cb));
    ValueRecord& v = m_record.values[rel][name];
    v.type = type;
    v.data.assign(padded.begin(), padded.begin() + cb);
}

void DbWriter::SetString(const std::wstring& rel, const std::wstring& name, const std::wstring& text)
{
    SetValue(rel, name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

void DbWriter::SetDword(const std::wstring& rel, const std::wstring& name, DWORD value)
{
    SetValue(rel, name, REG_DWORD, &value, sizeof(value));
}

void DbWriter::SetQword(const std::wstring& rel, const std::wstring& name, ULONGLONG value)
{
    SetValue(rel, name, REG_QWORD, &value, sizeof(value));
}

void DbWriter::SetBinary(const std::wstring& rel, const std::wstring& name, const std::vector<BYTE>& data)
{
    SetValue(rel, name, REG_BINARY, data.data(), static_cast<DWORD>(data.size()));
}

void DbWriter::DeleteValue(const std::wstring& rel, const std::wstring& name)
{
    m_lastKey.reset();
    nv::unique_hkey key;
    nv::ThrowIfWin32Failed(
        ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, Full(rel).c_str(), 0, KEY_SET_VALUE | m_record.view, key.put()));
    nv::ThrowIfWin32Failed(::RegDeleteValueW(key.get(), name.c_str()));
    auto it = m_record.values.find(rel);
    if (it != m_record.values.end()) {
        it->second.erase(name);
        if (it->second.empty())
            m_record.values.erase(it);
    }
}

void DbWriter::DeleteKey(const std::wstring& rel)
{
    m_lastKey.reset();
    nv::ThrowIfFailed(WipeDatabase(Full(rel), m_record.view));
    RemoveTree(m_record, rel);
}

HRESULT WipeDatabase(const std::wstring& dbPath, REGSAM view) noexcept
{
    return nv::Guarded([&]() -> HRESULT {
        nv::unique_hkey key;
        LONG r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, dbPath.c_str(), 0, KEY_ALL_ACCESS | view, key.put());
        if (r == ERROR_FILE_NOT_FOUND)
            return S_FALSE;
        nv::ThrowIfWin32Failed(r);
        nv::ThrowIfWin32Failed(::RegDeleteTreeW(key.get(), nullptr));
        key.reset();
        nv::ThrowIfWin32Failed(::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, dbPath.c_str(), view, 0));
        return S_OK;
    });
}

// --- entry points ------------------------------------------------------------

HRESULT WriteDatabase(const DbOptions& options, DbRecord* record) noexcept
{
    return nv::Guarded([&]() -> HRESULT {
        if (!record)
            return E_POINTER;
        if (options.wipe) {
            nv::ThrowIfFailed(WipeDatabase(options.dbPath, options.view));
        } else {
            nv::unique_hkey existing;
            if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, options.dbPath.c_str(), 0, KEY_READ | options.view,
                                existing.put()) == ERROR_SUCCESS)
                return HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS);
        }

        DbWriter writer(options.dbPath, options.view);
        if (options.format == DbFormat::V20) {
            // Users, secrets and templates of format 2.0 come from the 2.0 writer.
            Write20(writer, MakeDb20Database(Db20OptionsFrom(options)));
        } else {
            Prng rng(options.seed);
            Write10(writer, options, rng);
            if (options.users20 != 0)
                WriteUsers20(writer, MakeDb20Database(Db20OptionsFrom(options)));
        }
        *record = std::move(writer.record());
        return S_OK;
    });
}

} // namespace nvwriter
