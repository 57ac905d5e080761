// nvtrace --summary and --json: the processes and threads of a trace, its failing
// results with their scope paths, the users of a 2.0 -> 3.0 conversion, the slowest
// scopes, and the records as JSON lines.
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "nvtracelib.h"
#include "sample_trace.h"
#include "summary.h"

using nvtrace_test::SampleTrace;

namespace {

// Two processes (the second after an 'N' record): the first converts two users, one
// of whom fails to open in the store; the second fails its backup.
SampleTrace TwoProcesses()
{
    const std::string first = "S-1-5-21-1-2-3-1001", second = "S-1-5-21-1-2-3-1002";
    SampleTrace s;
    s.ConversionStarts(7).UserBegins(7, first).Add(7, 'T', "09:30:00.250").OldKeyDeleted(7, first);
    s.UserEnds(7, first, "0x00000000").UserBegins(7, second).Add(7, 'E', "-2147467261 ");
    s.UserEnds(7, second, "0x80004003").Add(7, 'T', "09:30:01.125").Add(7, '<').Add(7, '<');
    s.Add(9, 'U', "a second thread");
    return s.NextProcessFailsItsBackup(12);
}

std::string SummaryText(const SampleTrace& sample)
{
    std::ostringstream out;
    nvtrace::WriteSummary(nvtrace::Summarize(nvtrace::Decode(sample.bytes())), out);
    return out.str();
}


// A process that loads the library, reads the version and unloads: what every
// status query leaves in an appended file.
void LoadOnly(SampleTrace& s, std::uint32_t thread, const char* version)
{
    s.Add(thread, '>', "CDBConverter::FinalConstruct").Add(thread, 'U', std::string("wszVersion = ") + version)
        .Add(thread, '<');
}

// The verdict lines alone: the summary up to its first blank line.
std::string VerdictText(const SampleTrace& s)
{
    const std::string text = SummaryText(s);
    return text.substr(0, text.find("\n\n") + 1);
}

} // namespace

TEST(NvtraceSummaryTest, ProcessesThreadsFailuresUsersAndScopes)
{
    const nvtrace::TraceSummary s = nvtrace::Summarize(nvtrace::Decode(TwoProcesses().bytes()));
    ASSERT_EQ(2u, s.processes.size());
    EXPECT_EQ("2026-11-15 09:30:00.125", s.processes[0].started);
    ASSERT_EQ(2u, s.processes[0].threads.size());
    EXPECT_EQ(7u, s.processes[0].threads[0].id);
    EXPECT_EQ(9u, s.processes[0].threads[1].id);
    EXPECT_EQ(1u, s.processes[0].threads[1].records);
    EXPECT_EQ("2026-11-15 10:00:00.000", s.processes[1].started);
    ASSERT_EQ(1u, s.processes[1].threads.size());
    EXPECT_EQ(12u, s.processes[1].threads[0].id);

    // The backup's failure arose once, in CopyKey; Backup and Convert passed it on.
    ASSERT_EQ(2u, s.failures.size());
    EXPECT_EQ("CBaseConverter::Convert > CConverter3::do_Convert", s.failures[0].path);
    EXPECT_EQ(static_cast<std::int32_t>(0x80004003u), s.failures[0].code);
    EXPECT_EQ(1u, s.failures[0].process);
    EXPECT_EQ(0u, s.failures[0].passedUp);
    EXPECT_EQ("CBaseConverter::Convert > CBaseConverter::Backup > CBaseConverter::CopyKey", s.failures[1].path);
    EXPECT_EQ(2u, s.failures[1].passedUp);
    EXPECT_EQ("CBaseConverter::Convert", s.failures[1].reached);
    EXPECT_EQ(2u, s.failures[1].process);
    EXPECT_EQ(1u, s.failures[1].count);

    ASSERT_EQ(2u, s.users.size());
    EXPECT_EQ("S-1-5-21-1-2-3-1001", s.users[0].sid);
    EXPECT_TRUE(s.users[0].moved());
    EXPECT_EQ("S-1-5-21-1-2-3-1002", s.users[1].sid);
    EXPECT_FALSE(s.users[1].moved());
    EXPECT_TRUE(s.users[1].over);
    EXPECT_EQ(0x80004003u, s.users[1].status);

    ASSERT_EQ(2u, s.conversions.size());
    EXPECT_EQ("2.0 -> 3.0", s.conversions[0].step);
    EXPECT_FALSE(s.conversions[0].failed);
    EXPECT_EQ("", s.conversions[1].step);
    EXPECT_TRUE(s.conversions[1].failed);
    EXPECT_EQ(0x80070008u, s.conversions[1].result);

    // Convert ran 1000 ms in the first process and 40 ms in the second.
    ASSERT_GE(s.scopes.size(), 4u);
    EXPECT_EQ("CBaseConverter::Convert", s.scopes[0].name);
    EXPECT_EQ(1040u, s.scopes[0].totalMs);
    EXPECT_EQ(1000u, s.scopes[0].longestMs);
    EXPECT_EQ(2u, s.scopes[0].calls);
    EXPECT_EQ("CConverter3::do_Convert", s.scopes[1].name);
    EXPECT_EQ(1000u, s.scopes[1].totalMs);
    EXPECT_EQ(0u, s.unclosedScopes);
}

