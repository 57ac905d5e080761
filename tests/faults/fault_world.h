// The registry and store state that one fault scenario starts from, and the check
// that nothing was lost afterwards.
//
// Prepare() writes the database once (1.0: the legacy writer's name indexes,
// domains and policies; 2.0: four users, each with templates at gapped positions,
// a password secret with a PIN and several other secrets) and keeps a pristine copy
// of the suite's keys outside HKLM\SOFTWARE\Norvane. Reset() brings the registry
// back to that copy, empties the reference store and its key containers and sets
// the conversion policy: no Wine prefix is rebuilt between scenarios.
#pragma once
#include <windows.h>
#include <map>
#include <string>
#include <vector>

#include "support/conversion_fixture.h"
#include "support/registry_sandbox.h"
#include "writer/db20_writer.h"

namespace nvfaults {

enum class Conversion { From10, From20 };
enum class Policy { Default, Strict };

const char* ConversionName(Conversion c);
const char* PolicyName(Policy p);
bool ParseConversion(const std::string& text, Conversion* c);
bool ParsePolicy(const std::string& text, Policy* p);

// What a store copy lacks.
using Piece = nvtest::StoreCopyGap;

struct UserFinding {
    std::string user;     // SID (2.0) or "path|value" (1.0)
    bool inDatabase = false;
    bool inBackup = false;
    bool inStore = false;
    bool oldKey = false;        // 2.0: the user's key under Data\Users is there, in any state
    std::vector<Piece> missing; // what the store copy lacks (2.0: data, payload, public key,
                                // registration, the password authenticating)
    bool Lost() const { return !inDatabase && !inBackup && !inStore; }
    bool TwoPlaces() const { return (inDatabase || inBackup) && inStore; }
};

struct Inspection {
    std::vector<UserFinding> users; // 2.0: every user; 1.0: only values not found
    bool converted10 = false;       // 1.0: the database is the complete 2.0 result
    // 1.0: the 2.0 result, except values the step deletes whose delete failed (the
    // step goes on without them)
    bool converted10KeepingValues = false;
    unsigned keptAfterFailedDelete = 0; // 1.0: values the finished step meant to delete
    bool hostIdChanged = false;
    bool backupValue = false;       // "Backup" in the database key
    std::wstring backupPath;
    bool backupKey = false;         // the key it names, in the converter's view
    bool backupKeyLeft = false;     // a backup key of this conversion, in either view
    std::wstring version;           // "Version" of the database ("" when missing)
    bool layout30 = false;          // 2.0: no Data and no MainDB under the database key
    std::string Summary() const;    // one line: where the data is
};

class World {
public:
    explicit World(Conversion c) : m_conversion(c) {}
    Conversion conversion() const { return m_conversion; }

    // Writes the database and keeps the pristine copy. False with a reason.
    bool Prepare(std::string* error);
    // The registry as Prepare left it, an empty store, the policy set.
    bool Reset(Policy policy, std::string* error) const;
    // After a clean conversion: the 2.0 database a 1.0 run must end in.
    void RecordConverted10();
    Inspection Inspect() const;
    // Deletes the pristine copy, the machine containers and the suite's keys.
    void Dispose();

private:
    Conversion m_conversion;
    nvwriter::Db20Database m_db20;
    std::map<std::wstring, nvtest::RegTree> m_userKeys; // braced GUID -> original user key
    std::vector<BYTE> m_hostId;
    nvtest::RegTree m_original10;
    nvtest::RegTree m_converted10;
};

// The 2.0 database the harness converts: users with templates at gapped
// positions, a password secret with a PIN and three other secrets each.
nvwriter::Db20Database FaultDatabase20();

} // namespace nvfaults
