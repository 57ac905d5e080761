#include "summary.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <ostream>
#include <tuple>

namespace nvtrace {

namespace {

struct KnownCode {
    std::uint32_t code;
    const char* name;
    const char* message;
};

// The codes a conversion meets: COM, registry and CryptoAPI failures. Messages
// follow the system's wording, so that a summary reads the same on any machine.
const KnownCode kKnownCodes[] = {
    {0x00000000u, "S_OK", "success"},
    {0x00000001u, "S_FALSE", "success, nothing to do or not found"},
    {0x80004001u, "E_NOTIMPL", "Not implemented"},
    {0x80004002u, "E_NOINTERFACE", "No such interface supported"},
    {0x80004003u, "E_POINTER", "Invalid pointer (for a user: the storage server could not be created)"},
    {0x80004005u, "E_FAIL", "Unspecified error"},
    {0x8000FFFFu, "E_UNEXPECTED", "Catastrophic failure"},
    {0x80040154u, "REGDB_E_CLASSNOTREG", "Class not registered"},
    {0x800401F0u, "CO_E_NOTINITIALIZED", "CoInitialize has not been called"},
    {0x80070002u, "HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)", "The system cannot find the file specified (a missing key or value)"},
    {0x80070005u, "E_ACCESSDENIED", "Access is denied"},
    {0x80070008u, "HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)", "Not enough storage (an empty registry value the backup refuses)"},
    {0x8007000Du, "HRESULT_FROM_WIN32(ERROR_INVALID_DATA)", "The data is invalid"},
    {0x8007000Eu, "E_OUTOFMEMORY", "Not enough memory resources are available"},
    {0x80070057u, "E_INVALIDARG", "The parameter is incorrect"},
    {0x8007007Fu, "HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND)", "The specified procedure could not be found"},
    {0x80090003u, "NTE_BAD_KEY", "Bad Key"},
    {0x80090005u, "NTE_BAD_DATA", "Bad Data (a corrupt sealed record)"},
    {0x80090006u, "NTE_BAD_SIGNATURE", "Invalid Signature"},
    {0x80090009u, "NTE_BAD_FLAGS", "Invalid flags specified"},
    {0x8009000Du, "NTE_NO_KEY", "Key does not exist"},
    {0x80090016u, "NTE_BAD_KEYSET", "Keyset does not exist (the machine key container is missing)"},
    {0x8009000Fu, "NTE_EXISTS", "Object already exists"},
};

std::string Hex8(std::uint32_t v)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%08X", static_cast<unsigned>(v));
    return buf;
}

bool ParseHex(const std::string& text, std::size_t at, std::uint32_t& value)
{
    if (text.compare(at, 2, "0x") != 0 && text.compare(at, 2, "0X") != 0)
        return false;
    at += 2;
    std::uint64_t v = 0;
    std::size_t digits = 0;
    for (; at < text.size() && digits < 8; ++at, ++digits) {
        const char c = text[at];
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            break;
        v = v * 16 + static_cast<std::uint64_t>(d);
    }
    if (digits == 0)
        return false;
    value = static_cast<std::uint32_t>(v);
    return true;
}

// "'<sid>'" followed by `tail` and a hex code, or by nothing when tail is empty.
bool QuotedAfter(const std::string& text, const std::string& lead, const std::string& tail, std::string& sid,
                 std::uint32_t* code)
{
    if (text.compare(0, lead.size(), lead) != 0)
        return false;
    const std::size_t close = text.find('\'', lead.size());
    if (close == std::string::npos)
        return false;
    sid = text.substr(lead.size(), close - lead.size());
    if (!code)
        return close + 1 == text.size();
    if (text.compare(close + 1, tail.size(), tail) != 0)
        return false;
    return ParseHex(text, close + 1 + tail.size(), *code);
}

// "<lead><sid><tail><rest>": the SID and the rest.
bool SidAndRest(const std::string& text, const char* lead, const char* tail, std::string& sid, std::string& rest)
{
    const std::string l(lead), t(tail);
    if (text.compare(0, l.size(), l) != 0)
        return false;
    const std::size_t at = text.find(t, l.size());
    if (at == std::string::npos)
        return false;
    sid = text.substr(l.size(), at - l.size());
    rest = text.substr(at + t.size());
    return true;
}

// "value "<name>" of <key> is empty: the backup cannot copy empty values", the
// library's words for a value its backup refused, in nvdbconv's form.
bool EmptyValueLine(const std::string& text, std::string& shown)
{
    static const std::string lead = "value \"", middle = "\" of ",
                             tail = " is empty: the backup cannot copy empty values";
    if (text.compare(0, lead.size(), lead) != 0 || text.size() < lead.size() + tail.size() ||
        text.compare(text.size() - tail.size(), tail.size(), tail) != 0)
        return false;
    const std::size_t at = text.rfind(middle, text.size() - tail.size());
    if (at == std::string::npos || at < lead.size())
        return false;
    const std::string name = text.substr(lead.size(), at - lead.size());
    const std::string key = text.substr(at + middle.size(), text.size() - tail.size() - at - middle.size());
    shown = key + ": value \"" + name + "\" is empty; the backup cannot copy empty values";
    return true;
}

// Days since 1970-01-01 of a civil date.
std::int64_t DaysFromCivil(int y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

int Digits(const std::string& s, std::size_t at, std::size_t n)
{
    int v = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (at + i >= s.size() || s[at + i] < '0' || s[at + i] > '9')
            return -1;
        v = v * 10 + (s[at + i] - '0');
    }
    return v;
}

// The file's clock: the last date and time records seen.
class Clock {
public:
    void Date(const std::string& mmddyy)
    {
        const int m = Digits(mmddyy, 0, 2), d = Digits(mmddyy, 3, 2), y = Digits(mmddyy, 6, 2);
        if (m > 0 && d > 0 && y >= 0) {
            m_days = DaysFromCivil(2000 + y, static_cast<unsigned>(m), static_cast<unsigned>(d));
            m_dateText = mmddyy;
        }
    }
    void Reopened(const std::string& mmddyyyy)
    {
        const int m = Digits(mmddyyyy, 0, 2), d = Digits(mmddyyyy, 3, 2), y = Digits(mmddyyyy, 6, 4);
        if (m > 0 && d > 0 && y >= 0) {
            m_days = DaysFromCivil(y, static_cast<unsigned>(m), static_cast<unsigned>(d));
            m_dateText = mmddyyyy.substr(0, 2) + "/" + mmddyyyy.substr(3, 2) + "/" + mmddyyyy.substr(8, 2);
        }
        m_timeKnown = false;
        m_timeText.clear();
    }
    void Time(const std::string& text)
    {
        const int h = Digits(text, 0, 2), mi = Digits(text, 3, 2), s = Digits(text, 6, 2), ms = Digits(text, 9, 3);
        if (h >= 0 && mi >= 0 && s >= 0 && ms >= 0) {
            m_ms = ((h * 60 + mi) * 60 + s) * 1000LL + ms;
            m_timeKnown = true;
            m_timeText = text;
        }
    }
    bool known() const { return m_days >= 0 && m_timeKnown; }
    std::int64_t now() const { return m_days * 86400000LL + m_ms; }
    std::string text() const
    {
        if (m_dateText.empty())
            return std::string();
        return m_timeKnown ? m_dateText + " " + m_timeText : m_dateText;
    }

private:
    std::int64_t m_days = -1;
    std::int64_t m_ms = 0;
    bool m_timeKnown = false;
    std::string m_dateText, m_timeText;
};

struct OpenScope {
    std::string name;
    bool timed = false;
    std::int64_t started = 0;
};

std::string JoinPath(const std::vector<OpenScope>& stack)
{
    std::string path;
    for (const OpenScope& s : stack)
        path += (path.empty() ? "" : " > ") + s.name;
    return path.empty() ? std::string("(outside any scope)") : path;
}

std::string JsonQuoted(const std::string& text)
{
    std::string out = "\"";
    for (const unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof(buf), "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c); // UTF-8 passes as it stands
            }
        }
    }
    return out + "\"";
}

} // namespace

