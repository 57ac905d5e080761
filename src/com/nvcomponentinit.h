// INVComponentInit: how the suite's host starts and stops one of its components.
#pragma once
#include <windows.h>
#include <unknwn.h>

#include "com/ids.h"

struct INVComponentInit : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Init() = 0;
    virtual HRESULT STDMETHODCALLTYPE Term() = 0;
};

// Lets __uuidof(INVComponentInit) name kIID_INVComponentInit.
#define NV_UUID_DECL_(type, ...) __CRT_UUID_DECL(type, __VA_ARGS__)
NV_UUID_DECL_(INVComponentInit, NV_IID_INVCOMPONENTINIT_PARTS)
