#include "trace_cli.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/stat.h>
#endif

#include <algorithm>
#include <filesystem>
#include <new>
#include <ostream>
#include <string>

#include "decoder.h"
#include "listing.h"
#include "rollup.h"
#include "summary.h"
#include "timeline_cli.h"

namespace nvtrace {

namespace fs = std::filesystem;

namespace {

const char kSynopsis[] =
    "usage: nvtrace [--raw | --summary | --json] [--thread N] [--] FILE\n"
    "       nvtrace [--summary | --json | --csv] [--jobs N] [--] FILE|FOLDER...\n"
    "       nvtrace [--chrome-trace OUT.json] [--html OUT.html] [--thread N] [--] FILE\n";

// After a bad option: the synopsis and where the rest is, not every option again.
const char kSeeHelp[] = "  (nvtrace --help: every option and the exit codes)\n";

const char kDetails[] =
    "  Decodes a .trc3 trace file: the header as it stands, then one line per record\n"
    "  (date and time, thread id, indentation by scope depth, kind and text;\n"
    "  kinds: '>' scope entered, '<' scope left, 'U' line, 'E' result as hex code and\n"
    "  name, 'N' file reopened).\n"
    "  --raw       every record as kind, thread and text, tab-separated, no header\n"
    "  --summary   first the verdict on each conversion (format step, policy, users moved,\n"
    "              moved with gaps, held and failed, and every user not plainly moved),\n"
    "              then processes and threads, every failing result once with its scope\n"
    "              path, code name and message, the users of a 2.0 -> 3.0 conversion, and\n"
    "              the slowest scopes by total time\n"
    "  --json      every record as one JSON object per line (offset, process, thread, kind,\n"
    "              time, depth, text; results also code, name, message)\n"
    "  --csv       the roll-up below as CSV\n"
    "  --thread N  only the records of thread N (decimal, or hex with 0x)\n"
    "  --chrome-trace OUT  the scopes per process and thread as a timeline for chrome://tracing\n"
    "              and Perfetto (trace event JSON), with failing results and progress lines\n"
    "  --html OUT  one self-contained page: verdict, users, failing results, timeline\n"
    "              (OUT \"-\": standard output, for one of them alone; either replaces\n"
    "              the listing; neither may name a trace read)\n"
    "  Several files, or a folder (every *.trc3 under it), with --summary, --json or\n"
    "  --csv: one row per trace (machine, version, start, users moved, with gaps, held,\n"
    "  failed, first failure, damage) and totals with the most frequent failure codes.\n"
    "  --jobs N    read and decode N files at once (default: one per CPU this process may\n"
    "              use, at most 16); rows come in the same order whatever N; 1: one thread\n"
    "  --          the arguments after it are files and folders, even if named \"-...\"\n"
    "  Text from a trace or a file name is shown with control characters, bytes that are\n"
    "  no UTF-8 and characters that reorder text escaped (\\n, \\xNN, \\uXXXX); a file over\n"
    "  256 MiB is not read.\n"
    "  Exit codes: 0 decoded, 1 usage, 2 unreadable (or no trace found, or the output\n"
    "  could not be written), 3 truncated or corrupt (with many files: 3 if any was, else\n"
    "  2 if any could not be read).\n";

// A command line that cannot run: what is wrong, the synopsis, where the rest is.
// Returns the exit code for it.
int UsageError(std::ostream& err, const std::string& what)
{
    err << "nvtrace: " << what << '\n' << kSynopsis << kSeeHelp;
    return 1;
}

bool ParseThread(const std::string& text, std::uint32_t& value)
{
    if (text.empty())
        return false;
    std::size_t i = 0;
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        i = 2;
    }
    std::uint64_t v = 0;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            return false;
        v = v * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit);
        if (v > 0xFFFFFFFFu)
            return false;
    }
    value = static_cast<std::uint32_t>(v);
    return true;
}

// A count in decimal, 1 to max.
bool ParseCount(const std::string& text, unsigned max, unsigned& value)
{
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long v = std::stoul(text);
    if (v == 0 || v > max)
        return false;
    value = static_cast<unsigned>(v);
    return true;
}

} // namespace

