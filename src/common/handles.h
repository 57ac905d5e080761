// RAII owners for every handle kind the library holds. One template, one traits
// struct per kind: the owner closes its handle exactly once, on reset or at the
// end of its scope, and never throws.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <oleauto.h>
#include <objbase.h>
#include <utility>

namespace nv {

template <class Traits>
class unique_handle {
public:
    using pointer = typename Traits::pointer;

    unique_handle() noexcept = default;
    explicit unique_handle(pointer h) noexcept : m_h(h) {}
    unique_handle(const unique_handle&) = delete;
    unique_handle& operator=(const unique_handle&) = delete;
    unique_handle(unique_handle&& other) noexcept : m_h(other.release()) {}
    unique_handle& operator=(unique_handle&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~unique_handle() { reset(); }

    pointer get() const noexcept { return m_h; }
    explicit operator bool() const noexcept { return m_h != Traits::invalid(); }

    pointer release() noexcept
    {
        pointer h = m_h;
        m_h = Traits::invalid();
        return h;
    }

    void reset(pointer h = Traits::invalid()) noexcept
    {
        if (m_h != Traits::invalid())
            Traits::close(m_h);
        m_h = h;
    }

    // Out-parameter access for creation calls; closes what was held first.
    pointer* put() noexcept
    {
        reset();
        return &m_h;
    }

private:
    pointer m_h = Traits::invalid();
};

struct hkey_traits {
    using pointer = HKEY;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { ::RegCloseKey(h); }
};
struct hcryptprov_traits {
    using pointer = HCRYPTPROV;
    static pointer invalid() noexcept { return 0; }
    static void close(pointer h) noexcept { ::CryptReleaseContext(h, 0); }
};
struct hcryptkey_traits {
    using pointer = HCRYPTKEY;
    static pointer invalid() noexcept { return 0; }
    static void close(pointer h) noexcept { ::CryptDestroyKey(h); }
};
struct file_traits {
    using pointer = HANDLE;
    static pointer invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(pointer h) noexcept { ::CloseHandle(h); }
};
struct handle_traits {
    using pointer = HANDLE;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { ::CloseHandle(h); }
};
struct hlocal_traits {
    using pointer = HLOCAL;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { ::LocalFree(h); }
};
struct bstr_traits {
    using pointer = BSTR;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { ::SysFreeString(h); }
};
struct cotaskmem_traits {
    using pointer = void*;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { ::CoTaskMemFree(h); }
};
struct hmodule_traits {
    using pointer = HMODULE;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { ::FreeLibrary(h); }
};

using unique_hkey = unique_handle<hkey_traits>;
// Crypto keys must be destroyed before their provider: declare the provider first.
using unique_hcryptprov = unique_handle<hcryptprov_traits>;
using unique_hcryptkey = unique_handle<hcryptkey_traits>;
using unique_hfile = unique_handle<file_traits>;
using unique_handle_null = unique_handle<handle_traits>;
using unique_hlocal = unique_handle<hlocal_traits>;
using unique_bstr = unique_handle<bstr_traits>;
using unique_cotaskmem = unique_handle<cotaskmem_traits>;
using unique_hmodule = unique_handle<hmodule_traits>;

// A BSTR that held a password or PIN: zeroed over its byte length before it is freed.
struct secure_bstr_traits {
    using pointer = BSTR;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept
    {
        ::SecureZeroMemory(h, ::SysStringByteLen(h));
        ::SysFreeString(h);
    }
};
using unique_secure_bstr = unique_handle<secure_bstr_traits>;

// Owning COM interface pointer.
template <class I>
class com_ptr {
public:
    com_ptr() noexcept = default;
    com_ptr(const com_ptr& o) noexcept : m_p(o.m_p) { if (m_p) m_p->AddRef(); }
    com_ptr(com_ptr&& o) noexcept : m_p(o.m_p) { o.m_p = nullptr; }
    com_ptr& operator=(com_ptr o) noexcept { std::swap(m_p, o.m_p); return *this; }
    ~com_ptr() { reset(); }

    I* get() const noexcept { return m_p; }
    I* operator->() const noexcept { return m_p; }
    explicit operator bool() const noexcept { return m_p != nullptr; }
    void reset() noexcept
    {
        if (m_p) {
            I* p = m_p;
            m_p = nullptr;
            p->Release();
        }
    }
    I** put() noexcept { reset(); return &m_p; }
    void** put_void() noexcept { return reinterpret_cast<void**>(put()); }
    I* detach() noexcept { I* p = m_p; m_p = nullptr; return p; }

    template <class Q>
    HRESULT query(com_ptr<Q>& out) const noexcept
    {
        if (!m_p) { out.reset(); return E_POINTER; }
        return m_p->QueryInterface(__uuidof(Q), out.put_void());
    }

private:
    I* m_p = nullptr;
};

} // namespace nv
