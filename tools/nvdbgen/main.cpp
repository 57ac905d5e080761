// nvdbgen: writes a sample legacy database into the registry.
//
//   nvdbgen --format 1.0|2.0 [--users N] [--domains N] [--users20 N] [--seed N] [--view 32|64] [--wipe]
//
// The output is the same for the same options and seed. Exit codes: 0 written,
// 1 the database could not be written, 2 usage error.
#include <windows.h>
#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <string>

#include "common/systemlibrary.h"

#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

void PrintUsage(FILE* out)
{
    std::fprintf(out,
                 "usage: nvdbgen --format 1.0|2.0 [--users N] [--domains N] [--users20 N] [--seed N] [--view 32|64] "
                 "[--wipe]\n"
                 "  --format   database format to write (required)\n"
                 "  --users    users in the name indexes, spread over the machine and the domains (default 12)\n"
                 "  --domains  cached domains (default 2)\n"
                 "  --users20  format 1.0 only: users that also carry sealed 2.0 records (secrets, templates)\n"
                 "             under Data\\Users, as a 1.0 database that already holds 2.0 users (default 0)\n"
                 "  --seed     seed of the generated content; same seed, same database (default 1)\n"
                 "  --view     registry view of HKLM\\SOFTWARE\\Norvane\\DB (default 32)\n"
                 "  --wipe     delete an existing database first\n");
}

// fmt holds one %ls for arg.
int UsageError(const char* fmt, const wchar_t* arg = L"")
{
    std::fprintf(stderr, "nvdbgen: ");
    std::fprintf(stderr, fmt, arg);
    std::fprintf(stderr, "\n");
    PrintUsage(stderr);
    return kExitUsage;
}

bool ParseNumber(const wchar_t* text, unsigned long long limit, unsigned long long* out)
{
    if (!text || !*text || *text == L'-' || *text == L'+')
        return false;
    wchar_t* end = nullptr;
    errno = 0;
    unsigned long long v = std::wcstoull(text, &end, 10);
    if (errno != 0 || *end != L'\0' || v > limit)
        return false;
    *out = v;
    return true;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    // Before anything else: later loads come from the system directory only.
    nv::RestrictDllSearchToSystemDirectory();
    nvwriter::DbOptions options;
    bool haveFormat = false;

    for (int i = 1; i < argc; ++i) {
        const std::wstring arg = argv[i];
        if (arg == L"--help" || arg == L"-h") {
            PrintUsage(stdout);
            return kExitOk;
        }
        if (arg == L"--wipe") {
            options.wipe = true;
            continue;
        }
        if (arg != L"--format" && arg != L"--users" && arg != L"--domains" && arg != L"--users20" &&
            arg != L"--seed" && arg != L"--view")
            return UsageError("unknown option '%ls'", argv[i]);
        if (i + 1 >= argc)
            return UsageError("%ls needs a value", argv[i]);
        const wchar_t* value = argv[++i];
        unsigned long long n = 0;
        if (arg == L"--format") {
            if (std::wcscmp(value, L"1.0") == 0)
                options.format = nvwriter::DbFormat::V10;
            else if (std::wcscmp(value, L"2.0") == 0)
                options.format = nvwriter::DbFormat::V20;
            else
                return UsageError("--format must be 1.0 or 2.0, not '%ls'", value);
            haveFormat = true;
        } else if (arg == L"--users") {
            if (!ParseNumber(value, 1000000, &n))
                return UsageError("--users takes a number from 0 to 1000000, not '%ls'", value);
            options.users = static_cast<unsigned>(n);
        } else if (arg == L"--domains") {
            if (!ParseNumber(value, 10000, &n))
                return UsageError("--domains takes a number from 0 to 10000, not '%ls'", value);
            options.domains = static_cast<unsigned>(n);
        } else if (arg == L"--users20") {
            if (!ParseNumber(value, 1000000, &n))
                return UsageError("--users20 takes a number from 0 to 1000000, not '%ls'", value);
            options.users20 = static_cast<unsigned>(n);
        } else if (arg == L"--seed") {
            if (!ParseNumber(value, ~0ull, &n))
                return UsageError("--seed takes an unsigned 64-bit number, not '%ls'", value);
            options.seed = n;
        } else {
            if (std::wcscmp(value, L"32") == 0)
                options.view = KEY_WOW64_32KEY;
            else if (std::wcscmp(value, L"64") == 0)
                options.view = KEY_WOW64_64KEY;
            else
                return UsageError("--view must be 32 or 64, not '%ls'", value);
        }
    }
    if (!haveFormat)
        return UsageError("--format is required%ls");
    if (options.users20 != 0 && options.format != nvwriter::DbFormat::V10)
        return UsageError("--users20 goes with --format 1.0 (a 2.0 database takes --users)%ls");
    // They are some of the users written, not more of them.
    if (options.users20 > options.users) {
        const std::wstring counts = std::to_wstring(options.users20) + L" is more than --users " +
                                    std::to_wstring(options.users);
        return UsageError("--users20 %ls", counts.c_str());
    }

    const char* formatText = options.format == nvwriter::DbFormat::V10 ? "1.0" : "2.0";
    const char* viewText = options.view == KEY_WOW64_32KEY ? "32-bit" : "64-bit";
    nvwriter::DbRecord record;
    HRESULT hr = nvwriter::WriteDatabase(options, &record);
    if (hr == HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS)) {
        std::fprintf(stderr, "nvdbgen: HKLM\\%ls already exists in the %s view; use --wipe to replace it\n",
                     options.dbPath.c_str(), viewText);
        return kExitFailed;
    }
    if (FAILED(hr)) {
        std::fprintf(stderr, "nvdbgen: writing the database failed: 0x%08lX\n", static_cast<unsigned long>(hr));
        return kExitFailed;
    }

    size_t slashed = 0;
    for (const auto& user : record.users)
        slashed += user.trailingSlash ? 1 : 0;
    std::printf("nvdbgen: wrote a format %s database to HKLM\\%ls (%s view), seed %llu\n", formatText,
                record.dbPath.c_str(), viewText, static_cast<unsigned long long>(options.seed));
    std::printf("  users: %zu (%zu names ending in '/')\n", record.users.size(), slashed);
    std::printf("  stores:");
    for (const auto& store : record.stores)
        std::printf(" %ls", store.machine ? L"(machine)" : store.name.c_str());
    std::printf("\n  keys: %zu, values: %zu\n", record.keys.size(), record.ValueCount());
    if (options.users20 != 0)
        std::printf("  2.0-style users: %u with sealed records under Data\\Users\n", options.users20);
    if (options.format == nvwriter::DbFormat::V20 || options.users20 != 0)
        std::printf("  host: %ls (machine key container)\n",
                    nvwriter::GuidText(nvwriter::MakeDb20Database(nvwriter::Db20OptionsFrom(options)).hostId).c_str());
    return kExitOk;
}