TEST(NvtraceSummaryTest, TextOpensWithTheVerdictNamesCodesAndTellsEachUsersOutcome)
{
    EXPECT_EQ("verdict: process 1, 2026-11-15 09:30:00.125: 2.0 -> 3.0, default policy, 2 users: 1 moved, 0 moved "
              "with gaps, 0 held, 1 failed\n"
              "  S-1-5-21-1-2-3-1002  failed: 0x80004003 E_POINTER \"Invalid pointer (for a user: the storage server "
              "could not be created)\"\n"
              "verdict: process 2, 2026-11-15 10:00:00.000: no format step ran; the conversion failed: 0x80070008 "
              "HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY) \"Not enough storage (an empty registry value the backup "
              "refuses)\" in CBaseConverter::Convert > CBaseConverter::Backup > CBaseConverter::CopyKey\n"
              "\n"
              "processes: 2\n"
              "  process 1, started 2026-11-15 09:30:00.125, ran Convert, threads: 7 (10 records) 9 (1 record)\n"
              "  process 2, started 2026-11-15 10:00:00.000, ran Convert, threads: 12 (9 records)\n"
              "\n"
              "failing results: 2 (each counted where it arose)\n"
              "  0x80004003 E_POINTER \"Invalid pointer (for a user: the storage server could not be created)\"\n"
              "    in CBaseConverter::Convert > CConverter3::do_Convert\n"
              "    process 1, thread 7\n"
              "  0x80070008 HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY) \"Not enough storage (an empty registry value "
              "the backup refuses)\"\n"
              "    in CBaseConverter::Convert > CBaseConverter::Backup > CBaseConverter::CopyKey\n"
              "    process 2, thread 12, passed up 2 scopes to CBaseConverter::Convert\n"
              "\n"
              "users (2.0 -> 3.0): 2, 1 moved, 1 kept their old data\n"
              "  SID                  status      outcome\n"
              "  S-1-5-21-1-2-3-1001  0x00000000  moved (process 1)\n"
              "  S-1-5-21-1-2-3-1002  0x80004003  kept its old data: E_POINTER \"Invalid pointer (for a user: the "
              "storage server could not be created)\" (process 1)\n"
              "\n"
              "slowest scopes (total time):\n"
              "      1040 ms       2 calls  longest 1000 ms  CBaseConverter::Convert\n"
              "      1000 ms       1 call   longest 1000 ms  CConverter3::do_Convert\n"
              "         0 ms       1 call   longest 0 ms  CBaseConverter::CopyKey\n"
              "         0 ms       1 call   longest 0 ms  CBaseConverter::Backup\n",
              SummaryText(TwoProcesses()));
}

