#include "console.h"

#include <windows.h>
#include <io.h>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace nvdbconv {

bool StdoutIsTerminal()
{
    DWORD mode = 0;
    if (::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode))
        return true;
    return _isatty(_fileno(stdout)) != 0;
}

void WriteOut(const std::string& utf8)
{
    std::fwrite(utf8.data(), 1, utf8.size(), stdout);
    std::fflush(stdout);
}

void WriteErr(const std::string& utf8)
{
    std::fwrite(utf8.data(), 1, utf8.size(), stderr);
    std::fflush(stderr);
}

Printer::Printer(const Options& options)
    : m_options(options), m_document(std::make_unique<Json>(Json::object())), json(*m_document)
{
}

Printer::~Printer() = default;

void Printer::Finish()
{
    if (m_options.json && !m_options.quiet)
        WriteOut(JsonText(json) + "\n");
}

void Header(Printer& out, const char* command)
{
    out.Line(Fmt("nvdbconv %s", command));
    out.json = {{"tool", "nvdbconv"}, {"command", command}};
}

int Finish(Printer& out, int exitCode)
{
    out.json["exitCode"] = exitCode;
    out.Finish();
    return exitCode;
}

} // namespace nvdbconv
