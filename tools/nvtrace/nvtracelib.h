// The trace decoder library, for the nvtrace tool and for tests: the decoder
// (decoder.h), the readable listing (listing.h) and the command line (trace_cli.h);
// summary.h, rollup.h and timeline.h have the summary, the roll-up and the timeline.
#pragma once
#include "decoder.h"
#include "listing.h"
#include "trace_cli.h"
