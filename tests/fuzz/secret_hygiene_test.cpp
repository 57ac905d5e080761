// Secret hygiene of a 2.0 to 3.0 conversion: users whose passwords, PINs and secret
// contents are known are converted, by hygiene_probe (its own process, which loads
// the library the way an installer does and is never told the secrets in plain
// form). Afterwards no secret may be found
//   - in the trace file, raw or decoded, at verbosity 0 and at verbosity 10;
//   - in any registry value of HKLM\SOFTWARE, in either view;
//   - in any block of the probe's memory that the library allocated, right after
//     Convert returned (searched as UTF-16LE and as the big-endian BMPString form
//     of the DER strings; secret contents as their raw bytes).
// Hits in memory that other modules allocated (the store, the crypto provider,
// COM) are listed in the test's output with their owner; they are not the
// library's to clear.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "writer/db20_writer.h"

using namespace nvtest;

namespace {

constexpr unsigned char kMask = 0x5A; // as hygiene_probe reads its pattern file

struct Pattern {
    std::string label;
    std::vector<BYTE> bytes;
};

std::vector<BYTE> Utf16Le(const std::wstring& s)
{
    std::vector<BYTE> b;
    for (wchar_t c : s) {
        b.push_back(static_cast<BYTE>(c));
        b.push_back(static_cast<BYTE>(c >> 8));
    }
    return b;
}

std::vector<BYTE> Utf16Be(const std::wstring& s)
{
    std::vector<BYTE> b;
    for (wchar_t c : s) {
        b.push_back(static_cast<BYTE>(c >> 8));
        b.push_back(static_cast<BYTE>(c));
    }
    return b;
}

std::vector<BYTE> Utf8(const std::wstring& s)
{
    const std::string n = Narrow(s);
    return std::vector<BYTE>(n.begin(), n.end());
}

std::string HexText(const std::vector<BYTE>& b, bool upper)
{
    std::string out;
    char two[3];
    for (BYTE c : b) {
        std::snprintf(two, sizeof(two), upper ? "%02X" : "%02x", c);
        out += two;
    }
    return out;
}

bool Contains(const std::vector<BYTE>& haystack, const std::vector<BYTE>& needle)
{
    return !needle.empty() && std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end()) != haystack.end();
}

class SecretHygieneTest : public Db20ConversionTest {
protected:
    // A database whose every user has a password, a PIN and plain secrets with
    // contents that occur nowhere else.
    nvwriter::Db20Database KnownDatabase(std::uint32_t seed)
    {
        nvwriter::Db20Database db = MakeDatabase(3, seed);
        for (std::size_t u = 0; u < db.users.size(); ++u) {
            nvwriter::Db20User& user = db.users[u];
            auto logon = std::find_if(user.secrets.begin(), user.secrets.end(), [](const nvwriter::Db20Secret& s) {
                return s.valueName == nvwriter::kDb20LogonInfoSecret;
            });
            if (logon == user.secrets.end()) {
                nvwriter::Db20Secret s;
                s.valueName = s.name = nvwriter::kDb20LogonInfoSecret;
                s.guid = GUID{0x51A1E000u + static_cast<DWORD>(u), 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
                s.combined = true;
                user.secrets.push_back(s);
                logon = user.secrets.end() - 1;
            }
            logon->combinedVersion = 1;
            logon->hasPassword = logon->hasPin = true;
            logon->password = L"Hy9iene-Pw-" + std::to_wstring(seed) + L"-" + std::to_wstring(u) + L"-qZ!";
            logon->pin = L"90" + std::to_wstring(seed % 100) + L"4" + std::to_wstring(u) + L"71";
            logon->content = nvwriter::EncodeDb20CombinedSecret(*logon);
            m_texts.push_back(logon->password);
            m_texts.push_back(logon->pin);
            int k = 0;
            for (nvwriter::Db20Secret& s : user.secrets) {
                if (s.combined)
                    continue;
                const std::string text = "Hy9iene-Content-" + std::to_string(seed) + "-" + std::to_string(u) + "-" +
                                         std::to_string(k++) + "-x7Qv";
                s.content.assign(text.begin(), text.end());
                m_contents.push_back(s.content);
            }
        }
        for (std::size_t i = 0; i < m_texts.size(); ++i) {
            m_patterns.push_back({"text" + std::to_string(i) + "-utf16le", Utf16Le(m_texts[i])});
            m_patterns.push_back({"text" + std::to_string(i) + "-utf16be", Utf16Be(m_texts[i])});
        }
        for (std::size_t i = 0; i < m_contents.size(); ++i)
            m_patterns.push_back({"content" + std::to_string(i) + "-raw", m_contents[i]});
        // What the probe plants itself: the search must find both.
        m_patterns.push_back({"control-live-utf16le", Utf16Le(L"Hy9iene-Control-Live-" + std::to_wstring(seed))});
        m_patterns.push_back({"control-freed-utf16le", Utf16Le(L"Hy9iene-Control-Freed-" + std::to_wstring(seed))});
        return db;
    }

    // Runs the probe; the lines of its report.
    std::vector<std::string> Probe()
    {
        wchar_t tmp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, tmp);
        const std::wstring base = std::wstring(tmp) + L"nv_hygiene_" + std::to_wstring(::GetCurrentProcessId());
        const std::wstring patternFile = base + L".patterns", reportFile = base + L".report";
        {
            std::ofstream out(patternFile.c_str());
            for (const Pattern& p : m_patterns) {
                std::vector<BYTE> masked = p.bytes;
                for (BYTE& b : masked)
                    b ^= kMask;
                out << p.label << ' ' << HexText(masked, false) << '\n';
            }
        }
        const ProcessRun run = RunProcess(QuoteArg(ExeDirectory() + L"hygiene_probe.exe") + L" " +
                                              QuoteArg(patternFile) + L" " + QuoteArg(reportFile),
                                          180000);
        EXPECT_TRUE(run.started);
        EXPECT_FALSE(run.timedOut);
        EXPECT_EQ(0u, run.exitCode) << run.err;
        std::vector<std::string> lines;
        std::ifstream in(reportFile.c_str());
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        ::DeleteFileW(patternFile.c_str());
        ::DeleteFileW(reportFile.c_str());
        return lines;
    }

