#include "commands.h"

#include "library_host.h"

namespace nvdbconv {

int Run(const Options& o)
{
    Printer out(o);
    CLibraryHost host(AbsolutePath(o.dll.empty() ? DefaultLibraryPath() : o.dll));
    switch (o.command) {
    case Command::Status:
        return Status(out, host);
    case Command::Convert:
        return Convert(o, out, host);
    case Command::Rollback:
        return Rollback(o, out, host);
    case Command::Cleanup:
        return Cleanup(out, host);
    case Command::Register:
        return Registration(true, out, host);
    case Command::Unregister:
        return Registration(false, out, host);
    case Command::Trace:
        return Trace(o, out, host.path());
    case Command::Version:
        return Version(out, host);
    case Command::Store:
        return Store(out);
    case Command::Policy:
        return Policy(o, out);
    case Command::Upgrade:
        return Upgrade(o, out, host.path());
    case Command::Check:
        return Check(out);
    default:
        WriteErr(ShortUsageText());
        return kExitUsage;
    }
}

} // namespace nvdbconv
