// The converter factory behind CBaseConverter::CreateConverter: a table of the
// database versions this library can upgrade, tried in order.
//
// An entry matches on the database's major version and, where it has one, on an
// extra condition. An entry without a creation function stands for a converter that
// is not part of this build; it never matches, so such a version gets no converter,
// exactly like an unknown one.
#pragma once
#include <windows.h>
#include <cstddef>
#include <new>

class CBaseConverter;

namespace nvframe {

struct ConverterKind {
    WORD major;
    const char* traceLine;                 // written when this kind is chosen
    CBaseConverter* (*create)();           // null: not built into this library
    bool (*applies)();                     // extra condition, null when there is none
};

template <class T>
CBaseConverter* NewConverter()
{
    return new (std::nothrow) T();
}

// The table CBaseConverter::CreateConverter uses.
extern const ConverterKind g_converterKinds[];
extern const std::size_t g_converterKindCount;

// Runs the factory over a table: opens the "CBaseConverter::CreateConverter" scope,
// traces the chosen kind's line or "Returning NULL", and returns the new converter
// or null.
CBaseConverter* CreateConverterFrom(const ConverterKind* kinds, std::size_t count, DWORD dwVersion);

// A 3.0 database still holding MainDB (32-bit view only) needs its 2.0 to 3.0
// converter for rollback and cleanup.
bool DatabaseStillHoldsMainDB();

} // namespace nvframe
