// Structure-aware mutations of DER inputs for the parser fuzzing harness.
//
// A seed is read as a tree of TLVs: constructed values, and OCTET STRING and BIT
// STRING values whose content is itself complete DER (the legacy records nest
// encodings that way), are opened into their items. A mutation either changes the
// tree and re-encodes it with consistent lengths, so that the damage reaches the
// deep readers, or damages the encoded bytes directly: bit flips, truncation and a
// changed length field that no longer matches its content.
#pragma once
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace nvfuzz {

using Bytes = std::vector<std::uint8_t>;

struct DerNode {
    std::uint8_t tag = 0;
    bool opened = false;         // children hold the content
    bool bitString = false;      // content starts with the unused-bits byte
    std::uint8_t unusedBits = 0; // for an opened BIT STRING
    Bytes content;               // leaf content (when !opened)
    std::vector<DerNode> children;
};

// Parses a whole encoding as a list of top-level values; false when the bytes are
// not DER throughout.
bool ParseDer(const std::uint8_t* data, std::size_t size, std::vector<DerNode>& out);
Bytes EncodeDer(const std::vector<DerNode>& nodes);
Bytes EncodeLength(std::size_t length);

enum class Mutation {
    BitFlip,       // one to four bits anywhere
    ByteValue,     // one byte set to a boundary value
    Truncate,      // cut at a random length
    LengthField,   // one length field rewritten, content left as it is
    InsertItem,    // a copy of some item (or a new small one) inserted into a list
    DeleteItem,    // one item removed from a list
    DuplicateItem, // one item repeated in place
    LeafContent,   // a leaf's content changed, grown or shrunk (lengths follow)
    RetagItem,     // an item's tag replaced
    Count
};

const char* MutationName(Mutation m);

class DerMutator {
public:
    explicit DerMutator(std::uint64_t seed) : m_rng(seed) {}

    // One to three mutations of the seed; `applied` names them.
    Bytes Mutate(const Bytes& seed, std::string& applied);
    Bytes Apply(Mutation m, const Bytes& input);

    std::mt19937_64& Rng() { return m_rng; }
    std::size_t Below(std::size_t n) { return n == 0 ? 0 : static_cast<std::size_t>(m_rng() % n); }

private:
    bool MutateTree(Mutation m, std::vector<DerNode>& roots);
    Bytes MutateLengthField(const Bytes& input);
    std::mt19937_64 m_rng;
};

} // namespace nvfuzz
