// Bridges the legacy database writer and the registry sandbox: what the writer
// recorded, as a tree that compares with a registry Snapshot value by value.
#pragma once
#include <algorithm>
#include "support/registry_sandbox.h"
#include "writer/legacy_writer.h"

namespace nvtest {

inline RegTree ToRegTree(const nvwriter::DbRecord& record)
{
    RegTree tree;
    tree.exists = !record.keys.empty();
    tree.keys.assign(record.keys.begin(), record.keys.end());
    std::sort(tree.keys.begin(), tree.keys.end());
    for (const auto& [key, values] : record.values)
        for (const auto& [name, value] : values) {
            RegValue v;
            v.type = value.type;
            v.data = value.data;
            tree.values[key + L"|" + name] = std::move(v);
        }
    return tree;
}

} // namespace nvtest
