#include "converter3/conversionpolicy.h"

#include "common/handles.h"
#include "converter3/logoninfoname.h"

namespace nvconv3 {

ConversionPolicy ReadConversionPolicy()
{
    nv::unique_hkey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPolicyKeyPath, 0, KEY_READ, key.put()) != ERROR_SUCCESS)
        return ConversionPolicy::Default;
    DWORD type = REG_NONE;
    DWORD value = 0;
    DWORD cb = sizeof(value);
    if (::RegQueryValueExW(key.get(), kStrictConversionValue, nullptr, &type, reinterpret_cast<BYTE*>(&value), &cb) !=
            ERROR_SUCCESS ||
        type != REG_DWORD || cb != sizeof(value))
        return ConversionPolicy::Default;
    return value == kStrictConversionOn ? ConversionPolicy::Strict : ConversionPolicy::Default;
}

} // namespace nvconv3
