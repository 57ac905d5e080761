// The readable listing and the raw listing of a decoded trace.
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "nvtracelib.h"
#include "sample_trace.h"

using nvtrace_test::SampleTrace;

namespace {

std::string Listing(const SampleTrace& sample, nvtrace::FormatOptions options = {})
{
    const nvtrace::DecodedTrace trace = nvtrace::Decode(sample.bytes());
    EXPECT_TRUE(trace.ok) << trace.error;
    std::ostringstream out;
    nvtrace::WriteListing(trace, options, out);
    return out.str();
}

const char kHeaderText[] =
    "trace3\n"
    "Compiled: Sep 15 2010 11:26:51\n"
    "OS: Windows7\n"
    "ServicePack: Service Pack 1\n"
    "Machine name: BUILD01\n"
    "Trace Ver: 3.0.1\n"
    "FileVersion: 3.0.1.0\n"
    "No Palmera products found\n"
    "installation: NETWORK\n"
    "11/15/2026 09:30:00.125\n"
    ".\n";

// TwoThreads() as the readable listing shows it, after the header.
const char kTwoThreadsReadable[] =
    "11/15/26 09:30:00.125   1200  > CBaseConverter::Convert\n"
    "11/15/26 09:30:00.125   1200    > CBaseConverter::Backup\n"
    "11/15/26 09:30:00.126     88  > Worker\n"
    "11/15/26 09:30:00.126   1200      U copied 3 keys\n"
    "11/15/26 09:30:00.126     88    E 0x80004005 E_FAIL\n"
    "11/15/26 09:30:00.126   1200    <\n"
    "11/15/26 09:30:00.126     88  <\n"
    "11/15/26 09:30:01.000   1200    E 0x80070002 HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)\n"
    "11/15/26 09:30:01.000   1200  <\n";

SampleTrace TwoThreads()
{
    SampleTrace sample;
    sample.Add(1200, 't', "11/15/26")
        .Add(1200, 'T', "09:30:00.125")
        .Add(1200, '>', "CBaseConverter::Convert")
        .Add(1200, '>', "CBaseConverter::Backup")
        .Add(88, 'T', "09:30:00.126")
        .Add(88, '>', "Worker")
        .Add(1200, 'U', "copied 3 keys")
        .Add(88, 'E', "-2147467259 ")
        .Add(1200, '<')
        .Add(88, '<')
        .Add(1200, 'T', "09:30:01.000")
        .Add(1200, 'E', "-2147024894 ")
        .Add(1200, '<');
    return sample;
}

} // namespace

TEST(TraceListingTest, ReadableListingShowsHeaderTimeThreadAndIndentedRecords)
{
    EXPECT_EQ(std::string(kHeaderText) + kTwoThreadsReadable, Listing(TwoThreads()));
}

TEST(TraceListingTest, RawListingShowsEveryRecordWithoutHeaderOrIndentation)
{
    nvtrace::FormatOptions options;
    options.raw = true;
    const std::string expected = "t\t1200\t11/15/26\n"
                                 "T\t1200\t09:30:00.125\n"
                                 ">\t1200\tCBaseConverter::Convert\n"
                                 ">\t1200\tCBaseConverter::Backup\n"
                                 "T\t88\t09:30:00.126\n"
                                 ">\t88\tWorker\n"
                                 "U\t1200\tcopied 3 keys\n"
                                 "E\t88\t-2147467259 \n"
                                 "<\t1200\t\n"
                                 "<\t88\t\n"
                                 "T\t1200\t09:30:01.000\n"
                                 "E\t1200\t-2147024894 \n"
                                 "<\t1200\t\n";
    EXPECT_EQ(expected, Listing(TwoThreads(), options));
}