// A user moved under the default policy without its password secret, one held by
// the strict policy, and one moved whole: the summary names what is missing.
TEST(NvtraceSummaryTest, UsersMovedWithGapsAndHeldUsersAreNamedWithWhatIsMissing)
{
    SampleTrace s;
    s.Add(4, '>', "CConverter3::do_Convert").UserBegins(4, "S-1-5-21-9-1001");
    s.Add(4, 'U', "Incomplete user 'S-1-5-21-9-1001' moved with gaps: secret not stored 'LogonInfo' (0x80004005)");
    s.OldKeyDeleted(4, "S-1-5-21-9-1001").UserEnds(4, "S-1-5-21-9-1001", "0x00000000");
    s.UserBegins(4, "S-1-5-21-9-1002");
    s.Add(4, 'U', "Incomplete user 'S-1-5-21-9-1002' keeps its old key: template malformed at position 1");
    s.UserEnds(4, "S-1-5-21-9-1002", "0x80040201").UserMoved(4, "S-1-5-21-9-1003").Add(4, '<');
    const nvtrace::TraceSummary summary = nvtrace::Summarize(nvtrace::Decode(s.bytes()));
    ASSERT_EQ(3u, summary.users.size());
    EXPECT_TRUE(summary.users[0].movedWithGaps());
    EXPECT_EQ("secret not stored 'LogonInfo' (0x80004005)", summary.users[0].gaps);
    EXPECT_FALSE(summary.users[1].moved());
    EXPECT_EQ("template malformed at position 1", summary.users[1].heldFor);
    EXPECT_TRUE(summary.users[2].moved());
    EXPECT_FALSE(summary.users[2].movedWithGaps());

    EXPECT_EQ("verdict: process 1, 2026-11-15 09:30:00.125: 2.0 -> 3.0, default policy, 3 users: 1 moved, 1 moved "
              "with gaps, 1 held, 0 failed\n"
              "  S-1-5-21-9-1001  moved with gaps; missing: secret not stored 'LogonInfo' (0x80004005)\n"
              "  S-1-5-21-9-1002  held: 0x80040201 NV_E_USER_INCOMPLETE \"Not all of the user reached the store; the "
              "strict policy kept its old data\"; missing: template malformed at position 1\n",
              VerdictText(s));
    const std::string text = SummaryText(s);
    EXPECT_NE(std::string::npos,
              text.find("users (2.0 -> 3.0): 3, 2 moved (1 with gaps), 1 kept their old data\n"
                        "  SID              status      outcome\n"
                        "  S-1-5-21-9-1001  0x00000000  moved with gaps: secret not stored 'LogonInfo' (0x80004005)\n"
                        "  S-1-5-21-9-1002  0x80040201  kept its old data: template malformed at position 1\n"
                        "  S-1-5-21-9-1003  0x00000000  moved\n"))
        << text;
}