CodeText DescribeCode(std::uint32_t code)
{
    for (const KnownCode& k : kKnownCodes)
        if (k.code == code)
            return {k.name, k.message};
    if ((code & 0xFFFF0000u) == 0x80070000u)
        return {"HRESULT_FROM_WIN32(" + std::to_string(code & 0xFFFFu) + ")", "Win32 error " + std::to_string(code & 0xFFFFu)};
    return {};
}

TraceSummary Summarize(const DecodedTrace& trace)
{
    TraceSummary summary;
    Clock clock;
    std::map<std::uint32_t, std::vector<OpenScope>> stacks;
    std::map<std::tuple<unsigned, std::uint32_t, std::string, std::int32_t, std::string>, std::size_t> failureAt;
    std::map<std::pair<unsigned, std::string>, std::size_t> userAt;
    std::map<std::string, std::size_t> scopeAt;

    auto newProcess = [&]() {
        for (auto& [thread, stack] : stacks)
            summary.unclosedScopes += stack.size();
        stacks.clear();
        SummaryProcess p;
        p.ordinal = static_cast<unsigned>(summary.processes.size() + 1);
        summary.processes.push_back(p);
    };
    // The first process starts at the header's time, its last line before ".".
    newProcess();
    if (trace.header.size() >= 2)
        summary.processes.back().started = trace.header[trace.header.size() - 2];

    auto user = [&](const std::string& sid) -> SummaryUser& {
        const auto key = std::make_pair(summary.processes.back().ordinal, sid);
        auto it = userAt.find(key);
        if (it == userAt.end()) {
            SummaryUser u;
            u.process = key.first;
            u.sid = sid;
            summary.users.push_back(u);
            it = userAt.emplace(key, summary.users.size() - 1).first;
        }
        return summary.users[it->second];
    };

    for (const Record& r : trace.records) {
        if (r.kind == 'N') {
            newProcess();
            clock.Reopened(r.text);
            summary.processes.back().started = clock.text();
            continue;
        }
        if (r.kind == 't') {
            clock.Date(r.text);
            continue;
        }
        if (r.kind == 'T') {
            clock.Time(r.text);
            SummaryProcess& p = summary.processes.back();
            // A reopened file's process knows its date first and its time later.
            if (p.ordinal > 1 && p.started.size() == 8)
                p.started = clock.text();
            continue;
        }
        SummaryProcess& process = summary.processes.back();
        auto thread = std::find_if(process.threads.begin(), process.threads.end(),
                                   [&](const SummaryThread& t) { return t.id == r.thread; });
        if (thread == process.threads.end()) {
            process.threads.push_back({r.thread, 0});
            thread = process.threads.end() - 1;
        }
        ++thread->records;
        std::vector<OpenScope>& stack = stacks[r.thread];

        if (r.kind == '>') {
            stack.push_back({r.text, clock.known(), clock.now()});
        } else if (r.kind == '<') {
            if (stack.empty())
                continue;
            const OpenScope scope = stack.back();
            stack.pop_back();
            auto it = scopeAt.find(scope.name);
            if (it == scopeAt.end()) {
                SummaryScope s;
                s.name = scope.name;
                summary.scopes.push_back(s);
                it = scopeAt.emplace(scope.name, summary.scopes.size() - 1).first;
            }
            SummaryScope& s = summary.scopes[it->second];
            ++s.calls;
            if (scope.timed && clock.known() && clock.now() >= scope.started) {
                const std::uint64_t ms = static_cast<std::uint64_t>(clock.now() - scope.started);
                s.totalMs += ms;
                s.longestMs = std::max(s.longestMs, ms);
            }
        } else if (r.kind == 'E') {
            const std::size_t blank = r.text.find(' ');
            const std::string number = r.text.substr(0, blank);
            char* end = nullptr;
            const long long code = std::strtoll(number.c_str(), &end, 10);
            if (number.empty() || *end != '\0' || code >= 0)
                continue;
            const std::string text = blank == std::string::npos ? std::string() : r.text.substr(blank + 1);
            const auto key = std::make_tuple(process.ordinal, r.thread, JoinPath(stack),
                                             static_cast<std::int32_t>(code), text);
            auto it = failureAt.find(key);
            if (it == failureAt.end()) {
                SummaryFailure f;
                f.process = process.ordinal;
                f.thread = r.thread;
                f.path = std::get<2>(key);
                f.code = static_cast<std::int32_t>(code);
                f.text = text;
                summary.failures.push_back(f);
                it = failureAt.emplace(key, summary.failures.size() - 1).first;
            }
            ++summary.failures[it->second].count;
        } else if (r.kind == 'U') {
            std::string sid;
            std::uint32_t code = 0;
            if (QuotedAfter(r.text, "Conversion process began for '", "", sid, nullptr)) {
                user(sid);
            } else if (QuotedAfter(r.text, "Conversion process is over for '", ", ", sid, &code)) {
                SummaryUser& u = user(sid);
                u.over = true;
                u.status = code;
            } else if (QuotedAfter(r.text, "DeleteKey('", "), ", sid, &code)) {
                SummaryUser& u = user(sid);
                u.deleteSeen = true;
                u.deleteResult = code;
            } else {
                std::string rest;
                if (EmptyValueLine(r.text, rest))
                    summary.emptyValues.push_back(rest);
                else if (SidAndRest(r.text, kIncompleteUserLead, kMovedWithGapsTail, sid, rest))
                    user(sid).gaps = rest;
                else if (SidAndRest(r.text, kIncompleteUserLead, kKeepsOldKeyTail, sid, rest))
                    user(sid).heldFor = rest;
            }
        }
    }
    for (auto& [thread, stack] : stacks)
        summary.unclosedScopes += stack.size();
    std::stable_sort(summary.scopes.begin(), summary.scopes.end(),
                     [](const SummaryScope& a, const SummaryScope& b) { return a.totalMs > b.totalMs; });
    return summary;
}

