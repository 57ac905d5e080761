#include "support/sample_databases.h"

#include <gtest/gtest.h>
#include <algorithm>

#include "support/db_paths.h"
#include "support/registry_sandbox.h"

namespace nvtest {

nvwriter::DbOptions WriterOptions(nvwriter::DbFormat format, unsigned users, unsigned domains, std::uint64_t seed,
                                  unsigned users20)
{
    nvwriter::DbOptions options;
    options.format = format;
    options.users = users;
    options.domains = domains;
    options.seed = seed;
    options.users20 = users20;
    return options;
}

nvwriter::Db20Database TrackedModel20(ContainerJanitor& containers, const nvwriter::DbOptions& options)
{
    nvwriter::Db20Database model = nvwriter::MakeDb20Database(nvwriter::Db20OptionsFrom(options));
    containers.Track(model.hostId);
    return model;
}

void Write10Into(nvwriter::DbWriter& writer, unsigned users, std::vector<std::wstring> domainNames,
                 std::uint64_t seed)
{
    nvwriter::DbOptions options;
    options.users = users;
    options.domainNames = std::move(domainNames);
    nvwriter::Prng rng(seed);
    nvwriter::Write10(writer, options, rng);
}

HRESULT WriteDb10(unsigned users, unsigned domains)
{
    nvwriter::DbOptions options;
    options.users = users;
    options.domains = domains;
    nvwriter::DbRecord record;
    return nvwriter::WriteDatabase(options, &record);
}

HRESULT Write10With20Records(ContainerJanitor& containers, unsigned users, unsigned users20, bool wipe,
                             nvwriter::Db20Database* db20)
{
    nvwriter::DbOptions options;
    options.users = users;
    options.domains = 1;
    options.users20 = users20;
    options.wipe = wipe;
    if (users20) {
        const nvwriter::Db20Database model = TrackedModel20(containers, options);
        if (db20)
            *db20 = model;
    }
    nvwriter::DbRecord record;
    return nvwriter::WriteDatabase(options, &record);
}

HRESULT WriteTracked20(ContainerJanitor& containers, unsigned users, std::uint64_t seed,
                       std::vector<std::pair<unsigned, nvwriter::Db20Defect>> defects, nvwriter::Db20Database* db)
{
    nvwriter::Db20Options options;
    options.seed = seed;
    options.userCount = users;
    options.domainCount = 1;
    options.defects = std::move(defects);
    *db = nvwriter::MakeDb20Database(options);
    containers.Track(db->hostId);
    return nvwriter::WriteDb20Database(*db);
}

nvwriter::Db20Database WriteTracked20(ContainerJanitor& containers, unsigned users, std::uint64_t seed,
                                      std::vector<std::pair<unsigned, nvwriter::Db20Defect>> defects)
{
    nvwriter::Db20Database db;
    EXPECT_EQ(S_OK, WriteTracked20(containers, users, seed, std::move(defects), &db));
    return db;
}

std::vector<std::wstring> SortedUserSids(const nvwriter::Db20Database& db)
{
    std::vector<std::wstring> sids;
    for (const auto& user : db.users)
        sids.push_back(user.sidText);
    std::sort(sids.begin(), sids.end());
    return sids;
}

void WriteLayout30Database(const wchar_t* version)
{
    ASSERT_TRUE(DeleteTree(kDbPath, kView32));
    SetString(kDbPath, L"Version", version, kView32);
    SetString(L"SOFTWARE\\Norvane\\DB\\Policies", L"Kept", L"yes", kView32);
}

} // namespace nvtest
