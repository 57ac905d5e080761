// The format 1.0 layout: name indexes of 16-byte user identifiers per store, user
// keys, and policy keys beside them.
#include "writer/legacy_writer.h"

#include <algorithm>
#include <cwctype>
#include <set>

namespace nvwriter {

namespace {

const wchar_t* const kDomainBases[] = {
    L"CORP",  L"EMEA",   L"AMERICAS", L"LAB",   L"FINANCE", L"RESEARCH", L"SALES", L"ENG",  L"HQ",  L"APAC",
    L"PLANT", L"NORTH",  L"SOUTH",    L"DEVEL", L"QA",      L"BRANCH",   L"OPS",   L"LEGAL", L"HR",  L"SUPPORT",
};

const wchar_t* const kFirstNames[] = {
    L"alice", L"bob",   L"carol", L"dave",  L"erin",  L"frank", L"grace", L"heidi", L"ivan",  L"judy",  L"kevin",
    L"laura", L"mike",  L"nina",  L"oscar", L"peggy", L"quinn", L"rita",  L"sam",   L"trent", L"ursula", L"victor",
    L"wendy", L"xavier", L"yara", L"zack",  L"maria", L"jose",  L"li",    L"anna",  L"omar",  L"sven",
};

const wchar_t* const kSurnames[] = {
    L"smith", L"jones",  L"garcia", L"miller", L"davis",  L"lopez", L"wilson", L"moore", L"taylor", L"thomas",
    L"white", L"harris", L"martin", L"clark",  L"lewis",  L"young", L"walker", L"hall",  L"allen",  L"king",
    L"wright", L"scott", L"green",  L"baker",  L"adams",  L"nelson", L"hill",  L"campbell", L"berg", L"novak",
};

const wchar_t* const kLogonInfoNames[] = {L"UPN", L"SAM", L"DISPLAY"};

template <class T, size_t N>
const wchar_t* Pick(Prng& rng, T (&list)[N])
{
    return list[rng.Below(static_cast<uint32_t>(N))];
}

std::wstring UserName(Prng& rng)
{
    std::wstring first = Pick(rng, kFirstNames);
    std::wstring last = Pick(rng, kSurnames);
    switch (rng.Below(4)) {
    case 0: return first + L"." + last;
    case 1: return first.substr(0, 1) + last;
    case 2: return first + L"_" + last.substr(0, 1);
    default: return L"svc-" + last;
    }
}

void WritePolicies(DbWriter& writer, const std::wstring& path, Prng& rng)
{
    writer.SetDword(path, L"NetworkSupport", rng.Below(2));
    writer.SetString(path, L"LogonInfoName", Pick(rng, kLogonInfoNames));
    writer.SetDword(path, L"MaxFailedLogons", 3 + rng.Below(8));
    const std::wstring defaults = path + L"\\Default";
    writer.SetDword(defaults, L"MinPinLength", 4 + rng.Below(5));
    writer.SetDword(defaults, L"AllowPassword", rng.Below(2));
}

} // namespace

std::vector<std::wstring> DomainNames10(const DbOptions& options)
{
    if (!options.domainNames.empty())
        return options.domainNames;
    // Its own stream, so that the names do not depend on the users.
    Prng rng(options.seed ^ 0xD0D0D0D0D0D0D0D0ull);
    std::vector<std::wstring> bases(std::begin(kDomainBases), std::end(kDomainBases));
    for (size_t i = bases.size(); i > 1; --i)
        std::swap(bases[i - 1], bases[rng.Below(static_cast<uint32_t>(i))]);
    std::vector<std::wstring> names;
    for (unsigned i = 0; i < options.domains; ++i) {
        std::wstring name = bases[i % bases.size()];
        if (i >= bases.size())
            name += std::to_wstring(i / bases.size() + 1);
        names.push_back(name);
    }
    return names;
}

void WriteVersion(DbWriter& writer, const std::wstring& text)
{
    writer.SetString(L"", L"Version", text);
    writer.record().versionText = text;
}

void WriteStore10(DbWriter& writer, const std::wstring& domain, bool machine, unsigned userCount,
                  const DbOptions& options, Prng& rng)
{
    StoreRecord store;
    store.name = machine ? std::wstring() : domain;
    store.machine = machine;
    const std::wstring root = machine ? std::wstring(L"MainDB") : L"Cache\\" + domain;
    const std::wstring users = root + L"\\Users";
    store.nameIndexPath = users + L"\\Index\\NameIndex";
    store.policiesPath = machine ? std::wstring(L"Data\\Policies") : root + L"\\Policies";

    // Distinct names within the store; value names compare case-insensitively.
    std::vector<UserRecord> written;
    std::set<std::wstring> taken;
    for (unsigned i = 0; i < userCount; ++i) {
        std::wstring base = UserName(rng);
        std::wstring name = base;
        for (unsigned n = 2; taken.count(name); ++n)
            name = base + std::to_wstring(n);
        taken.insert(name);
        UserRecord user;
        user.store = store.name;
        user.id = rng.Guid();
        user.trailingSlash = options.slashEvery != 0 && rng.Below(options.slashEvery) == 0;
        user.name = user.trailingSlash ? name + L"/" : name;
        if (options.userKeys)
            user.userKeyPath = users + L"\\" + GuidText(user.id);
        written.push_back(std::move(user));
    }

    if (!machine)
        writer.SetQword(root, L"LastSync", rng.Next());

    // The index: its bookkeeping values (none of them 16 bytes long), then the users.
    writer.SetDword(store.nameIndexPath, L"Count", userCount);
    writer.SetQword(store.nameIndexPath, L"LastChange", rng.Next());
    writer.SetString(store.nameIndexPath, L"IndexFormat", L"1.0");
    writer.SetBinary(store.nameIndexPath, L"Digest", rng.Bytes(20));
    writer.SetBinary(store.nameIndexPath, L"Salt", rng.Bytes(15));
    writer.SetBinary(store.nameIndexPath, L"Checksum", rng.Bytes(17));
    for (const UserRecord& user : written)
        writer.SetValue(store.nameIndexPath, user.name, REG_BINARY, &user.id, sizeof(user.id));

    for (const UserRecord& user : written) {
        if (user.userKeyPath.empty())
            continue;
        std::wstring plain = user.name;
        if (user.trailingSlash)
            plain.pop_back();
        writer.SetString(user.userKeyPath, L"Name", plain);
        writer.SetDword(user.userKeyPath, L"Flags", rng.Below(16));
    }

    WritePolicies(writer, store.policiesPath, rng);

    DbRecord& record = writer.record();
    record.stores.push_back(std::move(store));
    record.users.insert(record.users.end(), written.begin(), written.end());
}

void Write10(DbWriter& writer, const DbOptions& options, Prng& rng)
{
    WriteVersion(writer, L"1.0");
    const std::vector<std::wstring> domains = DomainNames10(options);
    const unsigned stores = static_cast<unsigned>(domains.size()) + 1;
    auto share = [&](unsigned store) { return options.users / stores + (store < options.users % stores ? 1 : 0); };

    writer.SetQword(L"Data", L"Created", rng.Next());
    WriteStore10(writer, std::wstring(), true, share(0), options, rng);
    for (unsigned i = 0; i < domains.size(); ++i)
        WriteStore10(writer, domains[i], false, share(i + 1), options, rng);
    writer.Flush();
}

} // namespace nvwriter