void WriteSummary(const TraceSummary& summary, std::ostream& out, std::size_t slowest)
{
    out << "processes: " << summary.processes.size() << '\n';
    for (const SummaryProcess& p : summary.processes) {
        out << "  process " << p.ordinal << ", started " << (p.started.empty() ? "at an unknown time" : p.started)
            << ", threads:";
        if (p.threads.empty())
            out << " none";
        for (const SummaryThread& t : p.threads)
            out << ' ' << t.id << " (" << t.records << " records)";
        out << '\n';
    }

    out << "\nfailing results: " << summary.failures.size() << '\n';
    for (const SummaryFailure& f : summary.failures) {
        const std::uint32_t code = static_cast<std::uint32_t>(f.code);
        const CodeText text = DescribeCode(code);
        out << "  " << Hex8(code);
        if (!text.name.empty())
            out << ' ' << text.name;
        if (!text.message.empty())
            out << " \"" << text.message << '"';
        out << "\n    in " << f.path << "\n    process " << f.process << ", thread " << f.thread;
        if (f.count > 1)
            out << ", " << f.count << " times";
        if (!f.text.empty())
            out << ", text: " << f.text;
        out << '\n';
    }

    if (!summary.emptyValues.empty()) {
        out << "\nvalues the backup refused: " << summary.emptyValues.size() << '\n';
        for (const std::string& v : summary.emptyValues)
            out << "  " << v << '\n';
    }

    if (!summary.users.empty()) {
        std::size_t moved = 0, withGaps = 0;
        for (const SummaryUser& u : summary.users) {
            moved += u.moved() ? 1 : 0;
            withGaps += u.movedWithGaps() ? 1 : 0;
        }
        out << "\nusers (2.0 -> 3.0): " << summary.users.size() << ", " << moved << " moved";
        if (withGaps)
            out << " (" << withGaps << " with gaps)";
        out << ", " << summary.users.size() - moved << " kept their old data\n";
        std::size_t width = 3;
        for (const SummaryUser& u : summary.users)
            width = std::max(width, u.sid.size());
        out << "  " << "SID" << std::string(width - 3, ' ') << "  status      outcome\n";
        for (const SummaryUser& u : summary.users) {
            out << "  " << u.sid << std::string(width - u.sid.size(), ' ') << "  ";
            out << (u.over ? Hex8(u.status) : std::string("(no end)  ")) << "  ";
            if (u.movedWithGaps()) {
                out << "moved with gaps: " << u.gaps;
            } else if (u.moved()) {
                out << "moved";
            } else if (u.deleteSeen) {
                out << "in the store, but its old key stayed (DeleteKey " << Hex8(u.deleteResult) << ')';
            } else {
                out << "kept its old data";
                const CodeText text = DescribeCode(u.status);
                if (!u.heldFor.empty())
                    out << ": " << u.heldFor;
                else if (u.over && u.status != 0 && !text.name.empty())
                    out << ": " << text.name << " \"" << text.message << '"';
            }
            if (summary.processes.size() > 1)
                out << " (process " << u.process << ')';
            out << '\n';
        }
    }

    out << "\nslowest scopes (total time):\n";
    std::size_t shown = 0;
    for (const SummaryScope& s : summary.scopes) {
        if (shown++ == slowest)
            break;
        char line[64];
        std::snprintf(line, sizeof(line), "  %8llu ms  %6zu calls  longest %llu ms  ",
                      static_cast<unsigned long long>(s.totalMs), s.calls,
                      static_cast<unsigned long long>(s.longestMs));
        out << line << s.name << '\n';
    }
    if (summary.scopes.empty())
        out << "  none\n";
    if (summary.unclosedScopes)
        out << "\nscopes never left: " << summary.unclosedScopes << " (the process ended inside them, or the file is cut)\n";
}

