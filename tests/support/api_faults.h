// ApiFaults: makes the library's replaceable platform calls (common/replaceablecalls.h) fail
// on request, in tests that link the core library directly. While an instance
// lives, every call is counted; a call chosen by its number from the instance's
// start fails with the chosen code and leaves its outputs alone. The destructor
// puts the platform's functions back. One instance at a time.
#pragma once
#include <windows.h>
#include <string>

namespace nvtest {

class ApiFaults {
public:
    ApiFaults();
    ~ApiFaults();
    ApiFaults(const ApiFaults&) = delete;
    ApiFaults& operator=(const ApiFaults&) = delete;

    // The n-th CryptDecodeObject call from now (1 = the next) fails with this last
    // error; n = 0 fails none.
    void FailDecode(unsigned n, DWORD lastError);
    // Every CryptDecodeObject call from the n-th on fails with this last error.
    void FailDecodeFrom(unsigned n, DWORD lastError);
    // The n-th CryptEncodeObject call from now fails with this last error.
    void FailEncode(unsigned n, DWORD lastError);
    // The n-th RegQueryValueExW of the named value from now fails with this code.
    void FailQueryValue(const std::wstring& valueName, unsigned n, LONG code);

    unsigned DecodeCalls() const;
    // The CryptDecodeObject calls that reached the platform with one of the
    // predefined structure types (X509_CERT, X509_BITS, ...).
    unsigned DecodeCalls(LPCSTR structType) const;
    unsigned EncodeCalls() const;
    unsigned QueryValueCalls() const;
};

} // namespace nvtest
