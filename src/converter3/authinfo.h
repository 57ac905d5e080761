// CNVPasswordAuthInfo: the password authentication info handed to the storage
// server's authentication service when a user's key is enrolled and the user's
// payload is fetched.
//
// The object owns one zero-filled heap block: a 40-byte header followed by the two
// strings, each with its terminating zero. The header holds the kind (32-bit, then
// 4 bytes of zero) and, for each string, its length in bytes (no terminator), its
// maximum length (length + 2), 4 bytes of zero and a pointer to the string inside
// the block. The first string sits at byte 40, the second at 40 + the first
// maximum length.
//
// The encoded form is a byte-for-byte copy of the block, pointers included; those
// still point into this object's block, so a receiver finds the strings by their
// places, and the object must outlive the call that takes the encoded blob. The
// block (and the copy, through CCryptBlob) holds the password: it is zeroed before
// it is freed.
#pragma once
#include <windows.h>
#include <cstddef>
#include "common/cryptblob.h"

class CNVPasswordAuthInfo {
public:
    static constexpr DWORD kHeaderSize = 40;
    static constexpr size_t kKindOffset = 0;
    static constexpr size_t kFirstStringOffset = 8;   // length, maximum length, pad, pointer
    static constexpr size_t kSecondStringOffset = 24;

    // Null strings count as empty. Raises E_INVALIDARG when a string does not fit
    // the 16-bit length fields, E_OUTOFMEMORY when the block cannot be allocated.
    CNVPasswordAuthInfo(DWORD dwKind, const wchar_t* wszFirst, const wchar_t* wszSecond);
    ~CNVPasswordAuthInfo();
    CNVPasswordAuthInfo(const CNVPasswordAuthInfo&) = delete;
    CNVPasswordAuthInfo& operator=(const CNVPasswordAuthInfo&) = delete;

    // Replaces the blob's content by a copy of the block.
    void Encode(nv::CCryptBlob& blob) const;

    const BYTE* Data() const noexcept { return m_pbBlock; }
    DWORD Size() const noexcept { return m_cbBlock; }

private:
    BYTE* m_pbBlock = nullptr;
    DWORD m_cbBlock = 0;
};
