#include "result_codes.h"

#include <cstdio>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "common/handles.h"
#include "frame/conversionlock.h"

namespace nvdbconv {

namespace {

struct KnownCode {
    HRESULT hr;
    const char* name;
};

const KnownCode kKnownCodes[] = {
    {S_OK, "S_OK"},
    {S_FALSE, "S_FALSE"},
    {E_FAIL, "E_FAIL"},
    {E_UNEXPECTED, "E_UNEXPECTED"},
    {E_INVALIDARG, "E_INVALIDARG"},
    {E_OUTOFMEMORY, "E_OUTOFMEMORY"},
    {E_POINTER, "E_POINTER"},
    {E_NOTIMPL, "E_NOTIMPL"},
    {E_NOINTERFACE, "E_NOINTERFACE"},
    {E_ACCESSDENIED, "E_ACCESSDENIED"},
    {REGDB_E_CLASSNOTREG, "REGDB_E_CLASSNOTREG"},
    {CO_E_NOTINITIALIZED, "CO_E_NOTINITIALIZED"},
    {HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), "HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)"},
    {HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), "HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND)"},
    {HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED), "HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED)"},
    {HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), "HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)"},
    {HRESULT_FROM_WIN32(ERROR_INVALID_DATA), "HRESULT_FROM_WIN32(ERROR_INVALID_DATA)"},
    {HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), "HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)"},
    {HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND), "HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND)"},
    {HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT), "HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT)"},
    {HRESULT_FROM_WIN32(ERROR_NOT_FOUND), "HRESULT_FROM_WIN32(ERROR_NOT_FOUND)"},
    {nvframe::NV_E_CONVERSION_BUSY, "NV_E_CONVERSION_BUSY"},
};

std::string Trimmed(const std::wstring& text)
{
    size_t end = text.size();
    while (end > 0 && (text[end - 1] == L'\r' || text[end - 1] == L'\n' || text[end - 1] == L' '))
        --end;
    return ToUtf8(text.substr(0, end));
}

std::string FormatFromSystem(DWORD code)
{
    wchar_t* raw = nullptr;
    const DWORD n = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                         FORMAT_MESSAGE_IGNORE_INSERTS,
                                     nullptr, code, 0, reinterpret_cast<wchar_t*>(&raw), 0, nullptr);
    nv::unique_hlocal owner(raw);
    if (n == 0 || raw == nullptr)
        return std::string();
    return Trimmed(std::wstring(raw, n));
}

} // namespace

std::string HexCode(HRESULT hr)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%08lX", static_cast<unsigned long>(hr));
    return buf;
}

std::string SymbolOf(HRESULT hr)
{
    for (const KnownCode& known : kKnownCodes)
        if (known.hr == hr)
            return known.name;
    return std::string();
}

std::string SystemMessage(HRESULT hr)
{
    if (hr == S_FALSE)
        return std::string();
    std::string text = FormatFromSystem(static_cast<DWORD>(hr));
    if (text.empty() && HRESULT_FACILITY(hr) == FACILITY_WIN32)
        text = FormatFromSystem(static_cast<DWORD>(HRESULT_CODE(hr)));
    return text;
}

std::string ResultMessage(HRESULT hr, const char* call)
{
    if (hr == nvframe::NV_E_CONVERSION_BUSY)
        return "another process is converting, rolling back or cleaning up the database (or did so while "
               "this one waited); nothing was changed. Let it finish, then run \"nvdbconv status\" and this "
               "step again";
    if (hr != S_FALSE)
        return SystemMessage(hr);
    const std::string name = call ? call : "";
    if (name == "Cleanup")
        return "no backup to remove";
    if (name == "Rollback")
        return "no backup to restore";
    return "success, nothing to do";
}

std::string DescribeResult(HRESULT hr, const char* call)
{
    std::string line = HexCode(hr);
    const std::string symbol = SymbolOf(hr);
    if (!symbol.empty())
        line += " " + symbol;
    const std::string message = ResultMessage(hr, call);
    line += message.empty() ? std::string(" (no system message)") : " \"" + message + "\"";
    return line;
}

Json ResultJson(HRESULT hr, const char* call)
{
    const std::string symbol = SymbolOf(hr);
    return Json{{"hr", HexCode(hr)},
                {"code", static_cast<long>(hr)},
                {"symbol", symbol.empty() ? Json(nullptr) : Json(symbol)},
                {"message", ResultMessage(hr, call)},
                {"ok", SUCCEEDED(hr)}};
}

std::optional<HRESULT> ResultFromJson(const Json& result)
{
    if (!result.is_object() || !result.contains("hr") || !result["hr"].is_string())
        return std::nullopt;
    const std::string hex = result["hr"].get<std::string>();
    if (hex.size() != 10 || hex.compare(0, 2, "0x") != 0)
        return std::nullopt;
    char* end = nullptr;
    const unsigned long v = std::strtoul(hex.c_str() + 2, &end, 16);
    if (end != hex.c_str() + hex.size())
        return std::nullopt;
    return static_cast<HRESULT>(v);
}

bool ConvertMadeNoBackup(HRESULT hr)
{
    return hr == nvframe::NV_E_CONVERSION_BUSY || hr == E_FAIL || hr == E_ACCESSDENIED;
}

} // namespace nvdbconv
