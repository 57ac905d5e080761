#include "json.h"

#include <cstdio>
#include <cstdlib>

#include <nlohmann/json.hpp>

namespace nvdbconv {

std::string ToUtf8(const std::wstring& text)
{
    if (text.empty())
        return std::string();
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                        nullptr);
    std::string out(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0)
        ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
    return out;
}

Json OrNull(const std::optional<std::wstring>& text) { return text ? Json(ToUtf8(*text)) : Json(nullptr); }

Json OrNull(const std::optional<DWORD>& value) { return value ? Json(*value) : Json(nullptr); }

Json Rounded(double value, int decimals)
{
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%.*f", decimals, value);
    return Json(std::strtod(buf, nullptr));
}

std::string JsonText(const Json& document) { return document.dump(-1, ' ', false, Json::error_handler_t::replace); }

} // namespace nvdbconv
