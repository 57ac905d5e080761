#include "common/cryptblob.h"

#include <cstring>
#include "common/hresult.h"

namespace nv {

template <class Allocator>
BYTE* CCryptBlobT<Allocator>::Allocate(DWORD cb)
{
    BYTE* p = static_cast<BYTE*>(Allocator::Alloc(cb));
    if (!p)
        ThrowHr(E_OUTOFMEMORY);
    Free();
    pbData = p;
    cbData = cb;
    return p;
}

template <class Allocator>
void CCryptBlobT<Allocator>::Assign(const BYTE* data, DWORD cb)
{
    BYTE* p = static_cast<BYTE*>(Allocator::Alloc(cb));
    if (!p)
        ThrowHr(E_OUTOFMEMORY);
    if (cb && data)
        std::memcpy(p, data, cb);
    Free();
    pbData = p;
    cbData = cb;
}

template class CCryptBlobT<HeapBlobAllocator>;
template class CCryptBlobT<CoTaskBlobAllocator>;

} // namespace nv
