// The legacy database writer: builds realistic old-format databases in the registry
// for tests, benchmarks, the demo and the nvdbgen tool, and records everything it
// wrote so that a test can compare the registry afterwards value by value.
//
// Pieces:
//   DbOptions   what to build (format, users, domains, seed, view, ...).
//   Prng        a small deterministic generator: one seed, one database.
//   DbRecord    every key and value written (paths relative to the database key),
//               plus the stores and users with their identifiers.
//   DbWriter    writes keys and values under HKLM\<database path> in one view and
//               keeps the DbRecord in step; also removals, for hand-made edge cases.
//   Write10     the format 1.0 layout (below); WriteDatabase dispatches by format.
//
// Format 1.0 layout written (relative to SOFTWARE\Norvane\DB):
//   "Version" = "1.0"
//   MainDB\Users\Index\NameIndex         the machine's store: user name -> 16-byte
//                                        GUID (REG_BINARY), some names ending in '/',
//                                        beside values of other sizes
//   MainDB\Users\<GUID>                  one key per user
//   Cache\<domain>\Users\Index\NameIndex the same for each cached domain
//   Cache\<domain>\Users\<GUID>
//   Cache\<domain>\Policies              domain policies (values and a subkey)
//   Data\Policies                        machine policies (values and a subkey)
//
// The writer deliberately does not use the library's own layout constants: it
// exists to check the code that reads and converts what it writes.
//
// Errors: the functions that return HRESULT never throw; DbWriter's members raise
// the library's COM error (_com_error) and are meant to run inside nv::Guarded or a
// test body.
#pragma once
#include <windows.h>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/handles.h"

namespace nvwriter {

// Where the suite keeps its database, relative to HKEY_LOCAL_MACHINE.
inline constexpr const wchar_t kDefaultDbPath[] = L"SOFTWARE\\Norvane\\DB";

enum class DbFormat { V10, V20 };

struct DbOptions {
    DbFormat format = DbFormat::V10;
    // Users in the name indexes, spread evenly over the machine's store and the
    // domains (the machine's first; the first users % (domains + 1) stores get one
    // more).
    unsigned users = 12;
    // Cached domains under Cache; 0 writes no Cache key at all.
    unsigned domains = 2;
    // Explicit domain names; when not empty they replace the generated ones and
    // `domains` is ignored.
    std::vector<std::wstring> domainNames;
    uint64_t seed = 1;
    // Registry view of the database: a 1.0 database lives in the 32-bit view.
    REGSAM view = KEY_WOW64_32KEY;
    // Delete an existing database key (in `view`) first; without it an existing
    // database is an error (HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS)).
    bool wipe = false;
    std::wstring dbPath = kDefaultDbPath;

    // Format 1.0 details (edge cases beyond these: DbWriter's removals and setters).
    // About one in `slashEvery` user names ends in '/' (0: none).
    unsigned slashEvery = 4;
    // Per-user keys beside the name index (Users\<GUID> with a few values).
    bool userKeys = true;

    // Format 2.0-style users (with secrets and templates) written by the 2.0 writer.
    // With format 1.0 they are added to the 1.0 database (the chain case): see
    // WriteUsers20 and Db20OptionsFrom in db20_writer.h.
    unsigned users20 = 0;
};

// splitmix64: tiny, fast, and the same sequence on every platform for a seed.
class Prng {
public:
    explicit Prng(uint64_t seed) noexcept : m_state(seed) {}
    uint64_t Next() noexcept;
    // Uniform in [0, bound); 0 for bound 0.
    uint32_t Below(uint32_t bound) noexcept;
    void Fill(void* data, size_t cb) noexcept;
    std::vector<BYTE> Bytes(size_t cb);
    // A random (version 4) GUID.
    GUID Guid() noexcept;
    // n characters, each drawn from the alphabet.
    std::wstring Chars(size_t n, const wchar_t* alphabet);

private:
    uint64_t m_state;
};

struct ValueRecord {
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    bool operator==(const ValueRecord& o) const { return type == o.type && data == o.data; }
    bool operator!=(const ValueRecord& o) const { return !(*this == o); }
};

// One user in a name index.
struct UserRecord {
    std::wstring store;         // domain name, or L"" for the machine's store
    std::wstring name;          // the value name in the index, as written
    GUID id{};
    bool trailingSlash = false; // name ends in '/'
    std::wstring userKeyPath;   // e.g. MainDB\Users\{GUID}; empty without user keys
};

// One user store (the machine's or a cached domain's).
struct StoreRecord {
    std::wstring name;          // domain name, or L"" for the machine's store
    bool machine = false;
    std::wstring nameIndexPath; // relative to the database key
    std::wstring policiesPath;  // relative; empty when no policy key was written
};

struct DbRecord {
    std::wstring dbPath;
    REGSAM view = 0;
    std::wstring versionText;
    // Every key that exists below and including the database key ("" is the key
    // itself), relative to it; parents are listed too.
    std::set<std::wstring> keys;
    // key path -> value name -> value.
    std::map<std::wstring, std::map<std::wstring, ValueRecord>> values;
    std::vector<StoreRecord> stores; // machine first, then domains in writing order
    std::vector<UserRecord> users;

