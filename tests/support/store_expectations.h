// What the store must hold after a conversion of a 2.0 database: the templates and
// secrets a user of the writer's database yields, checks that record failures
// (ExpectUserConverted) or list what is missing (StoreCopyGaps), and the trace
// secrecy check.
#pragma once
#include <windows.h>
#include <map>
#include <string>
#include <vector>

#include "support/store_der.h"
#include "support/trace_capture.h"
#include "writer/db20_writer.h"

namespace nvtest {

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", as registry key names spell a GUID.
using nvwriter::GuidText;

// SOFTWARE\Norvane\DB\Data\Users\{GUID}
std::wstring UserKeyPath(const GUID& userGuid);

// The name under which a secret field of the old database lands in the store.
std::wstring StoredSecretName(const nvwriter::Db20Secret& secret, const std::wstring& logonInfoName);
// The user's password as the conversion finds it ("" when it has none).
std::wstring PasswordOf(const nvwriter::Db20User& user);

// Templates the user's record yields, by the position the conversion stores them
// at: the first fingerprint entry's templates taken in order, one per set bit of
// the last fingerprint entry's mask (only as many as there are).
std::map<DWORD, const nvwriter::Db20Template*> ExpectedTemplates(const nvwriter::Db20User& user);

// A fingerprint template for hand-made users: fixed type, owner marked by fill,
// dataBytes bytes of fill as its data.
nvwriter::Db20Template SampleTemplate(unsigned position, BYTE fill, size_t dataBytes = 40, LONG headerValue = 7);

struct ConvertedExpectations {
    std::wstring logonInfoName = L"SystemLogonInfo";
    bool registered = true;              // false when the store reported it registered already
    const std::vector<BYTE>* payload = nullptr; // the payload it must hold, when known
};
// Every check of a converted user: the store's record, each secret opening under the
// user's private key to its plain content (the password packed under the logon info
// name), each template at its position decoding to the writer's header and bytes,
// the password enrolled, the payload, the registration, and the old key deleted.
void ExpectUserConverted(const nvwriter::Db20User& user, const ConvertedExpectations& expect = {});

// What a store copy of a user lacks; empty when the store holds the whole user:
// every secret with content sealed for the user's key and opening to its plain
// content, the password secret under the logon info name decoding to version 1 and
// the password, and every template at its position decoding to the writer's fields.
// Unlike ExpectUserConverted this records nothing: fault sweeps ask it many times
// and decide themselves what a gap means.
struct StoreCopyGap {
    enum Kind { Secret, Password, Template, Record };
    Kind kind = Record;
    std::string name; // secret name or template position ("" for the record)
    std::string what;
};
// What the store copy of the user lacks: its data (secrets open to their bytes,
// templates at their positions), and with whole set also what makes the user usable
// (payload, public key, registration, the password authenticates).
std::vector<StoreCopyGap> StoreCopyGaps(const nvwriter::Db20User& user,
                                        const std::wstring& logonInfoName = L"SystemLogonInfo", bool whole = false);

// Trace secrecy: neither the raw (scrambled) trace file nor the decoded record texts
// contain any of the strings, in UTF-16 or in UTF-8.
void ExpectNoneInTrace(const TraceCapture& trace, const std::vector<std::wstring>& secrets);

} // namespace nvtest