    void CheckMemory(const std::vector<std::string>& report)
    {
        ASSERT_FALSE(report.empty());
        EXPECT_EQ("convert 0x00000000", report.back());
        std::map<std::string, int> byOwner;
        bool scanned = false, liveControl = false, freedControl = false;
        for (const std::string& line : report) {
            std::cout << "    probe: " << line << "\n";
            scanned |= line.rfind("scanned ", 0) == 0;
            if (line.rfind("hit ", 0) != 0)
                continue;
            std::istringstream fields(line);
            std::string hit, label, at, address, ownerWord, owner;
            fields >> hit >> label >> at >> address >> ownerWord >> owner;
            if (label.rfind("control-", 0) == 0) {
                liveControl |= label.rfind("control-live", 0) == 0;
                freedControl |= label.rfind("control-freed", 0) == 0;
                continue;
            }
            ++byOwner[owner];
            EXPECT_NE("NVDBConv.dll", owner) << "a secret left in memory the library allocated: " << line;
        }
        EXPECT_TRUE(scanned);
        EXPECT_TRUE(liveControl) << "the search did not find the pattern planted in a live heap block";
        EXPECT_TRUE(freedControl) << "the search did not find the pattern planted in a freed heap block";
        for (const auto& [owner, n] : byOwner)
            std::cout << "    hits in memory of " << owner << ": " << n << "\n";
    }

    void CheckRegistry()
    {
        for (REGSAM view : {kView32, kView64}) {
            const RegTree tree = Snapshot(L"SOFTWARE", view);
            ASSERT_TRUE(tree.exists);
            for (const auto& [where, value] : tree.values) {
                for (const std::wstring& t : m_texts) {
                    EXPECT_FALSE(Contains(value.data, Utf16Le(t))) << Narrow(where);
                    EXPECT_FALSE(Contains(value.data, Utf16Be(t))) << Narrow(where);
                    EXPECT_FALSE(Contains(value.data, Utf8(t))) << Narrow(where);
                }
                for (const std::vector<BYTE>& c : m_contents)
                    EXPECT_FALSE(Contains(value.data, c)) << Narrow(where);
            }
        }
    }

    void CheckTrace()
    {
        ExpectNoneInTrace(trace, m_texts);
        std::vector<BYTE> texts;
        for (const nvtrace::Record& r : trace.Records())
            texts.insert(texts.end(), r.text.begin(), r.text.end());
        const std::vector<std::uint8_t> raw = trace.Bytes();
        const std::vector<BYTE> rawBytes(raw.begin(), raw.end());
        for (const std::vector<BYTE>& c : m_contents) {
            EXPECT_FALSE(Contains(rawBytes, c));
            EXPECT_FALSE(Contains(texts, c));
            for (bool upper : {false, true}) {
                const std::string hex = HexText(c, upper);
                EXPECT_FALSE(Contains(texts, std::vector<BYTE>(hex.begin(), hex.end())));
            }
        }
        for (const std::wstring& t : m_texts) {
            for (bool upper : {false, true}) {
                const std::string le = HexText(Utf16Le(t), upper), be = HexText(Utf16Be(t), upper);
                EXPECT_FALSE(Contains(texts, std::vector<BYTE>(le.begin(), le.end())));
                EXPECT_FALSE(Contains(texts, std::vector<BYTE>(be.begin(), be.end())));
            }
        }
    }

    void ConvertAndCheck(DWORD verbosity, std::uint32_t seed)
    {
        trace.SetVerbosity(verbosity);
        const nvwriter::Db20Database db = KnownDatabase(seed);
        WriteDatabase(db);
        const std::vector<std::string> report = Probe();
        // Every user really went through the conversion.
        for (const nvwriter::Db20User& user : db.users)
            EXPECT_FALSE(KeyExists(UserKeyPath(user.guid).c_str(), kView32)) << Narrow(user.sidText);
        EXPECT_TRUE(trace.Contains("> CConverter3::do_Convert")) << trace.Dump();
        CheckMemory(report);
        CheckRegistry();
        CheckTrace();
    }

    std::vector<std::wstring> m_texts;
    std::vector<std::vector<BYTE>> m_contents;
    std::vector<Pattern> m_patterns;
};

} // namespace

TEST_F(SecretHygieneTest, NoSecretLeftBehindAtVerbosityZero) { ConvertAndCheck(0, 41); }

TEST_F(SecretHygieneTest, NoSecretLeftBehindAtVerbosityTen) { ConvertAndCheck(10, 42); }
