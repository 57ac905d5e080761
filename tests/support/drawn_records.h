// Secrets and templates of 2.0 users drawn from a test's own random generator.
#pragma once
#include <windows.h>
#include <vector>

#include "writer/db20_writer.h"

namespace nvtest {

// The combined logon secret: its GUIDs, a version of 1 to `versions`, a password of
// `shortest` to `shortest + spread - 1` characters and a PIN of 11 to 14 digits (long
// enough that no number a trace writes can contain one by chance), drawn from `gen`
// (Guid, Below and Chars) in that order.
template <class Gen>
nvwriter::Db20Secret DrawLogonSecret(Gen& gen, unsigned versions, unsigned shortest, unsigned spread)
{
    nvwriter::Db20Secret logon;
    logon.valueName = logon.name = nvwriter::kDb20LogonInfoSecret;
    logon.headerGuid = gen.Guid();
    logon.guid = gen.Guid();
    logon.combined = true;
    logon.combinedVersion = 1 + gen.Below(versions);
    logon.hasPassword = true;
    logon.password = gen.Chars(shortest + gen.Below(spread), L"abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789!#%+-_");
    logon.hasPin = true;
    logon.pin = gen.Chars(11 + gen.Below(4), L"0123456789");
    logon.content = nvwriter::EncodeDb20CombinedSecret(logon);
    return logon;
}

// A template at each position set in `mask`, ascending: format, flags, GUIDs, data of
// `shortest` to `shortest + spread - 1` bytes and header value, drawn from `gen` in
// that order.
template <class Gen>
std::vector<nvwriter::Db20Template> DrawTemplates(Gen& gen, DWORD mask, unsigned shortest, unsigned spread)
{
    std::vector<nvwriter::Db20Template> templates;
    for (unsigned bit = 0; bit < 32; ++bit) {
        if (!(mask & (1u << bit)))
            continue;
        nvwriter::Db20Template t;
        t.position = bit;
        t.format = 1 + gen.Below(2);
        t.flags = gen.Below(4);
        t.type = gen.Guid();
        t.owner = gen.Guid();
        t.data = gen.Bytes(shortest + gen.Below(spread));
        t.size = static_cast<DWORD>(t.data.size());
        t.headerValue = static_cast<LONG>(gen.Below(101));
        templates.push_back(std::move(t));
    }
    return templates;
}

} // namespace nvtest