    const StoreRecord* FindStore(const std::wstring& name, bool machine) const;
    // The database as format 2.0 should have it after a 1.0 -> 2.0 conversion on a
    // machine whose NetBIOS name is `computerName`: every 16-byte value removed from
    // the name indexes that are converted (the machine's, and every domain's except
    // one named exactly like the computer, whose index stands for the machine's),
    // every policy key gone, "Version" = "2.0".
    DbRecord ExpectedAfter10To20(const std::wstring& computerName) const;
    size_t ValueCount() const;
};

class DbWriter {
public:
    // Writes below HKLM\<dbPath> in the view; the record starts empty.
    DbWriter(std::wstring dbPath, REGSAM view);
    DbWriter(const DbWriter&) = delete;
    DbWriter& operator=(const DbWriter&) = delete;

    // Creates the key (and its parents), relative to the database key.
    void CreateKey(const std::wstring& rel);
    void SetValue(const std::wstring& rel, const std::wstring& name, DWORD type, const void* data, DWORD cb);
    void SetString(const std::wstring& rel, const std::wstring& name, const std::wstring& text);
    void SetDword(const std::wstring& rel, const std::wstring& name, DWORD value);
    void SetQword(const std::wstring& rel, const std::wstring& name, ULONGLONG value);
    void SetBinary(const std::wstring& rel, const std::wstring& name, const std::vector<BYTE>& data);
    // Removals, for edge cases built on top of a generated database. They update the
    // keys and values of the record; its stores and users stay as written.
    void DeleteValue(const std::wstring& rel, const std::wstring& name);
    void DeleteKey(const std::wstring& rel); // with everything below it

    DbRecord& record() noexcept { return m_record; }
    const DbRecord& record() const noexcept { return m_record; }
    REGSAM view() const noexcept { return m_record.view; }
    const std::wstring& dbPath() const noexcept { return m_record.dbPath; }

    // Closes the key the writer keeps open between writes.
    void Flush() noexcept { m_lastKey.reset(); }

private:
    std::wstring Full(const std::wstring& rel) const;
    HKEY Key(const std::wstring& rel);
    DbRecord m_record;
    std::wstring m_lastRel;
    nv::unique_hkey m_lastKey;
};

// Deletes HKLM\<dbPath> and everything below it in the view; S_FALSE when absent.
HRESULT WipeDatabase(const std::wstring& dbPath, REGSAM view) noexcept;

// --- format 1.0 ------------------------------------------------------------

// The generated domain names for a seed, in writing order (distinct, realistic).
std::vector<std::wstring> DomainNames10(const DbOptions& options);

// Writes the whole 1.0 layout through the writer: "Version" "1.0", then the stores
// and policies. The 2.0 writer calls this and then adds its own users (the chain
// case of a 1.0 database that already holds 2.0-style users).
void Write10(DbWriter& writer, const DbOptions& options, Prng& rng);

// Pieces of Write10, for writers that compose their own layout.
void WriteVersion(DbWriter& writer, const std::wstring& text);
// One store: the name index with `userCount` users and its other values, the
// per-user keys and the policy key. Adds the store and its users to the record.
void WriteStore10(DbWriter& writer, const std::wstring& domain, bool machine, unsigned userCount,
                  const DbOptions& options, Prng& rng);

// --- entry points ----------------------------------------------------------

// Builds the database the options describe (wiping first when asked) and hands
// back what was written. Format 2.0, and the users20 users of a 1.0 database, come
// from the 2.0 writer (db20_writer.h), which also provisions the host identifier and
// the machine key container they are sealed for.
HRESULT WriteDatabase(const DbOptions& options, DbRecord* record) noexcept;

// GUID as registry text: {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}.
std::wstring GuidText(const GUID& id);

} // namespace nvwriter
