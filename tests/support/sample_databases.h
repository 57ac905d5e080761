// Databases the tests of whole conversions start from, written with the writers of
// nvdbgen, whose machine key containers a ContainerJanitor deletes again.
#pragma once
#include <windows.h>

#include "support/key_containers.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

namespace nvtest {

// Writer options of that format, size and seed, `users20` of the users with 2.0
// records; everything else as the writer's defaults.
nvwriter::DbOptions WriterOptions(nvwriter::DbFormat format, unsigned users, unsigned domains, std::uint64_t seed,
                                  unsigned users20 = 0);

// The 2.0 model the writer draws for these options (the users of a 2.0 database, or
// the 2.0 records of a 1.0 one); its machine container is tracked.
nvwriter::Db20Database TrackedModel20(ContainerJanitor& containers, const nvwriter::DbOptions& options);

// Writes a 1.0 database of `users` users in the named cached domains, drawn from
// `seed`, through `writer`; the caller edits it further and flushes.
void Write10Into(nvwriter::DbWriter& writer, unsigned users, std::vector<std::wstring> domainNames,
                 std::uint64_t seed);

// A 1.0 database of that many users and cached domains, in the 32-bit view.
HRESULT WriteDb10(unsigned users, unsigned domains);

// A 1.0 database of `users` users in one domain (wiped first when asked), of whom the
// first `users20` carry 2.0 records; those records' container is tracked. The 2.0
// database they come from goes to *db20 when asked for.
HRESULT Write10With20Records(ContainerJanitor& containers, unsigned users, unsigned users20, bool wipe = false,
                             nvwriter::Db20Database* db20 = nullptr);

// A 2.0 database of that many users in one cached domain, drawn from the seed with
// these defects and written; its machine container is tracked. A failed write is
// recorded (and answered, when hr is given).
nvwriter::Db20Database WriteTracked20(ContainerJanitor& containers, unsigned users, std::uint64_t seed,
                                      std::vector<std::pair<unsigned, nvwriter::Db20Defect>> defects = {});
HRESULT WriteTracked20(ContainerJanitor& containers, unsigned users, std::uint64_t seed,
                       std::vector<std::pair<unsigned, nvwriter::Db20Defect>> defects, nvwriter::Db20Database* db);

// The SIDs of the database's users, sorted (as the store lists them).
std::vector<std::wstring> SortedUserSids(const nvwriter::Db20Database& db);

// A database key of the 3.0 layout (neither Data nor MainDB) whose "Version" reads
// `version`, with one policy value that must survive; in the 32-bit view.
void WriteLayout30Database(const wchar_t* version);

} // namespace nvtest
