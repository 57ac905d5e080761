// Where nvdbconv's output goes: standard output and error as UTF-8, and the printer
// that sends a command's output to text lines, one JSON document or nowhere.
#pragma once
#include <memory>
#include <string>

#include "cli.h"
#include "format.h"
#include "json.h"

namespace nvdbconv {

// Whether standard output is a terminal (a console, or a character device).
bool StdoutIsTerminal();

// UTF-8 bytes to standard output or error, written as they stand and flushed.
void WriteOut(const std::string& utf8);
void WriteErr(const std::string& utf8);

// Where the command's output goes: text lines, or one JSON document, or nothing.
class Printer {
public:
    explicit Printer(const Options& options);
    ~Printer();
    Printer(const Printer&) = delete;
    Printer& operator=(const Printer&) = delete;

    bool text() const { return !m_options.json && !m_options.quiet; }
    void Line(const std::string& line) const
    {
        if (text())
            WriteOut(line + "\n");
    }
    void Row(const char* label, const std::string& value) const { Line(Fmt("  %-15s %s", label, value.c_str())); }
    // A failure or refusal: on standard error in text and quiet mode (JSON carries it).
    void Problem(const std::string& text) const
    {
        if (!m_options.json)
            WriteErr("nvdbconv: " + text + "\n");
    }
    // Something to know that changes no result: on standard error in every mode.
    void Warning(const std::string& text) const { WriteErr("nvdbconv: warning: " + text + "\n"); }
    void Finish();

private:
    const Options& m_options;
    // Held by pointer so that this header needs only the JSON library's declarations.
    std::unique_ptr<Json> m_document;

public:
    // The command's document; Header starts it, Finish prints it.
    Json& json;
};

// The first line of a command's output and the JSON document's opening; Finish
// closes the document with the exit code, prints it and returns the code.
void Header(Printer& out, const char* command);
int Finish(Printer& out, int exitCode);

} // namespace nvdbconv
