// A template the legacy reader built, checked against the one the writer wrote.
#pragma once
#include <windows.h>
#include <gtest/gtest.h>

#include "legacydb/records.h"
#include "writer/db20_writer.h"

namespace nvtest {

// Every header field and the data are those written.
inline void ExpectTemplate(const nvwriter::Db20Template& expected, const CNVTemplate& actual)
{
    EXPECT_EQ(expected.format, actual.m_header.info.dwFormat);
    EXPECT_EQ(expected.flags, actual.m_header.info.dwFlags);
    EXPECT_TRUE(IsEqualGUID(expected.type, actual.m_header.info.guidType));
    EXPECT_TRUE(IsEqualGUID(expected.owner, actual.m_header.info.guidOwner));
    EXPECT_EQ(expected.size, actual.m_header.info.dwSize);
    EXPECT_EQ(expected.headerValue, actual.m_header.lHeaderValue);
    EXPECT_EQ(expected.data, actual.m_data);
}

} // namespace nvtest
