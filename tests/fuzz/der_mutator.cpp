#include "der_mutator.h"

#include <algorithm>

namespace nvfuzz {

namespace {

constexpr std::uint8_t kConstructed = 0x20;
constexpr std::uint8_t kOctetString = 0x04;
constexpr std::uint8_t kBitString = 0x03;
constexpr std::size_t kMaxDepth = 24;

// One TLV at data[pos]; false when the head is malformed or runs past the end.
bool ReadHead(const std::uint8_t* data, std::size_t size, std::size_t pos, std::uint8_t& tag, std::size_t& head,
              std::size_t& length)
{
    if (pos + 2 > size)
        return false;
    tag = data[pos];
    if ((tag & 0x1F) == 0x1F)
        return false; // high tag numbers: the legacy records use none
    const std::uint8_t first = data[pos + 1];
    if (first < 0x80) {
        head = 2;
        length = first;
    } else {
        const std::size_t n = first & 0x7F;
        if (n == 0 || n > 4 || pos + 2 + n > size)
            return false;
        length = 0;
        for (std::size_t i = 0; i < n; ++i)
            length = (length << 8) | data[pos + 2 + i];
        head = 2 + n;
    }
    return length <= size - pos - head;
}

bool ParseRange(const std::uint8_t* data, std::size_t size, std::vector<DerNode>& out, std::size_t depth);

void OpenIfNested(DerNode& node, std::size_t depth)
{
    if (depth >= kMaxDepth)
        return;
    if (node.tag & kConstructed) {
        std::vector<DerNode> children;
        if (ParseRange(node.content.data(), node.content.size(), children, depth + 1)) {
            node.children = std::move(children);
            node.opened = true;
            node.content.clear();
        }
        return;
    }
    if (node.tag == kOctetString && !node.content.empty()) {
        std::vector<DerNode> children;
        if (ParseRange(node.content.data(), node.content.size(), children, depth + 1)) {
            node.children = std::move(children);
            node.opened = true;
            node.content.clear();
        }
    } else if (node.tag == kBitString && node.content.size() > 1) {
        std::vector<DerNode> children;
        if (ParseRange(node.content.data() + 1, node.content.size() - 1, children, depth + 1)) {
            node.unusedBits = node.content[0];
            node.bitString = true;
            node.children = std::move(children);
            node.opened = true;
            node.content.clear();
        }
    }
}

bool ParseRange(const std::uint8_t* data, std::size_t size, std::vector<DerNode>& out, std::size_t depth)
{
    std::size_t pos = 0;
    while (pos < size) {
        std::uint8_t tag = 0;
        std::size_t head = 0, length = 0;
        if (!ReadHead(data, size, pos, tag, head, length))
            return false;
        DerNode node;
        node.tag = tag;
        node.content.assign(data + pos + head, data + pos + head + length);
        OpenIfNested(node, depth);
        out.push_back(std::move(node));
        pos += head + length;
    }
    return true;
}

void EncodeNode(const DerNode& node, Bytes& out)
{
    Bytes content;
    if (node.opened) {
        if (node.bitString)
            content.push_back(node.unusedBits);
        const Bytes inner = EncodeDer(node.children);
        content.insert(content.end(), inner.begin(), inner.end());
    } else {
        content = node.content;
    }
    out.push_back(node.tag);
    const Bytes length = EncodeLength(content.size());
    out.insert(out.end(), length.begin(), length.end());
    out.insert(out.end(), content.begin(), content.end());
}

// Every node of the forest, depth first, with the list that holds it.
struct NodeRef {
    std::vector<DerNode>* list;
    std::size_t index;
};

void Collect(std::vector<DerNode>& list, std::vector<NodeRef>& refs)
{
    for (std::size_t i = 0; i < list.size(); ++i) {
        refs.push_back({&list, i});
        if (list[i].opened)
            Collect(list[i].children, refs);
    }
}

void CollectLists(std::vector<DerNode>& list, std::vector<std::vector<DerNode>*>& lists)
{
    lists.push_back(&list);
    for (DerNode& node : list) {
        if (node.opened)
            CollectLists(node.children, lists);
    }
}

const std::uint8_t kBoundaryBytes[] = {0x00, 0x01, 0x7F, 0x80, 0x81, 0x82, 0x83, 0x84, 0xFE, 0xFF, 0x30, 0x04, 0x02};
const std::uint8_t kTags[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0C, 0x13, 0x16, 0x17, 0x18, 0x1E, 0x30, 0x31, 0xA0};

} // namespace

bool ParseDer(const std::uint8_t* data, std::size_t size, std::vector<DerNode>& out)
{
    out.clear();
    return ParseRange(data, size, out, 0);
}

Bytes EncodeLength(std::size_t length)
{
    if (length < 0x80)
        return {static_cast<std::uint8_t>(length)};
    Bytes digits;
    for (std::size_t v = length; v; v >>= 8)
        digits.insert(digits.begin(), static_cast<std::uint8_t>(v));
    digits.insert(digits.begin(), static_cast<std::uint8_t>(0x80 | digits.size()));
    return digits;
}

Bytes EncodeDer(const std::vector<DerNode>& nodes)
{
    Bytes out;
    for (const DerNode& node : nodes)
        EncodeNode(node, out);
    return out;
}

const char* MutationName(Mutation m)
{
    switch (m) {
    case Mutation::BitFlip: return "bit-flip";
    case Mutation::ByteValue: return "byte-value";
    case Mutation::Truncate: return "truncate";
    case Mutation::LengthField: return "length-field";
    case Mutation::InsertItem: return "insert-item";
    case Mutation::DeleteItem: return "delete-item";
    case Mutation::DuplicateItem: return "duplicate-item";
    case Mutation::LeafContent: return "leaf-content";
    case Mutation::RetagItem: return "retag-item";
    default: return "?";
    }
}

Bytes DerMutator::Mutate(const Bytes& seed, std::string& applied)
{
    Bytes out = seed;
    const std::size_t rounds = 1 + Below(3);
    applied.clear();
    for (std::size_t i = 0; i < rounds; ++i) {
        const auto m = static_cast<Mutation>(Below(static_cast<std::size_t>(Mutation::Count)));
        out = Apply(m, out);
        if (!applied.empty())
            applied += '+';
        applied += MutationName(m);
    }
    return out;
}

Bytes DerMutator::Apply(Mutation m, const Bytes& input)
{
    Bytes out = input;
    switch (m) {
    case Mutation::BitFlip:
        if (!out.empty()) {
            for (std::size_t n = 1 + Below(4); n; --n)
                out[Below(out.size())] ^= static_cast<std::uint8_t>(1u << Below(8));
        }
        return out;
    case Mutation::ByteValue:
        if (!out.empty())
            out[Below(out.size())] = kBoundaryBytes[Below(sizeof(kBoundaryBytes))];
        return out;
    case Mutation::Truncate:
        out.resize(Below(out.size() + 1));
        return out;
    case Mutation::LengthField:
        return MutateLengthField(input);
    default: {
        std::vector<DerNode> roots;
        if (!ParseDer(input.data(), input.size(), roots) || roots.empty()) {
            // Not DER (any more): damage the bytes instead.
            return Apply(Mutation::BitFlip, input);
        }
        if (!MutateTree(m, roots))
            return Apply(Mutation::BitFlip, input);
        return EncodeDer(roots);
    }
    }
}

bool DerMutator::MutateTree(Mutation m, std::vector<DerNode>& roots)
{
    std::vector<NodeRef> nodes;
    Collect(roots, nodes);
    std::vector<std::vector<DerNode>*> lists;
    for (DerNode& root : roots) {
        if (root.opened)
            CollectLists(root.children, lists);
    }
    switch (m) {
    case Mutation::InsertItem: {
        if (lists.empty())
            return false;
        std::vector<DerNode>* list = lists[Below(lists.size())];
        DerNode item;
        if (Below(2) == 0) {
            const NodeRef donor = nodes[Below(nodes.size())];
            item = (*donor.list)[donor.index];
        } else {
            item.tag = kTags[Below(sizeof(kTags))];
            item.content.resize(Below(20));
            for (auto& b : item.content)
                b = static_cast<std::uint8_t>(m_rng());
        }
        list->insert(list->begin() + static_cast<std::ptrdiff_t>(Below(list->size() + 1)), std::move(item));
        return true;
    }
    case Mutation::DeleteItem: {
        std::vector<std::vector<DerNode>*> nonEmpty;
        for (auto* l : lists)
            if (!l->empty())
                nonEmpty.push_back(l);
        if (nonEmpty.empty())
            return false;
        std::vector<DerNode>* list = nonEmpty[Below(nonEmpty.size())];
        list->erase(list->begin() + static_cast<std::ptrdiff_t>(Below(list->size())));
        return true;
    }
    case Mutation::DuplicateItem: {
        const NodeRef ref = nodes[Below(nodes.size())];
        DerNode copy = (*ref.list)[ref.index];
        ref.list->insert(ref.list->begin() + static_cast<std::ptrdiff_t>(ref.index), std::move(copy));
        return true;
    }
    case Mutation::LeafContent: {
        std::vector<DerNode*> leaves;
        for (const NodeRef& r : nodes)
            if (!(*r.list)[r.index].opened)
                leaves.push_back(&(*r.list)[r.index]);
        if (leaves.empty())
            return false;
        DerNode& leaf = *leaves[Below(leaves.size())];
        switch (Below(4)) {
        case 0: // shrink
            leaf.content.resize(Below(leaf.content.size() + 1));
            break;
        case 1: // grow
            for (std::size_t n = 1 + Below(Below(2) ? 4 : 300); n; --n)
                leaf.content.push_back(static_cast<std::uint8_t>(m_rng()));
            break;
        case 2: // empty
            leaf.content.clear();
            break;
        default: // change bytes
            if (!leaf.content.empty()) {
                for (std::size_t n = 1 + Below(3); n; --n)
                    leaf.content[Below(leaf.content.size())] = static_cast<std::uint8_t>(m_rng());
            }
            break;
        }
        return true;
    }
    case Mutation::RetagItem: {
        const NodeRef ref = nodes[Below(nodes.size())];
        DerNode& node = (*ref.list)[ref.index];
        if (node.opened) {
            // Keep the bytes: the node becomes a leaf of the other tag.
            std::vector<DerNode> one{node};
            Bytes encoded = EncodeDer(one);
            std::uint8_t tag = 0;
            std::size_t head = 2, length = 0;
            ReadHead(encoded.data(), encoded.size(), 0, tag, head, length);
            node.content.assign(encoded.begin() + static_cast<std::ptrdiff_t>(head), encoded.end());
            node.children.clear();
            node.opened = node.bitString = false;
        }
        node.tag = kTags[Below(sizeof(kTags))];
        return true;
    }
    default:
        return false;
    }
}

Bytes DerMutator::MutateLengthField(const Bytes& input)
{
    // Find every TLV head by walking the encoding (nested where content is DER).
    std::vector<std::pair<std::size_t, std::size_t>> heads; // (position of length byte, its size)
    std::vector<std::pair<std::size_t, std::size_t>> ranges{{0, input.size()}};
    while (!ranges.empty()) {
        auto [begin, end] = ranges.back();
        ranges.pop_back();
        std::size_t pos = begin;
        while (pos < end) {
            std::uint8_t tag = 0;
            std::size_t head = 0, length = 0;
            if (!ReadHead(input.data(), end, pos, tag, head, length))
                break;
            heads.push_back({pos + 1, head - 1});
            if (heads.size() > 4096)
                break;
            const std::size_t contentBegin = pos + head + (tag == kBitString ? 1 : 0);
            if (((tag & kConstructed) || tag == kOctetString || tag == kBitString) && contentBegin <= pos + head + length)
                ranges.push_back({contentBegin, pos + head + length});
            pos += head + length;
        }
    }
    if (heads.empty())
        return Apply(Mutation::BitFlip, input);
    const auto [at, width] = heads[Below(heads.size())];
    std::size_t old = 0;
    if (width == 1) {
        old = input[at];
    } else {
        for (std::size_t i = 1; i < width; ++i)
            old = (old << 8) | input[at + i];
    }
    Bytes field;
    switch (Below(7)) {
    case 0: field = EncodeLength(old + 1); break;
    case 1: field = EncodeLength(old ? old - 1 : 0); break;
    case 2: field = EncodeLength(Below(old * 2 + 2)); break;
    case 3: field = {0x80}; break;                               // indefinite form
    case 4: field = {0x84, 0xFF, 0xFF, 0xFF, 0xFF}; break;       // as long as it gets
    case 5: field = {0x85, 0x01, 0x00, 0x00, 0x00, 0x00}; break; // longer than 32 bits
    default: {                                                   // non-minimal long form
        field = {0x84, 0, 0, 0, 0};
        for (int i = 0; i < 4; ++i)
            field[4 - i] = static_cast<std::uint8_t>(old >> (8 * i));
        break;
    }
    }
    Bytes out(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(at));
    out.insert(out.end(), field.begin(), field.end());
    out.insert(out.end(), input.begin() + static_cast<std::ptrdiff_t>(at + width), input.end());
    return out;
}

} // namespace nvfuzz
