// The library's parsers as fuzzing targets: each takes one input (already placed at
// the end of a guarded page), calls the library in-process and checks the outcome
// against what the format allows.
//
//   sealed    a user's stored value: CLocalDBUserExtractor::UnsealUser, which unseals
//             with the machine key and parses the user blob inside
//   userblob  an unsealed user blob: CLocalDBUserExtractor::ParseUserBlob
//   import    a signed export record: CFPSecurityContext::Import
//   secret    a secret record (the data of an export record): DecodeSecretField
//   password  a combined password secret: UnpackPasswordAndPin
//   der       one item through every positional DER reader
//
// The Fixture provisions what the parsers need (host identifier, a machine key
// container of its own with a small key so that unsealing stays cheap, account
// policies) and draws the seeds from the writer's output; its destructor removes it
// all again.
#pragma once
#include <windows.h>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "der_mutator.h"

namespace nvfuzz {

struct Outcome {
    HRESULT hr = S_OK;
    std::string violation; // empty when the outcome is one the format allows
};

class Fixture;

class Target {
public:
    virtual ~Target() = default;
    virtual const char* Name() const = 0;
    // The seeds the mutations start from (valid writer output).
    virtual const std::vector<Bytes>& Seeds() const = 0;
    // The next input: a mutated seed, possibly re-wrapped (sealed, scrambled).
    virtual Bytes Generate(DerMutator& mutator, std::string& how);
    virtual Outcome Run(const BYTE* pb, DWORD cb) = 0;
};

class Fixture {
public:
    struct Impl;

    Fixture();
    ~Fixture();
    Fixture(const Fixture&) = delete;
    Fixture& operator=(const Fixture&) = delete;

    // "all" or one name; empty when the name is unknown.
    std::vector<Target*> Select(const std::string& name);
    Target* Find(const std::string& name);
    const std::vector<std::unique_ptr<Target>>& Targets() const { return m_targets; }

private:
    std::unique_ptr<Impl> m_impl;
    std::vector<std::unique_ptr<Target>> m_targets;
};

// Names of the targets, for usage texts.
const char* TargetNames();

} // namespace nvfuzz
