// nvdbconv register and unregister: the library's DllRegisterServer and
// DllUnregisterServer, and the component list they leave.
#include "command_support.h"

#include <nlohmann/json.hpp>

#include "com/componentregistrar.h"
#include "result_codes.h"

namespace nvdbconv {

int Registration(bool doRegister, Printer& out, CLibraryHost& host)
{
    const char* name = doRegister ? "register" : "unregister";
    const char* call = doRegister ? "DllRegisterServer" : "DllUnregisterServer";
    Header(out, name);
    const HRESULT load = host.Load();
    out.Row("library", U8(host.path()));
    out.json["dll"] = U8(host.path());
    out.json["load"] = ResultJson(load);
    if (FAILED(load)) {
        out.Problem("cannot load " + U8(host.path()) + ": " + DescribeResult(load));
        return Finish(out, kExitFailed);
    }
    WarnIfTraceRefused(out, host);
    // Uninstallers unregister without asking first: with no component list there is
    // nothing to remove, and the library's "file not found" for it is no failure.
    const bool listBefore = KeyExists(kSysComponentsKeyPath, 0);
    const HRESULT hr = doRegister ? host.Register() : host.Unregister();
    const bool nothingRegistered = !doRegister && !listBefore && hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    out.Row(call, DescribeResult(hr));
    out.json[doRegister ? "register" : "unregister"] = ResultJson(hr);
    if (!doRegister) {
        out.json["nothingRegistered"] = nothingRegistered;
        if (nothingRegistered)
            out.Row("unregistered", "nothing was registered (no HKLM\\SOFTWARE\\Norvane\\Core\\SysComponents)");
    }
    const auto components = ReadComponents();
    out.Row("components", components.empty() ? std::string("none in HKLM\\SOFTWARE\\Norvane\\Core\\SysComponents")
                                             : Fmt("%zu in HKLM\\SOFTWARE\\Norvane\\Core\\SysComponents",
                                                   components.size()));
    Json list = Json::object();
    for (const auto& [name, text] : components) {
        out.Line("    " + U8(name) + " = " + U8(text));
        list[U8(name)] = U8(text);
    }
    out.json["components"] = list;
    if (FAILED(hr) && !nothingRegistered)
        out.Problem(std::string(call) + " failed: " + DescribeResult(hr));
    return Finish(out, SUCCEEDED(hr) || nothingRegistered ? kExitOk : kExitFailed);
}

} // namespace nvdbconv
