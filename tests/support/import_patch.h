// ImportPatch: points named entries of a loaded module's import address table at
// other functions, and puts the original addresses back when it is destroyed (so it
// must end before the module is unloaded). A hook calls on through Original().
//
// Names are matched in every DLL the module imports from; imports by ordinal are
// left alone. A slot that cannot be made writable is skipped and reported by ok().
#pragma once
#include <windows.h>
#include <map>
#include <string>
#include <vector>

namespace nvtest {

class ImportPatch {
public:
    // hooks: imported function name -> the function to call instead.
    ImportPatch(HMODULE module, const std::map<std::string, void*>& hooks);
    ~ImportPatch();
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

    // The address the slot of `name` held before it was patched; null when the
    // module does not import it.
    void* Original(const std::string& name) const;
    // The names patched, once per slot, in import table order.
    const std::vector<std::string>& names() const { return m_names; }
    // False when a slot could not be written.
    bool ok() const { return m_ok; }

private:
    struct Slot {
        ULONG_PTR* at;
        ULONG_PTR original;
    };
    static bool Write(ULONG_PTR* at, ULONG_PTR value);

    std::vector<Slot> m_patched;
    std::vector<std::string> m_names;
    std::map<std::string, void*> m_originals;
    bool m_ok = true;
};

} // namespace nvtest
