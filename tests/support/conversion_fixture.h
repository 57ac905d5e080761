// Fixtures for the format 2.0 to 3.0 conversion run end to end: a database made by
// the 2.0 writer, COM on the test thread (as the installer has it), the trace
// captured, and helpers to read what the conversion left behind.
//
// Db20ConversionTest is a TraceCaptureTest: every test starts with a wiped registry
// (the reference store's data included) and a trace file at verbosity 10. Like
// StoreSandbox it deletes the store's key containers before and after the test,
// makes sure NVStore.dll of the test folder is the registered store, and has the
// store make 1024-bit user keys unless m_quickKeys is set to false before SetUp.
// Databases written through WriteDatabase() have their machine containers deleted
// again at the end of the test.
#pragma once
#include <windows.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

#include "support/db_paths.h"
#include "support/registry_sandbox.h"
#include "support/text_util.h"
#include "support/trace_capture.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

namespace nvtest {

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", as registry key names spell a GUID.
using nvwriter::GuidText;


// SOFTWARE\Norvane\DB\Data\Users\{GUID}
std::wstring UserKeyPath(const GUID& userGuid);

// The lines a scope wrote itself: nested scopes (their enter, lines and leave) are
// left out. Empty when the scope is not in the trace.
std::vector<std::string> OwnLines(const TraceCapture& trace, const std::string& scope, std::size_t occurrence = 0);

// ---- what the store must hold after a conversion ------------------------------

// A stored template, decoded by position: the data-object fields, the header value
// and the data.
struct DecodedTemplate {
    DWORD format = 0;
    DWORD flags = 0;
    std::vector<BYTE> type;  // 16 bytes as stored
    std::vector<BYTE> owner; // 16 bytes as stored
    DWORD size = 0;
    LONG headerValue = 0;
    std::vector<BYTE> data;
};
// False (with a failure recorded) when the bytes are not the three-deep layout.
bool DecodeStoredTemplate(const std::vector<BYTE>& bytes, DecodedTemplate* out);
// The 16 bytes of a GUID in memory order.
std::vector<BYTE> GuidMemoryBytes(const GUID& g);

// Reads a 3.0 password secret (the packed format): unscrambles it with the
// deployment's key and decodes SEQUENCE { version, BMPString password }. The string
// may carry one terminating zero character; anything else after the text, another
// item count or another string type is not the packed format (false).
bool DecodePackedPassword(const std::vector<BYTE>& packed, DWORD* version, std::wstring* password);
// The packed password secret unscrambled, as it stands.
std::vector<BYTE> UnscramblePackedPassword(const std::vector<BYTE>& packed);
// The DER a 3.0 password secret of this password must unscramble to, made by hand:
// SEQUENCE { INTEGER 1, BMPString password with its terminating zero }.
std::vector<BYTE> ExpectedPasswordSecretDer(const std::wstring& password);

// The name under which a secret field of the old database lands in the store.
std::wstring StoredSecretName(const nvwriter::Db20Secret& secret, const std::wstring& logonInfoName);
// The user's password as the conversion finds it ("" when it has none).
std::wstring PasswordOf(const nvwriter::Db20User& user);

// A template header value as the legacy reader hands it on: the DER INTEGER's
// content bytes without sign extension, so a negative value keeps only the bytes of
// its shortest two's complement (-3, one byte 0xFD, reads as 253).
LONG HeaderValueAsRead(LONG written);

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

// Leaves a key that anybody may read, and whose access list may be changed back,
// but that nobody may open for full access: deleting it fails with access denied.
void LockRegistryKey(const std::wstring& path, REGSAM view);
// Gives the key its inherited access list back (nothing when it is missing).
void UnlockRegistryKey(const std::wstring& path, REGSAM view);

class ComApartment {
public:
    ComApartment();
    ~ComApartment();
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
    HRESULT result() const { return m_hr; }

private:
    HRESULT m_hr;
};

class Db20ConversionTest : public TraceCaptureTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Draws a database (no cached domains unless asked) without writing it.
    static nvwriter::Db20Database MakeDatabase(unsigned users, std::uint32_t seed = 7, unsigned domains = 0);
    // Writes it (asserting success) and remembers its container for the clean-up.
    void WriteDatabase(const nvwriter::Db20Database& db);

    // Removes the store's class registration (both views); RestoreStoreRegistration
    // (also run by TearDown) registers it again.
    static void UnregisterStore();
    // LockRegistryKey in the 32-bit view, undone at TearDown.
    void LockKey(const std::wstring& path);
    static void RestoreStoreRegistration();

    std::vector<nvwriter::Db20Database> m_written;
    ComApartment* m_com = nullptr;
    bool m_quickKeys = true;
    std::vector<std::wstring> m_locked;
};

} // namespace nvtest
