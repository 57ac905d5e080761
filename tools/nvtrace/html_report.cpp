#include "html_report.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "counted.h"

namespace nvtrace {

namespace {

// Geometry of the timeline drawings, in SVG user units (the drawing scales to the page).
constexpr double kWidth = 1200;
constexpr double kLabelWidth = 110;
constexpr double kRightMargin = 12;
constexpr double kAxisHeight = 22;
constexpr double kRowHeight = 16;
constexpr double kMarkRow = 10;  // above a thread's scopes: the failure marks
constexpr double kLaneGap = 6;
constexpr double kCharWidth = 6.4; // of the 11-unit label font, for cutting names to fit

const char kStyle[] = R"(
body { font: 14px/1.4 system-ui, sans-serif; margin: 1.5em; color: #1d1d1f; }
h1 { font-size: 1.4em; margin: 0 0 .2em; } h2 { font-size: 1.15em; margin: 1.6em 0 .5em; }
h3 { font-size: 1em; margin: 1.2em 0 .3em; }
.file { color: #555; margin: 0 0 1em; word-break: break-all; }
table { border-collapse: collapse; margin: .3em 0; }
th, td { border: 1px solid #d0d0d5; padding: .25em .6em; text-align: left; vertical-align: top; }
th { background: #f0f0f3; }
td.code, td.sid, td.status { font-family: ui-monospace, monospace; white-space: nowrap; }
td.path { font-family: ui-monospace, monospace; font-size: .9em; }
.verdict { padding: .7em 1em; border-radius: 6px; border: 1px solid; max-width: 60em; }
.verdict h2 { margin: 0 0 .3em; }
.verdict.ok { background: #e8f6ea; border-color: #5a9e63; }
.verdict.warn { background: #fff6dc; border-color: #c9a227; }
.verdict.bad { background: #fde8e8; border-color: #c0392b; }
.verdict.none { background: #f0f0f3; border-color: #999; }
tr.failed td { background: #fdecec; } tr.gaps td { background: #fff8e0; } tr.recovered td { background: #f4f0e6; }
.damage { color: #a00; font-weight: bold; }
.header { font-family: ui-monospace, monospace; font-size: .85em; color: #444; white-space: pre; }
svg.timeline { width: 100%; height: auto; border: 1px solid #d0d0d5; background: #fff; }
svg text { font: 11px ui-monospace, monospace; fill: #1d1d1f; }
svg .axis line { stroke: #ccc; } svg .axis text { fill: #666; }
svg .lane { fill: #f7f7f9; }
svg .scope { fill: #8fb3de; stroke: #4a78ad; stroke-width: .5; }
svg .scope.d1 { fill: #a7c9a2; stroke: #5c8f55; } svg .scope.d2 { fill: #d9c58f; stroke: #9c8740; }
svg .scope.d3 { fill: #c3a7d6; stroke: #7d5c95; }
svg .scope.failed { fill: #f1a9a0; stroke: #c0392b; stroke-width: 1; }
svg .scope.unfinished { stroke: #c0392b; stroke-width: 1.2; stroke-dasharray: 4 2; fill-opacity: .55; }
svg .fail { fill: #c0392b; } svg .failline { stroke: #c0392b; stroke-width: 1; opacity: .45; }
)";

void AppendReplacement(std::string& out) { out += "\xEF\xBF\xBD"; }

std::string Escaped(const std::string& text) { return HtmlEscape(text); }

std::string Fixed(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%.1f", v);
    return buf;
}

// "850 µs", "12.5 ms", "3.2 s".
std::string Duration(TimelineUs us)
{
    char buf[32];
    if (us < 1000)
        std::snprintf(buf, sizeof(buf), "%lld µs", static_cast<long long>(us));
    else if (us < 10000000)
        std::snprintf(buf, sizeof(buf), "%g ms", static_cast<double>(us) / 1000.0);
    else
        std::snprintf(buf, sizeof(buf), "%g s", static_cast<double>(us) / 1e6);
    return buf;
}

std::string CodeWithName(std::uint32_t code)
{
    const CodeText text = DescribeCode(code);
    return text.name.empty() ? HexCode(code) : HexCode(code) + " " + text.name;
}

// ---- users ----------------------------------------------------------------

// A user may be converted by several runs (processes) of one trace: one that kept
// it and a later one that moved it. Its final state is that of its last run. The
// runs that moved each SID are listed once, so that a trace of many thousands of
// users is not searched whole for each of them.
class LaterMoves {
public:
    explicit LaterMoves(const TraceSummary& summary)
    {
        for (const SummaryUser& u : summary.users)
            if (u.moved())
                m_moved[u.sid].push_back(&u);
    }

    // The first run, in the summary's order, that moved the user in a later process.
    // The summary lists users as the trace names them, so each list is in process
    // order: found by halving, not by a walk from the first.
    const SummaryUser* After(const SummaryUser& u) const
    {
        const auto it = m_moved.find(u.sid);
        if (it == m_moved.end())
            return nullptr;
        const auto later = std::upper_bound(
            it->second.begin(), it->second.end(), u.process,
            [](unsigned process, const SummaryUser* other) { return process < other->process; });
        return later == it->second.end() ? nullptr : *later;
    }

private:
    std::map<std::string, std::vector<const SummaryUser*>> m_moved;
};

enum UserRank { kKept, kGaps, kKeptThenMoved, kMoved };

UserRank RankOf(const LaterMoves& later, const SummaryUser& u)
{
    if (u.moved())
        return u.movedWithGaps() ? kGaps : kMoved;
    return later.After(u) ? kKeptThenMoved : kKept;
}

const char* UserClass(UserRank rank)
{
    static const char* const classes[] = {"failed", "gaps", "recovered", "moved"};
    return classes[rank];
}

std::string UserOutcome(const LaterMoves& laterMoves, const SummaryUser& u)
{
    if (u.movedWithGaps())
        return "moved with gaps: " + u.gaps;
    if (u.moved())
        return "moved";
    std::string outcome;
    if (u.deleteSeen) {
        outcome = "in the store, but its old key stayed (DeleteKey " + HexCode(u.deleteResult) + ")";
    } else {
        outcome = "kept its old data";
        const CodeText text = DescribeCode(u.status);
        if (!u.heldFor.empty())
            outcome += ": " + u.heldFor;
        else if (u.over && u.status != 0 && !text.name.empty())
            outcome += ": " + text.name + " \"" + text.message + "\"";
        else if (!u.over)
            outcome += " (its conversion never ended)";
    }
    if (const SummaryUser* later = laterMoves.After(u))
        outcome += "; moved by a later run (process " + std::to_string(later->process) + ")";
    return outcome;
}

void WriteUsers(const TraceSummary& summary, std::ostream& out)
{
    out << "<h2 id=\"users\">Users (2.0 &rarr; 3.0)</h2>\n";
    if (summary.users.empty()) {
        out << "<p>No user conversion in this trace.</p>\n";
        return;
    }
    const LaterMoves later(summary);
    std::vector<std::pair<UserRank, const SummaryUser*>> users;
    for (const SummaryUser& u : summary.users)
        users.push_back({RankOf(later, u), &u});
    std::stable_sort(users.begin(), users.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    out << "<table class=\"users\">\n<tr><th>Process</th><th>SID</th><th>Status</th><th>Outcome</th></tr>\n";
    for (const auto& [rank, u] : users) {
        out << "<tr class=\"user " << UserClass(rank) << "\"><td>" << u->process << "</td><td class=\"sid\">"
            << Escaped(u->sid) << "</td><td class=\"status\">"
            << (u->over ? Escaped(CodeWithName(u->status)) : std::string("(no end)")) << "</td><td class=\"outcome\">"
            << Escaped(UserOutcome(later, *u)) << "</td></tr>\n";
    }
    out << "</table>\n";
}

// ---- failures -------------------------------------------------------------

void WriteFailures(const TraceSummary& summary, std::ostream& out)
{
    out << "<h2 id=\"failures\">Failing results: " << FailingResults(summary) << "</h2>\n";
    if (summary.failures.empty()) {
        out << "<p>No failing result was traced.</p>\n";
        return;
    }
    out << "<table class=\"failures\">\n<tr><th>Code</th><th>Name</th><th>Message</th><th>Scope path</th>"
           "<th>Process</th><th>Thread</th><th>Times</th><th>Text</th></tr>\n";
    for (const SummaryFailure& f : summary.failures) {
        const std::uint32_t code = static_cast<std::uint32_t>(f.code);
        const CodeText text = DescribeCode(code);
        out << "<tr class=\"failure\"><td class=\"code\">" << HexCode(code) << "</td><td>" << Escaped(text.name)
            << "</td><td>" << Escaped(text.message) << "</td><td class=\"path\">" << Escaped(f.path) << "</td><td>"
            << f.process << "</td><td>" << f.thread << "</td><td>" << f.count << "</td><td>" << Escaped(f.text)
            << "</td></tr>\n";
    }
    out << "</table>\n";
}

// ---- timeline drawing -----------------------------------------------------

struct Scale {
    TimelineUs begin;
    TimelineUs span;
    double X(TimelineUs t) const
    {
        return kLabelWidth + static_cast<double>(t - begin) * (kWidth - kLabelWidth - kRightMargin) /
                                 static_cast<double>(span);
    }
};

// Grid lines at 1, 2 or 5 times a power of ten, about eight over the span.
void WriteAxis(const Scale& scale, double height, std::ostream& out)
{
    TimelineUs step = 1;
    while (step * 8 < scale.span) {
        if (step * 2 * 8 >= scale.span) {
            step *= 2;
            break;
        }
        if (step * 5 * 8 >= scale.span) {
            step *= 5;
            break;
        }
        step *= 10;
    }
    out << "<g class=\"axis\">";
    for (TimelineUs t = 0; t <= scale.span; t += step) {
        const double at = scale.X(scale.begin + t);
        const std::string x = Fixed(at);
        // The last label would run off the drawing's right edge.
        const char* anchor = at > kWidth - 40 ? "end" : "middle";
        out << "<line x1=\"" << x << "\" y1=\"" << kAxisHeight - 4 << "\" x2=\"" << x << "\" y2=\"" << Fixed(height)
            << "\"/><text x=\"" << x << "\" y=\"12\" text-anchor=\"" << anchor << "\">"
            << (t == 0 ? std::string("0") : "+" + Escaped(Duration(t))) << "</text>";
    }
    out << "</g>\n";
}

void WriteScopeRect(const TimelineScope& s, const Scale& scale, double top, std::ostream& out)
{
    const double x = scale.X(s.beginUs);
    const double w = std::max(1.0, scale.X(s.endUs) - x);
    const double y = top + kMarkRow + static_cast<double>(s.depth) * kRowHeight;
    out << "<g><rect class=\"scope d" << s.depth % 4 << (s.failures ? " failed" : "")
        << (s.unfinished ? " unfinished" : "") << "\" x=\"" << Fixed(x) << "\" y=\"" << Fixed(y) << "\" width=\""
        << Fixed(w) << "\" height=\"" << kRowHeight - 2 << "\"><title>"
        << Escaped(s.name + "\n+" + Duration(s.beginUs - scale.begin) + ", " + Duration(s.endUs - s.beginUs) +
                   (s.unfinished ? "; never left: the process ended inside it" : "") +
                   (s.failures ? "; " + Counted(s.failures, "failing result") : ""))
        << "</title></rect>";
    const std::size_t fits = static_cast<std::size_t>(std::max(0.0, (w - 6) / kCharWidth));
    if (fits >= 4) {
        std::string label = s.name.size() > fits ? s.name.substr(0, fits - 1) + "…" : s.name;
        out << "<text x=\"" << Fixed(x + 3) << "\" y=\"" << Fixed(y + kRowHeight - 5) << "\">" << Escaped(label)
            << "</text>";
    }
    out << "</g>\n";
}

void WriteFailureMark(const Timeline& timeline, const TimelineMark& m, const Scale& scale, double top,
                      double height, std::ostream& out)
{
    const double x = scale.X(m.atUs);
    out << "<g class=\"failmark\"><line class=\"failline\" x1=\"" << Fixed(x) << "\" y1=\"" << Fixed(top) << "\" x2=\""
        << Fixed(x) << "\" y2=\"" << Fixed(top + height) << "\"/><path class=\"fail\" d=\"M" << Fixed(x - 4) << ','
        << Fixed(top) << " h8 l-4,8 z\"><title>"
        << Escaped(CodeWithName(m.code) + " in " + ScopePath(timeline, m.scope) +
                   (m.user.empty() ? "" : ", user " + m.user) + (m.text.empty() ? "" : ": " + m.text))
        << "</title></path></g>\n";
}

double LaneHeight(const TimelineThread& t) { return kMarkRow + static_cast<double>(t.maxDepth + 1) * kRowHeight; }

// A process's scopes and failing results, as indices into the timeline's lists.
struct ProcessPart {
    std::vector<std::size_t> scopes, failures;
};

void WriteProcessTimeline(const Timeline& timeline, const TimelineProcess& p, const ProcessPart& part,
                          std::ostream& out)
{
    out << "<h3>Process " << p.ordinal;
    if (!p.started.empty())
        out << ", started " << Escaped(p.started);
    out << ", " << Escaped(Duration(p.endUs - p.beginUs));
    if (p.unfinishedScopes)
        out << " <span class=\"damage\">ended inside " << Counted(p.unfinishedScopes, "scope") << "</span>";
    out << "</h3>\n";
    if (p.threads.empty()) {
        out << "<p>No records.</p>\n";
        return;
    }
    const Scale scale{p.beginUs, std::max<TimelineUs>(1, p.endUs - p.beginUs)};
    std::vector<double> tops;
    double height = kAxisHeight;
    for (const TimelineThread& t : p.threads) {
        tops.push_back(height);
        height += LaneHeight(t) + kLaneGap;
    }
    out << "<svg class=\"timeline\" data-process=\"" << p.ordinal << "\" viewBox=\"0 0 " << kWidth << ' '
        << Fixed(height) << "\" role=\"img\" aria-label=\"scopes of process " << p.ordinal << " per thread\">\n";
    WriteAxis(scale, height, out);
    std::map<std::uint32_t, std::size_t> lanes;
    for (std::size_t i = 0; i < p.threads.size(); ++i)
        lanes.emplace(p.threads[i].id, i);
    auto laneOf = [&lanes](std::uint32_t thread) {
        const auto lane = lanes.find(thread);
        return lane == lanes.end() ? std::size_t(0) : lane->second;
    };
    for (std::size_t i = 0; i < p.threads.size(); ++i) {
        out << "<rect class=\"lane\" x=\"0\" y=\"" << Fixed(tops[i]) << "\" width=\"" << kWidth << "\" height=\""
            << Fixed(LaneHeight(p.threads[i])) << "\"/><text x=\"4\" y=\"" << Fixed(tops[i] + kMarkRow + 12)
            << "\">thread " << p.threads[i].id << "</text>\n";
    }
    for (const std::size_t i : part.scopes) {
        const TimelineScope& s = timeline.scopes[i];
        WriteScopeRect(s, scale, tops[laneOf(s.thread)], out);
    }
    for (const std::size_t i : part.failures) {
        const TimelineMark& m = timeline.marks[i];
        const std::size_t lane = laneOf(m.thread);
        WriteFailureMark(timeline, m, scale, tops[lane], LaneHeight(p.threads[lane]), out);
    }
    out << "</svg>\n";
}

void WriteTimeline(const Timeline& timeline, std::ostream& out)
{
    out << "<h2 id=\"timeline\">Timeline</h2>\n<p>Scopes per thread, nested by depth; red: a scope in which a "
           "failing result was traced (its own, or one passed on from a callee); a mark where each failing result "
           "arose, as the list above counts them; dashed: a scope never left. Hover for names and times. The "
           "clock has millisecond resolution: records of one millisecond are drawn 1 µs apart.</p>\n";
    // Each process's part in one pass over the lists, not one pass per process: a
    // trace that many processes appended to has thousands.
    std::map<unsigned, ProcessPart> parts;
    for (std::size_t i = 0; i < timeline.scopes.size(); ++i)
        parts[timeline.scopes[i].process].scopes.push_back(i);
    for (std::size_t i = 0; i < timeline.marks.size(); ++i)
        if (timeline.marks[i].kind == TimelineMarkKind::Failure && !timeline.marks[i].passedOn)
            parts[timeline.marks[i].process].failures.push_back(i);
    const ProcessPart none;
    for (const TimelineProcess& p : timeline.processes) {
        const auto it = parts.find(p.ordinal);
        WriteProcessTimeline(timeline, p, it == parts.end() ? none : it->second, out);
    }
}

// ---- the rest of the page -------------------------------------------------

void WriteHeaderFacts(const DecodedTrace& trace, std::ostream& out)
{
    out << "<h2 id=\"header\">File header</h2>\n<div class=\"header\">";
    for (const std::string& line : trace.header)
        out << Escaped(line) << '\n';
    out << "</div>\n";
}

struct ConversionFact {
    unsigned process;
    bool unfinished;
    bool failed;
    std::uint32_t code;
};

// Every CBaseConverter::Convert scope and the last failing result record traced
// directly in it (its own result, whether it arose there or was passed on; a user's
// failure without a result record is no result of the scope).
std::vector<ConversionFact> Conversions(const Timeline& timeline)
{
    std::map<std::size_t, std::uint32_t> lastFailure; // by scope
    for (const TimelineMark& m : timeline.marks)
        if (m.kind == TimelineMarkKind::Failure && m.user.empty() && m.scope >= 0)
            lastFailure[static_cast<std::size_t>(m.scope)] = m.code;
    std::vector<ConversionFact> facts;
    for (std::size_t i = 0; i < timeline.scopes.size(); ++i) {
        const TimelineScope& s = timeline.scopes[i];
        if (s.name != "CBaseConverter::Convert")
            continue;
        ConversionFact fact{s.process, s.unfinished, false, 0};
        const auto failure = lastFailure.find(i);
        if (failure != lastFailure.end()) {
            fact.failed = true;
            fact.code = failure->second;
        }
        facts.push_back(fact);
    }
    return facts;
}

} // namespace

std::string HtmlEscape(const std::string& text)
{
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        case '\n': out += c; break;
        default:
            if (c < 0x20 || c == 0x7F) {
                char buf[8];
                std::snprintf(buf, sizeof(buf), "\\x%02X", c);
                out += buf;
            } else if (c >= 0x80) {
                std::uint32_t codePoint = 0;
                const std::size_t n = Utf8Length(text, i, &codePoint);
                if (n == 0) {
                    AppendReplacement(out);
                    ++i;
                } else {
                    if (HiddenCodePoint(codePoint))
                        out += CodePointEscape(codePoint);
                    else
                        out.append(text, i, n);
                    i += n;
                }
                continue;
            } else {
                out += static_cast<char>(c);
            }
        }
        ++i;
    }
    return out;
}

void WriteVerdictSection(const TraceSummary& summary, const Timeline& timeline, std::ostream& out)
{
    const std::vector<ConversionFact> conversions = Conversions(timeline);
    // Users by their final state: the last run that converted them.
    std::map<std::string, const SummaryUser*> last;
    for (const SummaryUser& u : summary.users)
        last[u.sid] = &u;
    std::size_t moved = 0, withGaps = 0, keptEarlier = 0, unfinishedScopes = 0;
    for (const auto& entry : last) {
        moved += entry.second->moved();
        withGaps += entry.second->movedWithGaps();
    }
    for (const SummaryUser& u : summary.users)
        keptEarlier += !u.moved() && last[u.sid] != &u;
    for (const TimelineProcess& p : timeline.processes)
        unfinishedScopes += p.unfinishedScopes;
    std::map<unsigned, std::pair<std::size_t, std::size_t>> usersOf; // process: users, moved
    for (const SummaryUser& u : summary.users) {
        ++usersOf[u.process].first;
        usersOf[u.process].second += u.moved();
    }
    const std::size_t kept = last.size() - moved;
    const bool lastFailed = !conversions.empty() && (conversions.back().failed || conversions.back().unfinished);

    const char* cls = "ok";
    std::string headline = "Converted";
    if (conversions.empty()) {
        cls = "none";
        headline = "No conversion ran in this trace";
    } else if (lastFailed || kept) {
        cls = "bad";
        headline = "Conversion failed";
    } else if (withGaps) {
        cls = "warn";
        headline = "Converted, with gaps";
    } else if (keptEarlier || conversions.size() > 1) {
        cls = "warn";
        headline = "Converted, after an earlier run left users behind";
        if (!keptEarlier)
            headline = "Converted, in several runs";
    }
    out << "<section class=\"verdict " << cls << "\" id=\"verdict\">\n<h2>" << headline << "</h2>\n";
    // The verdict lines exactly as --summary opens with them.
    std::ostringstream verdicts;
    WriteVerdicts(ComputeVerdicts(summary), verdicts);
    out << "<pre class=\"verdict-lines\">" << Escaped(verdicts.str()) << "</pre>\n<ul>\n";
    for (const ConversionFact& c : conversions) {
        out << "<li>process " << c.process << ": Convert ";
        if (c.unfinished)
            out << "never ended: the process ended inside it (killed, or the file is cut)";
        else if (c.failed)
            out << "failed with " << Escaped(CodeWithName(c.code));
        else
            out << "returned without a failing result";
        const auto [users, usersMoved] = usersOf[c.process];
        if (users)
            out << "; " << usersMoved << " of " << Counted(users, "user") << " moved";
        out << "</li>\n";
    }
    if (!last.empty())
        out << "<li>users in the end: " << last.size() << ", " << moved << " moved"
            << (withGaps ? " (" + std::to_string(withGaps) + " with gaps)" : std::string()) << ", " << kept
            << " kept their old data</li>\n";
    out << "<li>failing results: " << FailingResults(summary) << "</li>\n";
    if (unfinishedScopes)
        out << "<li>scopes never left: " << unfinishedScopes << " (a process ended inside them)</li>\n";
    if (!timeline.complete)
        out << "<li class=\"damage\">the file is damaged: " << Escaped(timeline.damage)
            << "; the page shows what comes before</li>\n";
    out << "</ul>\n</section>\n";
}

void WriteHtmlReport(const DecodedTrace& trace, const TraceSummary& summary, const Timeline& timeline,
                     const std::string& name, std::ostream& out)
{
    out << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>Trace "
        << Escaped(name) << "</title>\n<style>" << kStyle << "</style>\n</head>\n<body>\n<h1>Trace report</h1>\n"
        << "<p class=\"file\">" << Escaped(name);
    if (!timeline.origin.empty())
        out << ", from " << Escaped(timeline.origin);
    out << ", " << Counted(timeline.processes.size(), "process", "processes");
    if (summary.onlyThread)
        out << "; <strong class=\"one-thread\">thread " << *summary.onlyThread
            << " only</strong>: the other threads' records are left out";
    out << "</p>\n";
    WriteVerdictSection(summary, timeline, out);
    WriteUsers(summary, out);
    WriteFailures(summary, out);
    WriteTimeline(timeline, out);
    WriteHeaderFacts(trace, out);
    out << "</body>\n</html>\n";
}

} // namespace nvtrace
