// CFPSecurityContext: the machine container named by the host identifier, its
// public key, signing and verification.
#include <windows.h>
#include <gtest/gtest.h>

#include "security/securitycontext.h"
#include "support/key_containers.h"
#include "support/registry_sandbox.h"
#include "writer/host_provisioning.h"

using namespace nvtest;

class SecurityContextTest : public ProvisionedHostTest {};

TEST_F(SecurityContextTest, SmokeFinalConstructAcquiresProvisionedContainer)
{
    CFPSecurityContext ctx;
    EXPECT_EQ(S_OK, ctx.FinalConstruct(KEY_WOW64_32KEY));
    EXPECT_NE(0u, ctx.m_hProv);
}
