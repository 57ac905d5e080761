// A conversion killed in the middle and run again: nvdbconv converts in a process of
// its own, the reference store ends that process at a stage where it has written
// part of a user (a key pair made but not stored, stored but not named, a password
// set without its payload, one secret or one template written), and a fresh Convert
// follows. Every user must then be in the store whole, each secret opening with the
// user's own key, and no old key may be left.
#include <windows.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "nvstore_inspect.h"
#include "storelayout.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

nvwriter::Db20Template MakeTemplate(unsigned position, BYTE fill)
{
    return SampleTemplate(position, fill, 48, 3);
}

class KillRerunTest : public Db20ConversionTest, public ::testing::WithParamInterface<const wchar_t*> {
protected:
    // Two users, each with fingerprints at two positions and the writer's secrets.
    static nvwriter::Db20Database TwoUsers()
    {
        nvwriter::Db20Database db = MakeDatabase(2, 53);
        BYTE fill = 0x40;
        for (nvwriter::Db20User& u : db.users) {
            u.credentials.clear();
            nvwriter::Db20Credential c;
            c.credentialId = nvwriter::kDb20FingerprintCredentialId;
            c.mask = 0x6;
            c.templates = {MakeTemplate(1, fill), MakeTemplate(2, static_cast<BYTE>(fill + 1))};
            fill = static_cast<BYTE>(fill + 0x10);
            u.credentials.push_back(c);
        }
        return db;
    }
};

} // namespace

TEST_P(KillRerunTest, AConversionKilledAtTheStageAndRunAgainMovesEveryUserWhole)
{
    const nvwriter::Db20Database db = TwoUsers();
    ASSERT_FALSE(db.users[0].secrets.empty());
    WriteDatabase(db);
    inspect::SetStopAt(GetParam());

    ProcessRun run = RunProcess(QuoteArg(ExeDirectory() + L"nvdbconv.exe") + L" --quiet convert");
    ASSERT_TRUE(run.started);
    ASSERT_EQ(DWORD(nvstore::kStopExitCode), run.exitCode) << "the store did not stop at " << Narrow(GetParam());
    // Nothing of the stopped run has been deleted yet: both old keys are there.
    for (const auto& u : db.users)
        EXPECT_TRUE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));

    inspect::SetStopAt(L"");
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        EXPECT_EQ(S_OK, dll.Convert());
    }
    for (const auto& u : db.users)
        ExpectUserConverted(u);
    EXPECT_FALSE(KeyExists(kDataPath, kView32)) << trace.Dump();
}

INSTANTIATE_TEST_SUITE_P(Stages, KillRerunTest,
                         ::testing::Values(nvstore::kStageKeyPairGenerated, nvstore::kStageKeyPairStored,
                                           nvstore::kStagePayloadWritten, nvstore::kStageSecretStored,
                                           nvstore::kStageTemplateStored),
                         [](const ::testing::TestParamInfo<const wchar_t*>& info) { return Narrow(info.param); });