namespace {

enum class OutputMode { Listing, Raw, Summary, Json, Csv };

// What the command line asks for.
struct CliOptions {
    OutputMode mode = OutputMode::Listing;
    bool modeGiven = false;
    FormatOptions format;
    TimelineOutputs outputs; // --chrome-trace, --html
    std::vector<std::string> paths;
    unsigned jobs = 0; // --jobs; 0: one per CPU
    bool jobsGiven = false;
};

// The options that choose what is written to standard output; one at most.
struct ModeOption {
    const char* name;
    OutputMode mode;
};
constexpr ModeOption kModeOptions[] = {
    {"--raw", OutputMode::Raw},
    {"--summary", OutputMode::Summary},
    {"--json", OutputMode::Json},
    {"--csv", OutputMode::Csv},
};

// Whether two paths name one file: the same file when both exist, else the same
// place once made absolute (an output not written yet; on Windows whatever the
// letters' case). Paths are read as the file functions read them (on Windows the
// ANSI code page, as ifstream and CreateFileA do).
#ifdef _WIN32
bool FileIdentity(const std::string& path, BY_HANDLE_FILE_INFORMATION& info)
{
    const HANDLE h = ::CreateFileA(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    const bool ok = ::GetFileInformationByHandle(h, &info) != FALSE;
    ::CloseHandle(h);
    return ok;
}

std::string FullPath(const std::string& path)
{
    char buffer[4096];
    const DWORD n = ::GetFullPathNameA(path.c_str(), sizeof(buffer), buffer, nullptr);
    return n == 0 || n >= sizeof(buffer) ? path : std::string(buffer, n);
}

bool SameFile(const std::string& a, const std::string& b)
{
    BY_HANDLE_FILE_INFORMATION ia{}, ib{};
    if (FileIdentity(a, ia) && FileIdentity(b, ib))
        return ia.dwVolumeSerialNumber == ib.dwVolumeSerialNumber && ia.nFileIndexHigh == ib.nFileIndexHigh &&
               ia.nFileIndexLow == ib.nFileIndexLow;
    return ::lstrcmpiA(FullPath(a).c_str(), FullPath(b).c_str()) == 0;
}
#else
bool SameFile(const std::string& a, const std::string& b)
{
    struct stat sa{}, sb{};
    if (::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0)
        return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
    try {
        std::error_code ec;
        const fs::path pa = fs::weakly_canonical(a, ec);
        if (ec)
            return false;
        const fs::path pb = fs::weakly_canonical(b, ec);
        return !ec && pa == pb;
    } catch (const std::exception&) {
        return false; // a path the library cannot take apart names no file it could compare
    }
}
#endif

// The file outputs may not overwrite a trace read or each other, and standard output
// takes one document: a page or an event file written there ("-") goes alone.
int CheckOutputs(const CliOptions& options, std::ostream& err)
{
    const TimelineOutputs& o = options.outputs;
    const std::string* files[] = {&o.html, &o.chromeTrace};
    const char* names[] = {"--html", "--chrome-trace"};
    for (int k = 0; k < 2; ++k) {
        const std::string& output = *files[k];
        if (output.empty() || output == "-")
            continue;
        for (const std::string& path : options.paths)
            if (SameFile(output, path))
                return UsageError(err, std::string(names[k]) + " '" + Printable(output) +
                                           "' would overwrite a trace it reads");
    }
    const bool oneOutput = o.html == "-" ? o.chromeTrace == "-" : SameFile(o.html, o.chromeTrace);
    if (!o.html.empty() && !o.chromeTrace.empty() && oneOutput)
        return UsageError(err, "--html and --chrome-trace need two outputs");
    if ((o.html == "-" || o.chromeTrace == "-") && options.modeGiven)
        return UsageError(err, "an output on standard output (\"-\") goes alone: not with --raw, --summary, --json or "
                               "--csv");
    return -1;
}

// -1 when the command line is complete, else the exit code to return at once.
int ParseCli(const std::vector<std::string>& args, CliOptions& options, std::ostream& out, std::ostream& err)
{
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--") {
            // What follows are files and folders, whatever their names begin with.
            options.paths.insert(options.paths.end(), args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end());
            break;
        }
        if (a == "--help" || a == "-h") {
            out << kSynopsis << kDetails;
            return 0;
        }
        const ModeOption* mode = nullptr;
        for (const ModeOption& m : kModeOptions)
            if (a == m.name)
                mode = &m;
        if (mode) {
            if (options.modeGiven)
                return UsageError(err, "--raw, --summary, --json and --csv exclude each other");
            options.modeGiven = true;
            options.mode = mode->mode;
            options.format.raw = mode->mode == OutputMode::Raw;
        } else if (a == "--chrome-trace" || a == "--html") {
            if (i + 1 >= args.size() || args[i + 1].empty())
                return UsageError(err, a + " needs an output file (\"-\": standard output)");
            std::string& output = a == "--html" ? options.outputs.html : options.outputs.chromeTrace;
            if (!output.empty())
                return UsageError(err, a + " is given twice");
            output = args[++i];
        } else if (a == "--thread") {
            if (i + 1 >= args.size() || !ParseThread(args[i + 1], options.format.thread))
                return UsageError(err, "--thread needs a thread id (decimal, or hex with 0x)");
            options.format.filterThread = true;
            ++i;
        } else if (a == "--jobs") {
            if (i + 1 >= args.size() || !ParseCount(args[i + 1], kMaxRollupJobs, options.jobs))
                return UsageError(err, "--jobs needs a number of files to read at once, 1 to " +
                                           std::to_string(kMaxRollupJobs));
            options.jobsGiven = true;
            ++i;
        } else if (a.size() > 1 && a[0] == '-')
            return UsageError(err, "unknown option '" + Printable(a) + "'"); else {
            options.paths.push_back(a);
        }
    }
    if (options.paths.empty()) {
        err << kSynopsis << kDetails;
        return 1;
    }
    return CheckOutputs(options, err);
}

