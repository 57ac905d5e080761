// Bridges the legacy database writer and the registry sandbox: what the writer
// recorded, as a tree that compares with a registry Snapshot value by value.
#pragma once
#include <gtest/gtest.h>
#include <algorithm>
#include "support/db_paths.h"
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

// The database in the registry (SOFTWARE\Norvane\DB, in that view) is what the
// writer recorded, value by value.
inline testing::AssertionResult RegistryHoldsRecord(const nvwriter::DbRecord& record, REGSAM view)
{
    const RegTree expected = ToRegTree(record);
    const RegTree actual = Snapshot(kDbPath, view);
    if (expected == actual)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << DiffTrees(expected, actual);
}

// Takes from `tree` the values of the key `rel` (below the database) named in
// [first, last), all but `kept`; how many it took.
template <class It>
size_t EraseValuesNamed(RegTree& tree, const std::wstring& rel, It first, It last, const std::wstring& kept)
{
    size_t erased = 0;
    for (It it = first; it != last; ++it)
        if (*it != kept)
            erased += tree.values.erase(rel + L"|" + *it);
    return erased;
}

// "Version" of the database in the 64-bit view and in the 32-bit view.
inline void SetVersionInBothViews(const wchar_t* version64, const wchar_t* version32)
{
    SetString(kDbPath, L"Version", version64, kView64);
    SetString(kDbPath, L"Version", version32, kView32);
}

} // namespace nvtest
