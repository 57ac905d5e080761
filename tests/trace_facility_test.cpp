#include <windows.h>
#include <gtest/gtest.h>

#include "support/trace_capture.h"
#include "trace/trace.h"

using namespace nvtest;

class TraceFacilityTest : public TraceCaptureTest {};

TEST_F(TraceFacilityTest, ScopeLineAndResultReachTheFile)
{
    {
        NVTraceNS::CTraceScope scope("CFoo::Bar", 0);
        NVTraceNS::Trace(scope, 0, "value %d of %ls and %s", 5, L"wide", "narrow");
        NVTraceNS::TraceReturn(scope, HRESULT(0x80070002));
    }
    EXPECT_EQ((std::vector<std::string>{"> CFoo::Bar", "U value 5 of wide and narrow", "E -2147024894 ", "<"}),
              trace.Lines()) << trace.Dump();
}