void WriteJsonLines(const DecodedTrace& trace, std::ostream& out)
{
    Clock clock;
    unsigned process = 1;
    std::map<std::uint32_t, int> depth;
    for (const Record& r : trace.records) {
        if (r.kind == 'N') {
            ++process;
            depth.clear();
            clock.Reopened(r.text);
        } else if (r.kind == 't') {
            clock.Date(r.text);
        } else if (r.kind == 'T') {
            clock.Time(r.text);
        }
        int& d = depth[r.thread];
        if (r.kind == '<' && d > 0)
            --d;
        const std::string time = clock.text();
        out << "{\"offset\":" << r.offset << ",\"process\":" << process << ",\"thread\":" << r.thread
            << ",\"kind\":" << JsonQuoted(std::string(1, r.kind))
            << ",\"time\":" << (time.empty() ? std::string("null") : JsonQuoted(time)) << ",\"depth\":" << d
            << ",\"text\":" << JsonQuoted(r.text);
        if (r.kind == 'E') {
            char* end = nullptr;
            const std::string number = r.text.substr(0, r.text.find(' '));
            const long long code = std::strtoll(number.c_str(), &end, 10);
            if (!number.empty() && *end == '\0') {
                const CodeText text = DescribeCode(static_cast<std::uint32_t>(code));
                out << ",\"code\":" << JsonQuoted(Hex8(static_cast<std::uint32_t>(code)))
                    << ",\"name\":" << (text.name.empty() ? std::string("null") : JsonQuoted(text.name))
                    << ",\"message\":" << (text.message.empty() ? std::string("null") : JsonQuoted(text.message));
            }
        }
        out << "}\n";
        if (r.kind == '>')
            ++d;
    }
}

} // namespace nvtrace