// Under the strict policy one user is held for what is missing, one fails with a
// code no result record carries (the per-user guard caught it), one moves: the
// verdict names the policy, both users with code, name and message, and the
// failures are counted once each.
TEST(NvtraceVerdictTest, StrictPolicyHeldAndFailedUsersWithTheirCodes)
{
    SampleTrace s;
    s.Add(4, 't', "11/25/26").Add(4, 'T', "08:00:00.000");
    LoadOnly(s, 4, "2.0");
    s.Add(4, '>', "CBaseConverter::Convert").Add(4, '>', "CConverter3::do_Convert");
    s.Add(4, 'U', "Conversion policy: strict").UserBegins(4, "S-1-5-21-7-1001");
    s.Add(4, 'U', "Incomplete user 'S-1-5-21-7-1001' keeps its old key: secret not stored 'SystemLogonInfo' "
                  "(0x80090005)");
    s.UserEnds(4, "S-1-5-21-7-1001", "0x80040201");
    s.UserBegins(4, "S-1-5-21-7-1002").UserEnds(4, "S-1-5-21-7-1002", "0x80070005");
    s.UserMoved(4, "S-1-5-21-7-1003").Add(4, '<').Add(4, '<');
    const std::string text = SummaryText(s);
    EXPECT_EQ(0u, text.find(
                      "verdict: process 1, 2026-11-25 08:00:00.000: 2.0 -> 3.0, strict policy, 3 users: 1 moved, 0 moved "
                      "with gaps, 1 held, 1 failed\n"
                      "  S-1-5-21-7-1001  held: 0x80040201 NV_E_USER_INCOMPLETE \"Not all of the user reached the store; "
                      "the strict policy kept its old data\"; missing: secret not stored 'SystemLogonInfo' (0x80090005)\n"
                      "  S-1-5-21-7-1002  failed: 0x80070005 E_ACCESSDENIED \"Access is denied\"\n"
                      "\n"
                      "processes: 1\n"
                      "  process 1, started 2026-11-15 09:30:00.125, ran Convert, threads: 4 (16 records)\n"
                      "\n"
                      "failing results: 2 (each counted where it arose)\n"
                      "  0x80040201 NV_E_USER_INCOMPLETE \"Not all of the user reached the store; the strict policy kept "
                      "its old data\"\n"
                      "    in CBaseConverter::Convert > CConverter3::do_Convert, user S-1-5-21-7-1001\n"
                      "    process 1, thread 4\n"
                      "  0x80070005 E_ACCESSDENIED \"Access is denied\"\n"
                      "    in CBaseConverter::Convert > CConverter3::do_Convert, user S-1-5-21-7-1002\n"
                      "    process 1, thread 4\n"))
        << text;

    const std::vector<nvtrace::Verdict> verdicts = nvtrace::ComputeVerdicts(nvtrace::Decode(s.bytes()));
    ASSERT_EQ(1u, verdicts.size());
    EXPECT_EQ("strict", verdicts[0].policy);
    EXPECT_EQ(3u, verdicts[0].users);
    ASSERT_EQ(2u, verdicts[0].notPlainlyMoved.size());
    EXPECT_EQ(nvtrace::UserOutcome::Held, verdicts[0].notPlainlyMoved[0].outcome);
    EXPECT_EQ(nvtrace::UserOutcome::Failed, verdicts[0].notPlainlyMoved[1].outcome);
    EXPECT_EQ(0x80070005u, verdicts[0].notPlainlyMoved[1].code);
}

// The store had no public key for the first user: the format leaves that lookup's
// NTE_NO_KEY in the user's status, and the next user, for whom nothing set it
// again, shows the same. Both moved; the verdict says why the status is not S_OK
// and counts no failure.
TEST(NvtraceVerdictTest, StatusCarriedForwardIsExplainedNotCountedAsAFailure)
{
    SampleTrace s;
    s.Add(2, '>', "CConverter3::do_Convert").UserBegins(2, "S-1-5-21-8-1001").Add(2, 'U', "Retrieve payload");
    s.OldKeyDeleted(2, "S-1-5-21-8-1001").UserEnds(2, "S-1-5-21-8-1001", "0x8009000D");
    s.UserMoved(2, "S-1-5-21-8-1002", "0x8009000D").Add(2, '<');
    const std::string text = SummaryText(s);
    EXPECT_EQ("verdict: process 1, 2026-11-15 09:30:00.125: 2.0 -> 3.0, default policy, 2 users: 2 moved, 0 moved "
              "with gaps, 0 held, 0 failed\n"
              "  S-1-5-21-8-1001  moved; status 0x8009000D NTE_NO_KEY \"Key does not exist\": the store had no public "
              "key for the user yet, and the format keeps that lookup's result in the status; not a failure\n"
              "  S-1-5-21-8-1002  moved; status 0x8009000D NTE_NO_KEY \"Key does not exist\": carried over from the "
              "user before (the format does not reset the status per user); not a failure\n",
              VerdictText(s));
    EXPECT_NE(std::string::npos, text.find("\nfailing results: 0 (each counted where it arose)\n\n")) << text;
    EXPECT_NE(std::string::npos, text.find("users (2.0 -> 3.0): 2, 2 moved, 0 kept their old data\n")) << text;
}

