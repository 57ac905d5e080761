// The store boundary: the library reaches the storage server through
// CoGetClassObject (or CoCreateInstance) and then through interface methods, which
// are no imports. While the hooks are armed, what those two calls hand out for the
// store's class is replaced by a wrapping object, and so is every store interface a
// wrapped method hands out (QueryInterface, CreateInstance, OpenUser). Every method
// of a wrapper, QueryInterface and CreateInstance included, is a numbered call
// "store!<Interface>::<Method>" decided by DecideCall: passed on to the real object,
// failed with the chosen store error without reaching it (interface out-pointers
// cleared, as COM requires of a failed call; other out-parameters left alone, as the
// store's contract has it), or the process ended there. AddRef and Release are not
// counted. A wrapper holds one reference on its real object and gives it back when
// its own count reaches zero; a store method that takes a store object (AddUser) is
// handed the real one, as a proxy would unmarshal it.
#pragma once
#include <windows.h>
#include <string>
#include <vector>

namespace nvfaults {

// The function an import thunk of ole32.dll!CoGetClassObject or CoCreateInstance
// passes its calls on to: one that calls the real function and wraps what it gives
// for the store's class. Any other import: original itself.
void* StoreBoundaryEntry(const std::string& import, void* original);

// True for a numbered call at the store boundary ("store!...").
bool IsStoreCall(const std::string& function);

// The errors a failed store call can return, by name: E_OUTOFMEMORY (the server
// short of memory), RPC_E_DISCONNECTED (the server gone), E_FAIL.
const std::vector<std::string>& StoreErrorNames();
bool ParseStoreError(const std::string& name, HRESULT* hr);

// Every wrapped method, "store!Interface::Method", in interface order.
std::vector<std::string> StoreMethods();

// Wrappers not yet released: 0 once the library has let go of every store object.
long LiveStoreWrappers();

} // namespace nvfaults