// Many files, a folder, or --csv: one row per trace instead of one trace in full.
bool WantsRollup(const CliOptions& options)
{
    if (options.mode == OutputMode::Csv || options.paths.size() > 1)
        return true;
    const bool rollable = options.mode == OutputMode::Summary || options.mode == OutputMode::Json;
    return rollable && IsFolder(options.paths.front());
}

int RunOneTrace(const CliOptions& options, std::ostream& out, std::ostream& err)
{
    const std::string& path = options.paths.front();
    std::vector<std::uint8_t> data;
    std::string error;
    if (!ReadWholeFile(path, data, error)) {
        err << "nvtrace: " << Printable(error) << '\n';
        return 2;
    }
    DecodedTrace trace = Decode(data);
    const bool summarized =
        options.mode == OutputMode::Summary || options.mode == OutputMode::Json || options.outputs.any();
    // A file whose header never ends (not a trace, or cut inside the header) has
    // nothing to summarize or draw: a summary would invent a process that loaded the
    // library. Only the reason is given.
    if (summarized && trace.bodyOffset == 0) {
        err << "nvtrace: " << Printable(path + ": " + trace.error) << '\n';
        return 3;
    }
    // What could be decoded is shown even when the file is damaged further on.
    if (summarized) {
        if (options.format.filterThread) {
            auto other = [&](const Record& r) {
                return r.thread != options.format.thread && r.kind != 'N' && r.kind != 't' && r.kind != 'T';
            };
            trace.records.erase(std::remove_if(trace.records.begin(), trace.records.end(), other),
                                trace.records.end());
        }
        // One summary serves the text and the drawings.
        TraceSummary summary =
            options.mode == OutputMode::Summary || options.outputs.any() ? Summarize(trace) : TraceSummary();
        if (options.format.filterThread)
            summary.onlyThread = options.format.thread;
        if (options.mode == OutputMode::Summary)
            WriteSummary(summary, out);
        else if (options.mode == OutputMode::Json)
            WriteJsonLines(trace, out, options.format.filterThread ? &options.format.thread : nullptr);
        else if (options.mode == OutputMode::Raw)
            WriteListing(trace, options.format, out);
        if (options.outputs.any() && !WriteTimelineOutputs(trace, summary, options.outputs, path, out, err))
            return 2;
    } else {
        WriteListing(trace, options.format, out);
    }
    out.flush();
    if (!trace.ok) {
        err << "nvtrace: " << Printable(path + ": " + trace.error) << '\n';
        return 3;
    }
    return 0;
}

int Run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    CliOptions options;
    const int parsed = ParseCli(args, options, out, err);
    if (parsed >= 0)
        return parsed;
    if (!WantsRollup(options)) {
        if (options.jobsGiven)
            return UsageError(err, "--jobs takes several files, a folder or --csv");
        return RunOneTrace(options, out, err);
    }
    if (options.mode == OutputMode::Listing || options.mode == OutputMode::Raw)
        return UsageError(err, "one trace file at a time");
    if (options.format.filterThread)
        return UsageError(err, "--thread takes one trace file");
    if (options.outputs.any())
        return UsageError(err, "--chrome-trace and --html take one trace file");
    const RollupFormat format = options.mode == OutputMode::Csv    ? RollupFormat::Csv
                                : options.mode == OutputMode::Json ? RollupFormat::Json
                                                                   : RollupFormat::Summary;
    return RunRollup(options.paths, format, out, err, options.jobs);
}

} // namespace

int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    int code;
    try {
        code = Run(args, out, err);
    } catch (const std::bad_alloc&) {
        out.flush();
        err << "nvtrace: not enough memory\n";
        return 2;
    }
    // An output cut short (a full disk, a closed pipe) is no output: it says so,
    // whatever the traces were.
    out.flush();
    if (!out) {
        err << "nvtrace: cannot write to standard output: the output is incomplete\n";
        return 2;
    }
    return code;
}

} // namespace nvtrace