// Every status query appends a process that only loads the library; they are
// folded into one line, and the one process that converted stands out.
TEST(NvtraceVerdictTest, ProcessesThatOnlyLoadedTheLibraryAreFoldedIntoOneLine)
{
    SampleTrace s;
    LoadOnly(s, 10, "2.0");
    s.Add(0, 'N', "11-25-2026").Add(11, 'T', "10:00:00.000");
    LoadOnly(s, 11, "2.0");
    s.Add(0, 'N', "11-25-2026").Add(12, 'T', "10:05:00.000");
    LoadOnly(s, 12, "2.0");
    s.Add(12, '>', "CBaseConverter::Convert").Add(12, '>', "CConverter3::do_Convert")
        .Add(12, 'U', "Conversion process began for 'S-1-5-21-6-1001'")
        .Add(12, 'U', "DeleteKey('S-1-5-21-6-1001'), 0x00000000")
        .Add(12, 'U', "Conversion process is over for 'S-1-5-21-6-1001', 0x00000000")
        .Add(12, '<').Add(12, '<');
    s.Add(0, 'N', "11-26-2026").Add(13, 'T', "09:00:00.000");
    LoadOnly(s, 13, "3.0");
    s.Add(0, 'N', "11-26-2026").Add(14, 'T', "09:10:00.000");
    LoadOnly(s, 14, "3.0");
    const std::string text = SummaryText(s);
    EXPECT_EQ(0u, text.find("verdict: process 3, 2026-11-25 10:05:00.000: 2.0 -> 3.0, default policy, 1 user: 1 "
                            "moved, 0 moved with gaps, 0 held, 0 failed\n"
                            "\n"
                            "processes: 5\n"
                            "  process 3, started 2026-11-25 10:05:00.000, ran Convert, threads: 12 (10 records)\n"
                            "  processes 1-2, 4-5 (4), started 2026-11-15 09:30:00.125 to 2026-11-26 09:10:00.000: only "
                            "loaded the library (no conversion, no failure)\n"
                            "\n"))
        << text;
}

TEST(NvtraceVerdictTest, NoConversion)
{
    SampleTrace s;
    LoadOnly(s, 3, "3.0");
    EXPECT_EQ("verdict: no conversion\n", VerdictText(s));
}

// The backup's refusal of an empty value shows as a memory shortage; the library's
// line naming the value is listed with its key.
TEST(NvtraceSummaryTest, AValueTheBackupRefusedIsNamedWithItsKey)
{
    SampleTrace s;
    s.Add(5, '>', "CBaseConverter::Backup").Add(5, '>', "CBaseConverter::CopyKey").Add(5, 'E', "-2147024888 ")
        .Add(5, '<')
        .Add(5, 'U', "value \"Blank\" of HKLM\\SOFTWARE\\Norvane\\DB\\MainDB is empty: the backup cannot copy empty "
                     "values")
        .Add(5, 'E', "-2147024888 ").Add(5, '<');
    const nvtrace::TraceSummary summary = nvtrace::Summarize(nvtrace::Decode(s.bytes()));
    const std::string shown =
        "HKLM\\SOFTWARE\\Norvane\\DB\\MainDB: value \"Blank\" is empty; the backup cannot copy empty values";
    ASSERT_EQ(1u, summary.emptyValues.size());
    EXPECT_EQ(shown, summary.emptyValues[0]);
    const std::string text = SummaryText(s);
    EXPECT_NE(std::string::npos, text.find("\nvalues the backup refused: 1\n  " + shown + "\n")) << text;
}