TEST(TraceListingTest, ThreadFilterKeepsTheFilesClock)
{
    nvtrace::FormatOptions options;
    options.filterThread = true;
    options.thread = 1200;
    // The 'T' record that thread 88 wrote still sets the time of thread 1200's lines:
    // the filtered listing is the full one's lines of thread 1200, unchanged.
    std::string expected = kHeaderText;
    size_t kept = 0;
    std::istringstream full(kTwoThreadsReadable);
    for (std::string line; std::getline(full, line);) {
        if (line.compare(21, 7, "   1200") == 0) {
            expected += line + "\n";
            ++kept;
        }
    }
    ASSERT_EQ(6u, kept);
    EXPECT_EQ(expected, Listing(TwoThreads(), options));
}

TEST(TraceListingTest, RawListingWithThreadFilter)
{
    nvtrace::FormatOptions options;
    options.raw = true;
    options.filterThread = true;
    options.thread = 88;
    EXPECT_EQ("T\t88\t09:30:00.126\n>\t88\tWorker\nE\t88\t-2147467259 \n<\t88\t\n", Listing(TwoThreads(), options));
}

TEST(TraceListingTest, RecordsBeforeAnyTimestampShowAnUnknownClock)
{
    SampleTrace sample;
    sample.Add(7, 'U', "early");
    EXPECT_EQ(std::string(kHeaderText) + "--/--/-- --:--:--.---      7  U early\n", Listing(sample));
}

TEST(TraceListingTest, ReopenedFileRestartsDateClockAndDepth)
{
    SampleTrace sample;
    sample.Add(7, 't', "11/15/26").Add(7, 'T', "23:59:59.999").Add(7, '>', "Unclosed")
        .Add(9, 'N', "11-16-2026")
        .Add(7, '>', "Again")
        .Add(9, 'T', "00:00:01.000")
        .Add(9, 'U', "new process");
    const std::string expected = std::string(kHeaderText) +
                                 "11/15/26 23:59:59.999      7  > Unclosed\n"
                                 "11/16/26 --:--:--.---      9  N 11-16-2026\n"
                                 "11/16/26 --:--:--.---      7  > Again\n"
                                 "11/16/26 00:00:01.000      9  U new process\n";
    EXPECT_EQ(expected, Listing(sample));
}

TEST(TraceListingTest, UnbalancedLeaveDoesNotIndentBelowZero)
{
    SampleTrace sample;
    sample.Add(1, '<').Add(1, '>', "A").Add(1, '<').Add(1, '<').Add(1, 'U', "x");
    EXPECT_EQ(std::string(kHeaderText) +
                  "--/--/-- --:--:--.---      1  <\n"
                  "--/--/-- --:--:--.---      1  > A\n"
                  "--/--/-- --:--:--.---      1  <\n"
                  "--/--/-- --:--:--.---      1  <\n"
                  "--/--/-- --:--:--.---      1  U x\n",
              Listing(sample));
}

TEST(TraceListingTest, ControlCharactersAreEscapedSoARecordStaysOneLine)
{
    SampleTrace sample;
    sample.Add(1, 'U', "a\r\nb\tc\x01 d\\e \xC3\xBC");
    EXPECT_EQ(std::string(kHeaderText) + "--/--/-- --:--:--.---      1  U a\\r\\nb\\tc\\x01 d\\e \xC3\xBC\n",
              Listing(sample));
    nvtrace::FormatOptions options;
    options.raw = true;
    EXPECT_EQ("U\t1\ta\\r\\nb\\tc\\x01 d\\e \xC3\xBC\n", Listing(sample, options));
}

TEST(TraceListingTest, CanonicalLines)
{
    nvtrace::Record r;
    r.kind = '>';
    r.text = "CFoo::Bar";
    EXPECT_EQ("> CFoo::Bar", nvtrace::CanonicalLine(r));
    r.kind = '<';
    r.text = "";
    EXPECT_EQ("<", nvtrace::CanonicalLine(r));
    r.kind = 'U';
    EXPECT_EQ("U ", nvtrace::CanonicalLine(r));
    r.kind = 'E';
    r.text = "-1 ";
    EXPECT_EQ("E -1 ", nvtrace::CanonicalLine(r));
}
