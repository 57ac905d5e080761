#include "chrome_trace.h"

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "counted.h"
#include "summary.h"

namespace nvtrace {

namespace {

using Json = nlohmann::ordered_json;

Json ProcessMetadata(const char* what, unsigned pid, Json args)
{
    return Json{{"ph", "M"}, {"name", what}, {"pid", pid}, {"args", std::move(args)}};
}

std::string ProcessName(const TimelineProcess& p)
{
    std::string name = "process " + std::to_string(p.ordinal);
    if (!p.started.empty())
        name += ", started " + p.started;
    if (p.unfinishedScopes)
        name += " (ended inside " + Counted(p.unfinishedScopes, "scope") + ")";
    return name;
}

Json ScopeEvent(const TimelineScope& s)
{
    Json args{{"depth", s.depth}, {"offset", s.offset}, {"unfinished", s.unfinished}};
    if (s.unfinished)
        args["note"] = "never left: the process ended or the file was cut inside it; it ends at the process's last record";
    if (s.failures)
        args["failures"] = s.failures;
    return Json{{"ph", "X"}, {"cat", s.unfinished ? "scope,unfinished" : "scope"}, {"name", s.name},
                {"pid", s.process}, {"tid", s.thread}, {"ts", s.beginUs}, {"dur", s.endUs - s.beginUs},
                {"args", std::move(args)}};
}

Json MarkEvent(const Timeline& timeline, const TimelineMark& m)
{
    Json event{{"ph", "i"}, {"s", "t"}, {"pid", m.process}, {"tid", m.thread}, {"ts", m.atUs}};
    if (m.kind == TimelineMarkKind::Failure) {
        // A result that only passes on a callee's failure has a category of its own:
        // the "failure" events are the failing results as the summary counts them.
        const CodeText described = DescribeCode(m.code);
        const std::string hex = HexCode(m.code);
        event["cat"] = m.passedOn ? "passed-on" : "failure";
        event["name"] =
            (described.name.empty() ? hex : hex + " " + described.name) + (m.passedOn ? " (passed on)" : "");
        event["args"] = Json{{"code", hex},
                             {"name", described.name.empty() ? Json() : Json(described.name)},
                             {"message", described.message.empty() ? Json() : Json(described.message)},
                             {"text", m.text},
                             {"scope", ScopePath(timeline, m.scope)},
                             {"offset", m.offset}};
        if (!m.user.empty())
            event["args"]["user"] = m.user;
    } else {
        event["cat"] = "line";
        event["name"] = m.text;
        event["args"] = Json{{"scope", ScopePath(timeline, m.scope)}, {"offset", m.offset}};
    }
    return event;
}

} // namespace

void WriteChromeTrace(const DecodedTrace& trace, const Timeline& timeline, std::ostream& out)
{
    // Trace text is whatever the file holds: bytes that are no UTF-8 become U+FFFD
    // instead of failing the whole output.
    auto write = [&out](const Json& value) { out << value.dump(-1, ' ', false, Json::error_handler_t::replace); };
    // The document is written event by event, as one dump of it would read: a long
    // trace has hundreds of thousands of events, and a document built whole in memory
    // took some forty times the trace's size.
    bool first = true;
    auto event = [&](const Json& e) {
        out << (first ? "" : ",");
        first = false;
        write(e);
    };
    out << "{\"traceEvents\":[";
    for (const TimelineProcess& p : timeline.processes) {
        event(ProcessMetadata("process_name", p.ordinal, Json{{"name", ProcessName(p)}}));
        event(ProcessMetadata("process_sort_index", p.ordinal, Json{{"sort_index", p.ordinal}}));
        for (const TimelineThread& t : p.threads)
            event(Json{{"ph", "M"}, {"name", "thread_name"}, {"pid", p.ordinal}, {"tid", t.id},
                       {"args", Json{{"name", "thread " + std::to_string(t.id)}}}});
    }
    for (const TimelineScope& s : timeline.scopes)
        event(ScopeEvent(s));
    for (const TimelineMark& m : timeline.marks)
        event(MarkEvent(timeline, m));

    // The viewers show otherData as metadata strings.
    std::string header;
    for (const std::string& line : trace.header)
        header += (header.empty() ? "" : "\n") + line;
    Json other{{"origin", timeline.origin}, {"header", header}, {"complete", timeline.complete ? "yes" : "no"}};
    if (!timeline.complete)
        other["damage"] = timeline.damage;
    out << "],\"displayTimeUnit\":\"ms\",\"otherData\":";
    write(other);
    out << "}\n";
}

} // namespace nvtrace