TEST(NvtraceSummaryTest, RepeatedFailuresAreCountedAndOpenScopesReported)
{
    SampleTrace s;
    s.Add(3, '>', "CNVDBRegSet::ReadAnyField");
    for (int i = 0; i < 3; ++i)
        s.Add(3, 'E', "-2147024894 ");
    const nvtrace::TraceSummary summary = nvtrace::Summarize(nvtrace::Decode(s.bytes()));
    ASSERT_EQ(1u, summary.failures.size());
    EXPECT_EQ(3u, summary.failures[0].count);
    EXPECT_EQ(1u, summary.unclosedScopes);
    const std::string text = SummaryText(s);
    EXPECT_NE(std::string::npos, text.find("    process 1, thread 3, 3 times\n")) << text;
    EXPECT_NE(std::string::npos, text.find("scopes never left: 1")) << text;
    EXPECT_EQ(std::string::npos, text.find("users (2.0")) << text;
}

TEST(NvtraceSummaryTest, CodeNames)
{
    EXPECT_EQ("NTE_BAD_DATA", nvtrace::DescribeCode(0x80090005u).name);
    EXPECT_EQ("S_FALSE", nvtrace::DescribeCode(1).name);
    EXPECT_EQ("HRESULT_FROM_WIN32(1234)", nvtrace::DescribeCode(0x800704D2u).name);
    EXPECT_EQ("", nvtrace::DescribeCode(0x8123ABCDu).name);
}

TEST(NvtraceJsonTest, OneObjectPerRecordWithTimeDepthAndCodes)
{
    SampleTrace s;
    s.Add(4, 't', "11/15/26").Add(4, 'T', "09:30:00.125").Add(4, '>', "CDBConverter::FinalConstruct")
        .Add(4, 'U', "say \"hi\"\\").Add(4, 'E', "-2147024894 ").Add(4, '<').Add(0, 'N', "11-16-2026")
        .Add(5, 'U', "next");
    std::ostringstream out;
    nvtrace::WriteJsonLines(nvtrace::Decode(s.bytes()), out);
    const std::size_t head = nvtrace_test::HeaderBytes(nvtrace_test::StandardHeader()).size();
    const std::string o = std::to_string(head);
    std::istringstream lines(out.str());
    std::string line;
    std::vector<std::string> all;
    while (std::getline(lines, line))
        all.push_back(line);
    ASSERT_EQ(8u, all.size()) << out.str();
    EXPECT_EQ("{\"offset\":" + o + ",\"process\":1,\"thread\":4,\"kind\":\"t\",\"time\":\"11/15/26\",\"depth\":0,"
              "\"text\":\"11/15/26\"}",
              all[0]);
    EXPECT_EQ("{\"offset\":" + std::to_string(head + 15 + 19) +
                  ",\"process\":1,\"thread\":4,\"kind\":\">\",\"time\":\"11/15/26 09:30:00.125\",\"depth\":0,"
                  "\"text\":\"CDBConverter::FinalConstruct\"}",
              all[2]);
    EXPECT_NE(std::string::npos, all[3].find("\"depth\":1,\"text\":\"say \\\"hi\\\"\\\\\"}")) << all[3];
    EXPECT_NE(std::string::npos, all[4].find("\"kind\":\"E\",\"time\":\"11/15/26 09:30:00.125\",\"depth\":1,"
                                             "\"text\":\"-2147024894 \",\"code\":\"0x80070002\","
                                             "\"name\":\"HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)\","))
        << all[4];
    EXPECT_NE(std::string::npos, all[5].find("\"kind\":\"<\",\"time\":\"11/15/26 09:30:00.125\",\"depth\":0")) << all[5];
    EXPECT_NE(std::string::npos, all[6].find("\"process\":2,\"thread\":0,\"kind\":\"N\",\"time\":\"11/16/26\"")) << all[6];
    EXPECT_NE(std::string::npos, all[7].find("\"process\":2,\"thread\":5,\"kind\":\"U\",\"time\":\"11/16/26\"")) << all[7];
}

TEST(NvtraceSummaryTest, CommandLineOptionsExcludeEachOther)
{
    std::ostringstream out, err;
    EXPECT_EQ(1, nvtrace::RunCli({"--summary", "--json", "x.trc3"}, out, err));
    EXPECT_EQ("", out.str());
    EXPECT_EQ(0u, err.str().find("nvtrace: --raw, --summary, --json and --csv exclude each other\n")) << err.str();
}
