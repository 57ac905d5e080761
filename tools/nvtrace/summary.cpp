#include "summary.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "counted.h"
#include "key_index.h"
#include "seeded_hash.h"
#include "thread_index.h"

namespace nvtrace {

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

int Digits(std::string_view s, std::size_t at, std::size_t n)
{
    int v = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (at + i >= s.size() || s[at + i] < '0' || s[at + i] > '9')
            return -1;
        v = v * 10 + (s[at + i] - '0');
    }
    return v;
}


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
    {0x80040201u, "NV_E_USER_INCOMPLETE", "Not all of the user reached the store; the strict policy kept its old data"},
    {0x800700AAu, "NV_E_CONVERSION_BUSY", "Another process holds the database (HRESULT_FROM_WIN32(ERROR_BUSY))"},
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

// The text from `at` on begins with lead.
bool StartsWith(std::string_view text, std::string_view lead, std::size_t at = 0)
{
    return text.size() >= at && text.size() - at >= lead.size() &&
           std::char_traits<char>::compare(text.data() + at, lead.data(), lead.size()) == 0;
}

bool ParseHex(std::string_view text, std::size_t at, std::uint32_t& value)
{
    if (at > text.size() || (text.compare(at, 2, "0x") != 0 && text.compare(at, 2, "0X") != 0))
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
bool QuotedAfter(std::string_view text, std::string_view lead, std::string_view tail, std::string_view& sid,
                 std::uint32_t* code)
{
    if (!StartsWith(text, lead))
        return false;
    const std::size_t close = text.find('\'', lead.size());
    if (close == std::string::npos)
        return false;
    sid = text.substr(lead.size(), close - lead.size());
    if (!code)
        return close + 1 == text.size();
    if (!StartsWith(text, tail, close + 1))
        return false;
    return ParseHex(text, close + 1 + tail.size(), *code);
}

// "<lead><sid><tail><rest>": the SID and the rest.
bool SidAndRest(std::string_view text, std::string_view l, std::string_view t, std::string_view& sid,
                std::string_view& rest)
{
    if (!StartsWith(text, l))
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
bool EmptyValueLine(std::string_view text, std::string_view& name, std::string_view& key)
{
    static constexpr std::string_view lead = "value \"", middle = "\" of ",
                                      tail = " is empty: the backup cannot copy empty values";
    if (!StartsWith(text, lead) || text.size() < lead.size() + tail.size() ||
        !StartsWith(text, tail, text.size() - tail.size()))
        return false;
    const std::size_t at = text.rfind(middle, text.size() - tail.size());
    if (at == std::string::npos || at < lead.size())
        return false;
    name = text.substr(lead.size(), at - lead.size());
    key = text.substr(at + middle.size(), text.size() - tail.size() - at - middle.size());
    return true;
}

// "2026-11-15": the one date form of the summary and the roll-up, whatever form the
// file gave (its header has four-digit years, its date records two).
std::string IsoDate(int y, int m, int d)
{
    // The callers' years have four digits at most, their months and days two.
    auto digit = [](int v, int unit) { return static_cast<char>('0' + v / unit % 10); };
    const char text[10] = {digit(y, 1000), digit(y, 100), digit(y, 10), digit(y, 1), '-',
                           digit(m, 10),   digit(m, 1),   '-',          digit(d, 10), digit(d, 1)};
    return std::string(text, sizeof(text));
}

// The file's clock: the last date and time records seen.
class Clock {
public:
    void Date(std::string_view mmddyy)
    {
        const int m = Digits(mmddyy, 0, 2), d = Digits(mmddyy, 3, 2), y = Digits(mmddyy, 6, 2);
        if (m > 0 && d > 0 && y >= 0) {
            m_days = DaysFromCivil(2000 + y, static_cast<unsigned>(m), static_cast<unsigned>(d));
            m_dateText.assign(mmddyy);
            m_isoDate = IsoDate(2000 + y, m, d);
        }
    }
    void Reopened(std::string_view mmddyyyy)
    {
        const int m = Digits(mmddyyyy, 0, 2), d = Digits(mmddyyyy, 3, 2), y = Digits(mmddyyyy, 6, 4);
        if (m > 0 && d > 0 && y >= 0) {
            m_days = DaysFromCivil(y, static_cast<unsigned>(m), static_cast<unsigned>(d));
            m_dateText.assign(mmddyyyy.substr(0, 2)).append("/").append(mmddyyyy.substr(3, 2)).append("/").append(
                mmddyyyy.substr(8, 2));
            m_isoDate = IsoDate(y, m, d);
        }
        m_timeKnown = false;
        m_timeText.clear();
    }
    // The header's "mm/dd/yyyy hh:mm:ss.mmm" line: where the first process starts.
    void HeaderTime(std::string_view line)
    {
        if (line.size() != 23 || line[10] != ' ')
            return;
        const char date[10] = {line[0], line[1], '-', line[3], line[4], '-', line[6], line[7], line[8], line[9]};
        Reopened(std::string_view(date, sizeof(date)));
        Time(line.substr(11));
    }
    // "2026-11-15 09:30:00.125", the date alone, or empty.
    std::string iso() const { return m_timeKnown && !m_isoDate.empty() ? m_isoDate + " " + m_timeText : m_isoDate; }
    void Time(std::string_view text)
    {
        const int h = Digits(text, 0, 2), mi = Digits(text, 3, 2), s = Digits(text, 6, 2), ms = Digits(text, 9, 3);
        if (h >= 0 && mi >= 0 && s >= 0 && ms >= 0) {
            m_ms = ((h * 60 + mi) * 60 + s) * 1000LL + ms;
            m_timeKnown = true;
            m_timeText.assign(text);
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
    std::string m_dateText, m_timeText, m_isoDate;
};

// The first process starts at the header's time, its last line before ".".
std::string FirstProcessStart(const std::vector<std::string>& header, Clock& clock)
{
    if (header.size() < 2)
        return std::string();
    clock.HeaderTime(header[header.size() - 2]);
    return clock.iso();
}

struct OpenScope {
    std::string_view name; // the record's text, which outlives the summarizer
    // Its whole path from the thread's outermost scope, as a position in the
    // summarizer's index of paths: the same names give the same position. The path's
    // text is shortened past a depth, and failures must not meet on its hidden levels.
    std::size_t path = 0;
    bool timed = false;
    std::int64_t started = 0;
    // Failures the scopes it called ended with: its own result record with one of
    // these codes passes that failure on rather than raising another.
    // One entry per code, the latest failure with it: a crafted file's thousands of
    // failing callees cost each result one look-up, not a search.
    std::unordered_map<std::int32_t, std::size_t, SeededIntHash> calleeFailures;
    bool failed = false;        // it traced a failing result of its own
    std::int32_t failedCode = 0;
    std::size_t failure = 0;    // index of that failure
    long conversion = -1;       // the conversion this scope runs, when it is one
    // Carried from the scope it runs in, so that no record looks through the whole
    // stack: the innermost conversion running here (this scope's or an outer one's),
    // and whether this scope or an outer one is an operation.
    long innermostConversion = -1;
    bool withinOperation = false;
};

std::string JoinPath(const std::vector<OpenScope>& stack)
{
    if (stack.empty())
        return "(outside any scope)";
    return ScopePathText(stack.size(), [&stack](std::size_t level) { return stack[level].name; });
}


// A decimal number as strtoll reads it, and nothing after it.
bool WholeNumber(std::string_view number, long long& value)
{
    char shortCopy[32];
    std::string longCopy;
    const char* text = shortCopy;
    if (number.size() < sizeof(shortCopy)) {
        std::memcpy(shortCopy, number.data(), number.size());
        shortCopy[number.size()] = '\0';
    } else {
        longCopy.assign(number);
        text = longCopy.c_str();
    }
    char* end = nullptr;
    value = std::strtoll(text, &end, 10);
    return !number.empty() && *end == '\0';
}

// The public operations of the library, as their scopes name them.
const char* OperationOf(std::string_view scope)
{
    if (scope == "CBaseConverter::Convert")
        return "Convert";
    if (scope == "CBaseConverter::Rollback")
        return "Rollback";
    if (scope == "CBaseConverter::Cleanup")
        return "Cleanup";
    return nullptr;
}

} // namespace

TraceLine RecognizeLine(std::string_view text)
{
    static constexpr std::string_view kVersionLead = "wszVersion = ";
    TraceLine line;
    // By the first letter, so that each line is compared only with the leads it can
    // have; the library's many other lines pass without a comparison.
    switch (text.empty() ? '\0' : text[0]) {
    case 'w':
        if (StartsWith(text, kVersionLead)) {
            line.kind = LineKind::Version;
            line.rest = text.substr(kVersionLead.size());
        }
        break;
    case 'C':
        if (text == "Conversion policy: strict")
            line.kind = LineKind::StrictPolicy;
        else if (QuotedAfter(text, "Conversion process began for '", "", line.sid, nullptr))
            line.kind = LineKind::UserBegan;
        else if (QuotedAfter(text, "Conversion process is over for '", ", ", line.sid, &line.code))
            line.kind = LineKind::UserOver;
        break;
    case 'R':
        if (text == "Retrieve payload")
            line.kind = LineKind::RetrievePayload;
        break;
    case 'D':
        if (QuotedAfter(text, "DeleteKey('", "), ", line.sid, &line.code))
            line.kind = LineKind::OldKeyDeleted;
        break;
    case 'v':
        if (EmptyValueLine(text, line.name, line.key))
            line.kind = LineKind::EmptyValue;
        break;
    case 'I':
        if (SidAndRest(text, kIncompleteUserLead, kMovedWithGapsTail, line.sid, line.rest))
            line.kind = LineKind::MovedWithGaps;
        else if (SidAndRest(text, kIncompleteUserLead, kKeepsOldKeyTail, line.sid, line.rest))
            line.kind = LineKind::KeepsOldKey;
        break;
    default:
        break;
    }
    return line;
}

ResultRecord RecognizeResult(std::string_view text)
{
    ResultRecord result;
    const std::size_t blank = text.find(' ');
    long long parsed = 0;
    if (!WholeNumber(text.substr(0, blank), parsed) || parsed >= 0)
        return result; // a success of facility 9: no failure
    result.failing = true;
    result.code = static_cast<std::int32_t>(parsed);
    if (blank != std::string_view::npos)
        result.text = text.substr(blank + 1);
    return result;
}

ConversionScope ConversionScopeOf(std::string_view name)
{
    if (name == "CBaseConverter::Convert")
        return ConversionScope::Operation;
    if (name == "CConverter3::do_Convert" || name == "CConverter2::do_Convert")
        return ConversionScope::FormatStep;
    return ConversionScope::None;
}

namespace {

// Distinct failure codes: those a scope's callees failed with, or those traced while
// a user ran. Usually none or one, so the first few sit inline and cost no
// allocation; past them a hash set keeps a crafted trace's thousands linear.
class CodeSet {
public:
    void Insert(std::int32_t code)
    {
        if (Contains(code))
            return;
        if (m_size < kInline) {
            m_inline[m_size++] = code;
            return;
        }
        if (!m_more)
            m_more = std::make_unique<std::unordered_set<std::int32_t, SeededIntHash>>();
        m_more->insert(code);
    }

    bool Contains(std::int32_t code) const
    {
        for (std::size_t i = 0; i < m_size; ++i)
            if (m_inline[i] == code)
                return true;
        return m_more && m_more->count(code) != 0;
    }

private:
    static constexpr std::size_t kInline = 4;
    std::int32_t m_inline[kInline] = {};
    std::size_t m_size = 0;
    std::unique_ptr<std::unordered_set<std::int32_t, SeededIntHash>> m_more;
};

// A user the guard caught leaves no result record of its own: its status is the
// failure, unless its old key went or a scope it ran already traced that code.
bool CaughtByGuard(bool deleteSeen, std::uint32_t status, const CodeSet* traced)
{
    const std::int32_t code = static_cast<std::int32_t>(status);
    return !deleteSeen && code < 0 && (!traced || !traced->Contains(code));
}

// Builds the summary record by record; one instance per decoded trace. It keeps
// views of the records' texts: they must outlive it.
class Summarizer {
public:
    explicit Summarizer(const std::vector<std::string>& header)
    {
        m_summary.header = header;
        NewProcess();
        m_summary.processes.back().started = FirstProcessStart(header, m_clock);
    }

    void Add(const RecordView& r)
    {
        switch (r.kind) {
        case 'N':
            NewProcess();
            m_clock.Reopened(r.text);
            m_summary.processes.back().started = m_clock.iso();
            return;
        case 't':
            m_clock.Date(r.text);
            return;
        case 'T': {
            m_clock.Time(r.text);
            SummaryProcess& p = m_summary.processes.back();
            // A reopened file's process knows its date first and its time later.
            if (p.ordinal > 1 && p.started.size() == 10)
                p.started = m_clock.iso();
            return;
        }
        default:
            break;
        }
        SummaryProcess& process = m_summary.processes.back();
        bool added = false;
        const std::size_t at = m_threadAt.Position(r.thread, added);
        if (added)
            process.threads.push_back({r.thread, 0});
        ++process.threads[at].records;
        std::vector<OpenScope>& stack = m_stacks[r.thread];
        if (r.kind == '>')
            Enter(r, stack);
        else if (r.kind == '<')
            Leave(stack);
        else if (r.kind == 'E')
            Result(r, stack);
        else if (r.kind == 'U')
            Line(r, stack);
    }

    TraceSummary Finish()
    {
        CloseProcess();
        std::stable_sort(m_summary.scopes.begin(), m_summary.scopes.end(),
                         [](const SummaryScope& a, const SummaryScope& b) { return a.totalMs > b.totalMs; });
        return std::move(m_summary);
    }

private:
    void CloseProcess()
    {
        for (auto& [thread, stack] : m_stacks) {
            m_summary.unclosedScopes += stack.size();
            for (const OpenScope& s : stack)
                if (s.conversion >= 0)
                    m_summary.conversions[static_cast<std::size_t>(s.conversion)].ended = false;
        }
        m_stacks.clear();
        m_currentUser.clear();
    }

    void NewProcess()
    {
        CloseProcess();
        m_threadAt.Clear();
        SummaryProcess p;
        p.ordinal = static_cast<unsigned>(m_summary.processes.size() + 1);
        m_summary.processes.push_back(p);
        m_version.clear();
    }

    std::size_t NewConversion()
    {
        SummaryConversion c;
        c.process = m_summary.processes.back().ordinal;
        c.started = m_clock.iso();
        if (c.started.empty())
            c.started = m_summary.processes.back().started;
        c.fromVersion = m_version;
        m_summary.conversions.push_back(c);
        return m_summary.conversions.size() - 1;
    }

    // The conversion running on this thread: the innermost scope that runs one, or
    // (for lines traced outside such a scope) one opened for them.
    std::size_t ConversionOf(std::uint32_t thread, std::vector<OpenScope>& stack)
    {
        if (!stack.empty() && stack.back().innermostConversion >= 0)
            return static_cast<std::size_t>(stack.back().innermostConversion);
        auto loose = m_looseConversion.find(thread);
        if (loose != m_looseConversion.end() && loose->second.first == m_summary.processes.back().ordinal)
            return loose->second.second;
        const std::size_t c = NewConversion();
        m_looseConversion[thread] = {m_summary.processes.back().ordinal, c};
        return c;
    }

    void Enter(const RecordView& r, std::vector<OpenScope>& stack)
    {
        OpenScope scope;
        scope.name = r.text;
        bool added = false;
        scope.path = m_pathAt.Position(stack.empty() ? 0 : stack.back().path + 1, r.text, added);
        scope.timed = m_clock.known();
        scope.started = m_clock.now();
        const char* operation = OperationOf(r.text);
        const ConversionScope kind = ConversionScopeOf(r.text);
        const bool c3 = r.text == "CConverter3::do_Convert";
        const bool inOperation = !stack.empty() && stack.back().withinOperation;
        long outer = stack.empty() ? -1 : stack.back().innermostConversion;
        if (operation || !inOperation) {
            if (operation)
                m_summary.processes.back().operations.push_back(operation);
            else if (r.text == "CConverter3::do_Cleanup" || r.text == "CConverter2::do_Cleanup")
                m_summary.processes.back().operations.push_back("Cleanup");
            else if (r.text == "CConverter3::do_Rollback" || r.text == "CConverter2::do_Rollback")
                m_summary.processes.back().operations.push_back("Rollback");
            else if (kind == ConversionScope::FormatStep)
                m_summary.processes.back().operations.push_back("Convert");
        }
        if (kind == ConversionScope::Operation || (kind == ConversionScope::FormatStep && outer < 0)) {
            scope.conversion = static_cast<long>(NewConversion());
            outer = scope.conversion;
        }
        if (kind == ConversionScope::FormatStep && outer >= 0) {
            SummaryConversion& c = m_summary.conversions[static_cast<std::size_t>(outer)];
            c.fromVersion = m_version;
            c.step = (m_version.empty() ? std::string(c3 ? "2.0" : "1.0") : m_version) + (c3 ? " -> 3.0" : " -> 2.0");
        }
        scope.innermostConversion = scope.conversion >= 0 ? scope.conversion : outer;
        scope.withinOperation = inOperation || operation != nullptr;
        stack.push_back(std::move(scope));
    }

    void Leave(std::vector<OpenScope>& stack)
    {
        if (stack.empty())
            return;
        const OpenScope scope = std::move(stack.back());
        stack.pop_back();
        if (scope.failed && !stack.empty())
            stack.back().calleeFailures[scope.failedCode] = scope.failure;
        bool added = false;
        const std::size_t at = m_scopeAt.Position(0, scope.name, added);
        if (added) {
            SummaryScope s;
            s.name.assign(scope.name);
            m_summary.scopes.push_back(s);
        }
        SummaryScope& s = m_summary.scopes[at];
        ++s.calls;
        if (scope.timed && m_clock.known() && m_clock.now() >= scope.started) {
            const std::uint64_t ms = static_cast<std::uint64_t>(m_clock.now() - scope.started);
            s.totalMs += ms;
            s.longestMs = std::max(s.longestMs, ms);
        }
    }

    std::size_t AddFailure(const SummaryFailure& f)
    {
        m_summary.failures.push_back(f);
        ++m_summary.processes.back().failures;
        return m_summary.failures.size() - 1;
    }

    void Result(const RecordView& r, std::vector<OpenScope>& stack)
    {
        const ResultRecord result = RecognizeResult(r.text);
        if (!result.failing)
            return;
        const std::int32_t code = result.code;
        const std::string text(result.text);
        std::size_t index = 0;
        bool passedOn = false;
        if (!stack.empty()) {
            const auto& callees = stack.back().calleeFailures;
            const auto callee = callees.find(code);
            if (callee != callees.end()) {
                index = callee->second;
                passedOn = true;
            }
        }
        if (passedOn) {
            SummaryFailure& f = m_summary.failures[index];
            ++f.passedUp;
            f.reached = JoinPath(stack);
        } else {
            const unsigned process = m_summary.processes.back().ordinal;
            const std::size_t wholePath = stack.empty() ? kOutsideAnyScope : stack.back().path;
            const auto key = std::make_tuple(process, r.thread, wholePath, code, text);
            auto it = m_failureAt.find(key);
            if (it == m_failureAt.end()) {
                SummaryFailure f;
                f.process = process;
                f.thread = r.thread;
                f.path = JoinPath(stack); // its text, only for a failure not seen before
                f.code = code;
                f.text = text;
                it = m_failureAt.emplace(key, AddFailure(f)).first;
            } else {
                ++m_summary.processes.back().failures;
            }
            index = it->second;
            ++m_summary.failures[index].count;
            m_summary.failures[index].offsets.push_back(r.offset);
            auto user = m_currentUser.find(r.thread);
            if (user != m_currentUser.end())
                m_userFailures[user->second].Insert(code);
        }
        if (!stack.empty()) {
            OpenScope& s = stack.back();
            s.failed = true;
            s.failedCode = code;
            s.failure = index;
            if (s.conversion >= 0) {
                SummaryConversion& c = m_summary.conversions[static_cast<std::size_t>(s.conversion)];
                c.failed = true;
                c.result = static_cast<std::uint32_t>(code);
                c.failedIn = m_summary.failures[index].path;
            }
        }
    }

    std::size_t User(std::size_t conversion, std::string_view sid)
    {
        bool added = false;
        const std::size_t at = m_userAt.Position(conversion, sid, added);
        if (added) {
            SummaryUser u;
            u.process = m_summary.processes.back().ordinal;
            u.conversion = conversion;
            u.sid.assign(sid);
            auto last = m_lastStatus.find(conversion);
            if (last != m_lastStatus.end()) {
                u.hasPrevious = true;
                u.previousStatus = last->second;
            }
            m_summary.users.push_back(std::move(u));
        }
        return at;
    }

    void Line(const RecordView& r, std::vector<OpenScope>& stack)
    {
        const TraceLine line = RecognizeLine(r.text);
        switch (line.kind) {
        case LineKind::Other:
            return;
        case LineKind::Version:
            m_version.assign(line.rest);
            return;
        case LineKind::StrictPolicy:
            m_summary.conversions[ConversionOf(r.thread, stack)].strict = true;
            return;
        case LineKind::RetrievePayload: {
            auto user = m_currentUser.find(r.thread);
            if (user != m_currentUser.end())
                m_summary.users[user->second].payloadRetrieved = true;
            return;
        }
        case LineKind::UserBegan:
            m_currentUser[r.thread] = User(ConversionOf(r.thread, stack), line.sid);
            return;
        case LineKind::UserOver:
            UserOver(r, line, stack);
            return;
        case LineKind::OldKeyDeleted: {
            SummaryUser& u = m_summary.users[User(ConversionOf(r.thread, stack), line.sid)];
            u.deleteSeen = true;
            u.deleteResult = line.code;
            return;
        }
        case LineKind::EmptyValue:
            m_summary.emptyValues.push_back(std::string(line.key).append(": value \"").append(line.name).append(
                "\" is empty; the backup cannot copy empty values"));
            return;
        case LineKind::MovedWithGaps:
            m_summary.users[User(ConversionOf(r.thread, stack), line.sid)].gaps.assign(line.rest);
            return;
        case LineKind::KeepsOldKey:
            m_summary.users[User(ConversionOf(r.thread, stack), line.sid)].heldFor.assign(line.rest);
            return;
        }
    }

    void UserOver(const RecordView& r, const TraceLine& line, std::vector<OpenScope>& stack)
    {
        const std::uint32_t thread = r.thread;
        const std::size_t conversion = ConversionOf(thread, stack);
        const std::size_t index = User(conversion, line.sid);
        SummaryUser& u = m_summary.users[index];
        u.over = true;
        u.status = line.code;
        m_lastStatus[conversion] = line.code;
        m_currentUser.erase(thread);
        const auto seen = m_userFailures.find(index);
        if (CaughtByGuard(u.deleteSeen, line.code, seen == m_userFailures.end() ? nullptr : &seen->second)) {
            SummaryFailure f;
            f.process = u.process;
            f.thread = thread;
            f.path = JoinPath(stack);
            f.code = static_cast<std::int32_t>(line.code);
            f.count = 1;
            f.user.assign(line.sid);
            f.offsets.push_back(r.offset);
            AddFailure(f);
        }
    }

    TraceSummary m_summary;
    Clock m_clock;
    std::string m_version; // the process's "wszVersion = " text
    std::map<std::uint32_t, std::vector<OpenScope>> m_stacks;
    ThreadIndex m_threadAt; // the current process's threads in its SummaryProcess
    std::map<std::uint32_t, std::size_t> m_currentUser; // thread -> user being converted
    std::map<std::size_t, CodeSet> m_userFailures; // user -> codes traced while it ran
    std::map<std::size_t, std::uint32_t> m_lastStatus; // conversion -> last user's status
    std::map<std::uint32_t, std::pair<unsigned, std::size_t>> m_looseConversion;
    static constexpr std::size_t kOutsideAnyScope = static_cast<std::size_t>(-1);
    // (process, thread, whole path, code, text) -> the failure's index
    std::map<std::tuple<unsigned, std::uint32_t, std::size_t, std::int32_t, std::string>, std::size_t> m_failureAt;
    KeyIndex m_pathAt; // the scopes' whole paths: (the path they open in + 1, or 0 for none; name)
    KeyIndex m_userAt; // of m_summary.users
    KeyIndex m_scopeAt; // of m_summary.scopes, by name
};

void CountOutcome(RowSummary& row, UserOutcome outcome)
{
    switch (outcome) {
    case UserOutcome::Moved: ++row.moved; break;
    case UserOutcome::MovedWithGaps: ++row.movedWithGaps; break;
    case UserOutcome::Held: ++row.held; break;
    case UserOutcome::Failed: ++row.failed; break;
    }
}

// Builds a roll-up row's figures record by record. It follows the scopes, the
// conversions and the users as the Summarizer does, but keeps of them only what
// decides a user's outcome and whether a failing result arose or was passed on: no
// paths, no texts, no times. It keeps views of the records' texts. One instance
// follows one trace after another: what it keeps per thread and per user keeps its
// room from trace to trace.
class RowSummarizer {
public:
    void Start(const std::vector<std::string>& header)
    {
        m_row = RowSummary();
        Clock clock;
        m_row.started = FirstProcessStart(header, clock);
        m_process = 1;
        m_conversions = 0;
        m_threadAt.Clear();
        m_looseConversion.clear();
        if (m_threads.size() > kKeptThreads) {
            std::vector<Thread>().swap(m_threads);
        } else {
            // Whether or not a later trace names these threads again.
            for (Thread& t : m_threads)
                EmptyStack(t.stack);
        }
        if (m_users.capacity() > kKeptUsers)
            std::vector<User>().swap(m_users);
        else
            m_users.clear();
        m_userAt.Clear();
    }

    void Add(const RecordView& r)
    {
        if (r.kind == 'N') {
            NewProcess();
            return;
        }
        if (r.kind != '>' && r.kind != '<' && r.kind != 'E' && r.kind != 'U')
            return; // the date and time records
        // One place that finds the thread, inlined where the records are read.
        Thread& thread = ThreadOf(r.thread);
        switch (r.kind) {
        case '>': Enter(r.text, thread.stack); return;
        case '<': Leave(thread.stack); return;
        case 'E': Result(r.text, thread); return;
        default: Line(RecognizeLine(r.text), thread); return;
        }
    }

    RowSummaries::Room Kept() const
    {
        RowSummaries::Room room;
        room.threads = m_threads.capacity();
        for (const Thread& t : m_threads)
            room.scopes += t.stack.capacity();
        room.users = m_users.capacity();
        return room;
    }

    RowSummary Finish()
    {
        for (const User& u : m_users) {
            CountOutcome(m_row, OutcomeOf(u.deleteSeen, u.hasGaps, u.isHeld));
        }
        return std::move(m_row);
    }

private:
    struct Scope {
        long conversion = -1;
        long innermost = -1; // the innermost conversion running here: its own or an outer scope's
        bool failed = false;
        std::int32_t failedCode = 0;
        CodeSet calleeFailures; // the codes its callees failed with
    };
    using ScopeStack = std::vector<Scope>;
    struct User {
        bool deleteSeen = false, hasGaps = false, isHeld = false;
        CodeSet traced; // failures that arose while it ran
    };

    static constexpr std::size_t kNoUser = static_cast<std::size_t>(-1);
    // A trace with more threads, deeper scopes or more users than these does not leave
    // its lists' room to the traces after it: a fleet's reader keeps what a trace of
    // the library needs, not what one crafted or huge file grew.
    static constexpr std::size_t kKeptThreads = 32, kKeptScopes = 64, kKeptUsers = 256;
    // What the row follows per thread of the current process.
    struct Thread {
        std::uint32_t id = 0;
        ScopeStack stack;
        std::size_t user = kNoUser; // the user whose conversion it traces now
    };

    Thread& ThreadOf(std::uint32_t id)
    {
        bool added = false;
        const std::size_t at = m_threadAt.Position(id, added);
        if (!added)
            return m_threads[at];
        // An entry an earlier process or trace left keeps its stack's room.
        Thread& t = at < m_threads.size() ? m_threads[at] : m_threads.emplace_back();
        t.id = id;
        EmptyStack(t.stack);
        t.user = kNoUser;
        return t;
    }

    // A stack grown past kKeptScopes gives its room back.
    static void EmptyStack(ScopeStack& stack)
    {
        if (stack.capacity() > kKeptScopes)
            ScopeStack().swap(stack);
        else
            stack.clear();
    }

    void NewProcess()
    {
        m_threadAt.Clear();
        ++m_process;
    }

    void Enter(std::string_view name, ScopeStack& stack)
    {
        // Room for more levels than the library's scopes usually go, at a thread's first
        // scope: one allocation, and none for a thread that only names itself.
        if (stack.capacity() == 0)
            stack.reserve(8);
        const ConversionScope kind = ConversionScopeOf(name);
        const long outer = Innermost(stack);
        long conversion = -1;
        if (kind == ConversionScope::Operation || (kind == ConversionScope::FormatStep && outer < 0))
            conversion = static_cast<long>(m_conversions++);
        // Field by field in place: a scope built aside and moved in stalled on reading
        // back the narrow stores just made.
        Scope& scope = stack.emplace_back();
        scope.conversion = conversion;
        scope.innermost = conversion >= 0 ? conversion : outer;
    }

    static long Innermost(const ScopeStack& stack) { return stack.empty() ? -1 : stack.back().innermost; }

    void Leave(ScopeStack& stack)
    {
        if (stack.empty())
            return;
        const bool failed = stack.back().failed;
        const std::int32_t code = stack.back().failedCode;
        stack.pop_back();
        if (failed && !stack.empty())
            stack.back().calleeFailures.Insert(code);
    }

    void Arose(std::int32_t code)
    {
        if (!m_row.hasFailure) {
            m_row.hasFailure = true;
            m_row.firstFailure = static_cast<std::uint32_t>(code);
        }
        ++m_row.codes[static_cast<std::uint32_t>(code)];
    }

    void Result(std::string_view text, Thread& thread)
    {
        ScopeStack& stack = thread.stack;
        const ResultRecord result = RecognizeResult(text);
        if (!result.failing)
            return;
        const bool passedOn = !stack.empty() && stack.back().calleeFailures.Contains(result.code);
        if (!passedOn) {
            Arose(result.code);
            if (thread.user != kNoUser)
                m_users[thread.user].traced.Insert(result.code);
        }
        if (!stack.empty()) {
            stack.back().failed = true;
            stack.back().failedCode = result.code;
        }
    }

    void Line(const TraceLine& line, Thread& thread);
    std::size_t ConversionOf(const Thread& thread);
    std::size_t UserOf(std::size_t conversion, std::string_view sid);

    RowSummary m_row;
    unsigned m_process = 1;
    std::size_t m_conversions = 0;
    std::vector<Thread> m_threads; // those m_threadAt counts are the current process's
    ThreadIndex m_threadAt; // of m_threads
    std::map<std::uint32_t, std::pair<unsigned, std::size_t>> m_looseConversion;
    std::vector<User> m_users;
    KeyIndex m_userAt; // of m_users
};

void RowSummarizer::Line(const TraceLine& line, Thread& thread)
{
    switch (line.kind) {
    case LineKind::StrictPolicy:
        ConversionOf(thread); // the policy's line opens a conversion when none runs
        return;
    case LineKind::UserBegan:
        thread.user = UserOf(ConversionOf(thread), line.sid);
        return;
    case LineKind::UserOver: {
        User& u = m_users[UserOf(ConversionOf(thread), line.sid)];
        thread.user = kNoUser;
        if (CaughtByGuard(u.deleteSeen, line.code, &u.traced))
            Arose(static_cast<std::int32_t>(line.code));
        return;
    }
    case LineKind::OldKeyDeleted:
        m_users[UserOf(ConversionOf(thread), line.sid)].deleteSeen = true;
        return;
    case LineKind::MovedWithGaps:
        m_users[UserOf(ConversionOf(thread), line.sid)].hasGaps = !line.rest.empty();
        return;
    case LineKind::KeepsOldKey:
        m_users[UserOf(ConversionOf(thread), line.sid)].isHeld = !line.rest.empty();
        return;
    default:
        return; // lines that neither count a user nor open a conversion
    }
}

// As the Summarizer's: the innermost conversion's scope, else one opened for lines
// traced outside any, per thread and process.
std::size_t RowSummarizer::ConversionOf(const Thread& thread)
{
    const long innermost = Innermost(thread.stack);
    if (innermost >= 0)
        return static_cast<std::size_t>(innermost);
    auto loose = m_looseConversion.find(thread.id);
    if (loose != m_looseConversion.end() && loose->second.first == m_process)
        return loose->second.second;
    m_looseConversion[thread.id] = {m_process, m_conversions};
    return m_conversions++;
}

std::size_t RowSummarizer::UserOf(std::size_t conversion, std::string_view sid)
{
    bool added = false;
    const std::size_t at = m_userAt.Position(conversion, sid, added);
    if (added)
        m_users.emplace_back();
    return at;
}

std::string ProcessList(const std::vector<unsigned>& ordinals)
{
    std::string text;
    for (std::size_t i = 0; i < ordinals.size();) {
        std::size_t j = i;
        while (j + 1 < ordinals.size() && ordinals[j + 1] == ordinals[j] + 1)
            ++j;
        text += (text.empty() ? "" : ", ") + std::to_string(ordinals[i]);
        if (j > i)
            text += "-" + std::to_string(ordinals[j]);
        i = j + 1;
    }
    return text;
}

const char* OutcomeWord(UserOutcome o)
{
    switch (o) {
    case UserOutcome::Moved: return "moved";
    case UserOutcome::MovedWithGaps: return "moved with gaps";
    case UserOutcome::Held: return "held";
    case UserOutcome::Failed: return "failed";
    }
    return "";
}

// Why a moved user's status is not S_OK: the format keeps results in it that are
// no failure of that user.
std::string StatusNote(const SummaryUser& u)
{
    const std::string status = "status " + DescribeResult(u.status);
    if (u.payloadRetrieved)
        return status + ": the store had no public key for the user yet, and the format keeps that lookup's "
                        "result in the status; not a failure";
    if (u.hasPrevious && u.previousStatus == u.status)
        return status + ": carried over from the user before (the format does not reset the status per user); "
                        "not a failure";
    return status + ": left by a step whose result the format does not check; the user's old key went after "
                    "a complete run";
}

} // namespace

std::string ScopePathText(std::size_t levels, const std::function<std::string_view(std::size_t)>& nameAt)
{
    std::string path;
    auto add = [&path](std::string_view name) { path.append(path.empty() ? "" : " > ").append(name); };
    if (levels <= kPathOuterScopes + kPathInnerScopes) {
        for (std::size_t level = 0; level < levels; ++level)
            add(nameAt(level));
        return path;
    }
    for (std::size_t level = 0; level < kPathOuterScopes; ++level)
        add(nameAt(level));
    add("... " + std::to_string(levels - kPathOuterScopes - kPathInnerScopes) + " more ...");
    for (std::size_t level = levels - kPathInnerScopes; level < levels; ++level)
        add(nameAt(level));
    return path;
}

std::string Hex8(std::uint32_t code)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text = "0x00000000";
    for (int i = 0; i < 8; ++i)
        text[9 - i] = digits[(code >> (4 * i)) & 15];
    return text;
}

CodeText DescribeCode(std::uint32_t code)
{
    for (const KnownCode& k : kKnownCodes)
        if (k.code == code)
            return {k.name, k.message};
    if ((code & 0xFFFF0000u) == 0x80070000u)
        return {"HRESULT_FROM_WIN32(" + std::to_string(code & 0xFFFFu) + ")", "Win32 error " + std::to_string(code & 0xFFFFu)};
    return {};
}

std::string DescribeResult(std::uint32_t code)
{
    const CodeText text = DescribeCode(code);
    std::string out = Hex8(code);
    if (!text.name.empty())
        out += " " + text.name;
    if (!text.message.empty())
        out += " \"" + text.message + "\"";
    return out;
}

namespace {

RecordView ViewOf(const Record& r) { return RecordView{r.offset, r.thread, r.kind, r.text}; }
const RecordView& ViewOf(const RecordView& r) { return r; }

// The full summary of a decoded trace, owned texts or views alike.
template <class RecordType>
TraceSummary SummarizeRecords(const BasicTrace<RecordType>& trace)
{
    Summarizer summarizer(trace.header);
    for (const RecordType& r : trace.records)
        summarizer.Add(ViewOf(r));
    return summarizer.Finish();
}

} // namespace

TraceSummary Summarize(const DecodedTrace& trace) { return SummarizeRecords(trace); }
TraceSummary Summarize(const TraceView& trace) { return SummarizeRecords(trace); }

std::size_t FailingResults(const TraceSummary& summary)
{
    std::size_t failing = 0;
    for (const SummaryFailure& f : summary.failures)
        failing += f.count;
    return failing;
}

struct RowSummaries::State {
    RowSummarizer summarizer;
};

RowSummaries::RowSummaries() : m_state(std::make_unique<State>()) {}
RowSummaries::~RowSummaries() = default;

RowSummary RowSummaries::Of(const TraceView& trace)
{
    RowSummarizer& summarizer = m_state->summarizer;
    summarizer.Start(trace.header);
    for (const RecordView& r : trace.records)
        summarizer.Add(r);
    return summarizer.Finish();
}

RowSummaries::Room RowSummaries::Kept() const { return m_state->summarizer.Kept(); }

RowSummary SummarizeRow(const TraceView& trace) { return RowSummaries().Of(trace); }

RowSummary RowSummaryOf(const TraceSummary& summary)
{
    RowSummary row;
    if (!summary.processes.empty())
        row.started = summary.processes.front().started;
    for (const SummaryUser& u : summary.users) {
        CountOutcome(row, OutcomeOf(u));
    }
    if (!summary.failures.empty()) {
        row.hasFailure = true;
        row.firstFailure = static_cast<std::uint32_t>(summary.failures.front().code);
    }
    for (const SummaryFailure& f : summary.failures)
        row.codes[static_cast<std::uint32_t>(f.code)] += f.count;
    return row;
}

std::vector<Verdict> ComputeVerdicts(const DecodedTrace& trace) { return ComputeVerdicts(Summarize(trace)); }

UserOutcome OutcomeOf(bool deleteSeen, bool hasGaps, bool isHeld)
{
    // A user whose old key's delete failed is in the store all the same: the format
    // counts it as converted, and the next Convert meets its old key again.
    if (deleteSeen)
        return hasGaps ? UserOutcome::MovedWithGaps : UserOutcome::Moved;
    return isHeld ? UserOutcome::Held : UserOutcome::Failed;
}

UserOutcome OutcomeOf(const SummaryUser& u) { return OutcomeOf(u.deleteSeen, !u.gaps.empty(), !u.heldFor.empty()); }

std::vector<Verdict> ComputeVerdicts(const TraceSummary& summary)
{
    std::vector<Verdict> verdicts;
    for (const SummaryConversion& c : summary.conversions) {
        Verdict v;
        v.process = c.process;
        v.started = c.started;
        v.step = c.step;
        v.ended = c.ended;
        v.failed = c.failed;
        v.result = c.result;
        v.failedIn = c.failedIn;
        verdicts.push_back(v);
    }
    for (const SummaryUser& u : summary.users) {
        Verdict& v = verdicts[u.conversion];
        ++v.users;
        VerdictUser vu;
        vu.sid = u.sid;
        vu.hasCode = u.over;
        vu.code = u.status;
        vu.outcome = OutcomeOf(u);
        if (u.moved()) {
            vu.missing = u.gaps;
            vu.hasCode = u.over && u.status != 0;
            if (vu.hasCode)
                vu.note = StatusNote(u);
        } else if (u.deleteSeen) {
            vu.missing = u.gaps;
            vu.note = "its old key stayed: DeleteKey " + DescribeResult(u.deleteResult);
        } else if (!u.heldFor.empty()) {
            vu.missing = u.heldFor;
        } else if (!u.over) {
            vu.note = "the trace ends before its conversion was over";
        }
        switch (vu.outcome) {
        case UserOutcome::Moved: ++v.moved; break;
        case UserOutcome::MovedWithGaps: ++v.movedWithGaps; break;
        case UserOutcome::Held: ++v.held; break;
        case UserOutcome::Failed: ++v.failedUsers; break;
        }
        if (vu.outcome != UserOutcome::Moved || !vu.note.empty())
            v.notPlainlyMoved.push_back(vu);
    }
    for (std::size_t i = 0; i < verdicts.size(); ++i) {
        const bool users = summary.conversions[i].step.find("-> 3.0") != std::string::npos || verdicts[i].users > 0;
        if (users)
            verdicts[i].policy = summary.conversions[i].strict ? "strict" : "default";
    }
    return verdicts;
}

void WriteVerdicts(const std::vector<Verdict>& verdicts, std::ostream& out)
{
    if (verdicts.empty()) {
        out << "verdict: no conversion\n";
        return;
    }
    for (const Verdict& v : verdicts) {
        out << "verdict: process " << v.process;
        if (!v.started.empty())
            out << ", " << v.started;
        out << ": ";
        if (v.step.empty())
            out << "no format step ran";
        else
            out << Printable(v.step);
        if (!v.policy.empty())
            out << ", " << v.policy << " policy";
        if (!v.policy.empty() || v.users) {
            out << ", " << Counted(v.users, "user") << ": " << v.moved << " moved, "
                << v.movedWithGaps << " moved with gaps, " << v.held << " held, " << v.failedUsers << " failed";
        }
        if (v.failed)
            out << "; the conversion failed: " << DescribeResult(v.result) << " in " << Printable(v.failedIn);
        else if (!v.ended)
            out << "; the trace ends inside the conversion";
        out << '\n';
        for (const VerdictUser& u : v.notPlainlyMoved) {
            out << "  " << Printable(u.sid) << "  " << OutcomeWord(u.outcome);
            if (u.outcome == UserOutcome::Held || u.outcome == UserOutcome::Failed) {
                if (u.hasCode)
                    out << ": " << DescribeResult(u.code);
                if (!u.missing.empty())
                    out << "; missing: " << Printable(u.missing);
            } else if (!u.missing.empty()) {
                out << "; missing: " << Printable(u.missing);
            }
            if (!u.note.empty())
                out << "; " << Printable(u.note);
            out << '\n';
        }
    }
}

void WriteSummary(const TraceSummary& summary, std::ostream& out, std::size_t slowest)
{
    if (summary.onlyThread)
        out << "thread " << *summary.onlyThread << " only (--thread): the other threads' records are left out\n";
    WriteVerdicts(ComputeVerdicts(summary), out);

    // Processes that neither ran an operation nor failed (a status query, a version
    // check: each loads the library and traces its version) are folded into one line.
    std::vector<unsigned> quiet;
    std::string quietFrom, quietTo;
    out << "\nprocesses: " << summary.processes.size() << '\n';
    for (const SummaryProcess& p : summary.processes) {
        if (p.operations.empty() && p.failures == 0) {
            quiet.push_back(p.ordinal);
            if (quietFrom.empty())
                quietFrom = p.started;
            quietTo = p.started;
            continue;
        }
        out << "  process " << p.ordinal << ", started " << (p.started.empty() ? "at an unknown time" : p.started);
        std::string ran;
        for (const std::string& op : p.operations)
            ran += (ran.empty() ? ", ran " : ", ") + op;
        out << ran << ", threads:";
        if (p.threads.empty())
            out << " none";
        for (const SummaryThread& t : p.threads)
            out << ' ' << t.id << " (" << Counted(t.records, "record") << ")";
        out << '\n';
    }
    if (!quiet.empty()) {
        out << "  " << (quiet.size() == 1 ? "process " : "processes ") << ProcessList(quiet);
        if (quiet.size() > 1)
            out << " (" << quiet.size() << ")";
        if (!quietFrom.empty())
            out << ", started " << quietFrom << (quiet.size() > 1 && quietTo != quietFrom ? " to " + quietTo : "");
        // Of one thread's records, that is all that can be said: the others may have
        // converted or failed.
        if (summary.onlyThread)
            out << ": no conversion and no failure in thread " << *summary.onlyThread << "'s records\n";
        else
            out << ": only loaded the library (no conversion, no failure)\n";
    }

    out << "\nfailing results: " << FailingResults(summary) << " (each counted where it arose)\n";
    for (const SummaryFailure& f : summary.failures) {
        out << "  " << DescribeResult(static_cast<std::uint32_t>(f.code)) << "\n    in " << Printable(f.path);
        if (!f.user.empty())
            out << ", user " << Printable(f.user);
        out << "\n    process " << f.process << ", thread " << f.thread;
        if (f.count > 1)
            out << ", " << f.count << " times";
        if (!f.text.empty())
            out << ", text: " << Printable(f.text);
        if (f.passedUp)
            out << ", passed up " << Counted(f.passedUp, "scope") << " to " << Printable(f.reached);
        out << '\n';
    }

    if (!summary.emptyValues.empty()) {
        out << "\nvalues the backup refused: " << summary.emptyValues.size() << '\n';
        for (const std::string& v : summary.emptyValues)
            out << "  " << Printable(v) << '\n';
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
        std::vector<std::string> sids;
        sids.reserve(summary.users.size());
        std::size_t width = 3;
        for (const SummaryUser& u : summary.users) {
            sids.push_back(Printable(u.sid));
            width = std::max(width, sids.back().size());
        }
        out << "  " << "SID" << std::string(width - 3, ' ') << "  status      outcome\n";
        for (std::size_t i = 0; i < summary.users.size(); ++i) {
            const SummaryUser& u = summary.users[i];
            out << "  " << sids[i] << std::string(width - sids[i].size(), ' ') << "  ";
            out << (u.over ? Hex8(u.status) : std::string("(no end)  ")) << "  ";
            if (u.movedWithGaps()) {
                out << "moved with gaps: " << Printable(u.gaps);
            } else if (u.moved()) {
                out << "moved";
                if (u.over && u.status != 0)
                    out << "; " << StatusNote(u);
            } else if (u.deleteSeen) {
                out << "in the store, but its old key stayed (DeleteKey " << Hex8(u.deleteResult) << ')';
            } else {
                out << "kept its old data";
                const CodeText text = DescribeCode(u.status);
                if (!u.heldFor.empty())
                    out << ": " << Printable(u.heldFor);
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
        std::snprintf(line, sizeof(line), "  %8llu ms  %6zu %-5s  longest %llu ms  ",
                      static_cast<unsigned long long>(s.totalMs), s.calls, s.calls == 1 ? "call" : "calls",
                      static_cast<unsigned long long>(s.longestMs));
        out << line << Printable(s.name) << '\n';
    }
    if (summary.scopes.empty())
        out << "  none\n";
    if (summary.unclosedScopes)
        out << "\nscopes never left: " << summary.unclosedScopes << " (the process ended inside them, or the file is cut)\n";
}

void WriteJsonLines(const DecodedTrace& trace, std::ostream& out, const std::uint32_t* onlyThread)
{
    using Json = nlohmann::ordered_json;
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
        // The clock and the processes follow every record; a thread's own are written.
        if (onlyThread && r.thread != *onlyThread)
            continue;
        int& d = depth[r.thread];
        if (r.kind == '<' && d > 0)
            --d;
        const std::string time = clock.text();
        Json line = Json::object();
        line["offset"] = r.offset;
        line["process"] = process;
        line["thread"] = r.thread;
        line["kind"] = std::string(1, r.kind);
        line["time"] = time.empty() ? Json(nullptr) : Json(time);
        line["depth"] = d;
        line["text"] = r.text;
        if (r.kind == 'E') {
            char* end = nullptr;
            const std::string number = r.text.substr(0, r.text.find(' '));
            const long long code = std::strtoll(number.c_str(), &end, 10);
            if (!number.empty() && *end == '\0') {
                const CodeText text = DescribeCode(static_cast<std::uint32_t>(code));
                line["code"] = Hex8(static_cast<std::uint32_t>(code));
                line["name"] = text.name.empty() ? Json(nullptr) : Json(text.name);
                line["message"] = text.message.empty() ? Json(nullptr) : Json(text.message);
            }
        }
        // Text that is not UTF-8 (a damaged file's last record is not kept, but a
        // header or an encoded surrogate may be) is shown with replacement characters.
        out << line.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
        if (r.kind == '>')
            ++d;
    }
}

} // namespace nvtrace
