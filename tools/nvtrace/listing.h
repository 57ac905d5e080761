// The readable listing of a decoded trace, as nvtrace prints it by default (and
// with --raw).
#pragma once
#include <cstdint>
#include <iosfwd>

#include "decoder.h"

namespace nvtrace {

struct FormatOptions {
    bool raw = false;          // kind, thread and text of every record, tab-separated, no indentation
    bool filterThread = false; // only records of `thread`
    std::uint32_t thread = 0;
};

// The readable listing: the header as it stands (default mode), then one line per
// record. Timestamp records are shown as the time column of the records after them.
void WriteListing(const DecodedTrace& trace, const FormatOptions& options, std::ostream& out);

} // namespace nvtrace
