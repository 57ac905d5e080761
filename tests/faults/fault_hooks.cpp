#include "fault_hooks.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "common/systemlibrary.h"
#include "fault_catalog.h"
#include "pe_image.h"
#include "store_boundary.h"

namespace nvfaults {

namespace {

struct Hook {
    const CatalogEntry* entry = nullptr;
    std::string name; // dll!function
    void* original = nullptr;
    void** slot = nullptr; // the import slot; null for a function the module finds at run time
};

std::vector<Hook> g_hooks;
std::vector<std::string> g_unclassifiedRunTime;
HookSettings g_settings;
ULONG_PTR g_moduleBase = 0;
ULONG_PTR g_moduleEnd = 0;
bool g_armed = false;
std::uint64_t g_calls = 0;
std::uint64_t g_failed = 0;
ULONG_PTR g_failValue = 0;
std::vector<CallRecord> g_records;

// Generated code: one thunk per hooked import, each followed by its unwind data.
//
//   push r9; push r8; push rdx; push rcx; sub rsp, 28h
//   lea rdx, [rsp+28h]         the saved argument registers
//   lea r8, [rsp+48h]          the stack pointer at entry (return address, stack arguments)
//   mov ecx, <index>; mov rax, <Decide>; call rax
//   add rsp, 28h; pop rcx; pop rdx; pop r8; pop r9
//   test eax, eax; jnz fail
//   mov rax, <original>; jmp rax
// fail:
//   mov rax, <&g_failValue>; mov rax, [rax]; ret
constexpr size_t kThunkSize = 0x50;
constexpr size_t kUnwindSize = 0x10;
constexpr size_t kSlotSize = 0x80;
constexpr BYTE kPrologSize = 0x0a;

BYTE* g_code = nullptr;
RUNTIME_FUNCTION* g_functionTable = nullptr;

void CaptureFrames(ULONG_PTR returnAddress, std::vector<std::uint32_t>* frames)
{
    frames->push_back(static_cast<std::uint32_t>(returnAddress - g_moduleBase));
    void* stack[48];
    const USHORT got = RtlCaptureStackBackTrace(0, 48, stack, nullptr);
    bool pastCaller = false;
    for (USHORT i = 0; i < got && frames->size() < 16; ++i) {
        const auto a = reinterpret_cast<ULONG_PTR>(stack[i]);
        if (a < g_moduleBase || a >= g_moduleEnd)
            continue;
        if (!pastCaller) {
            // The innermost frame in the module is the caller itself.
            pastCaller = true;
            if (a == returnAddress)
                continue;
        }
        frames->push_back(static_cast<std::uint32_t>(a - g_moduleBase));
    }
}

void WriteKillRecord(const CallRecord& r)
{
    const std::string text = "killed " + std::to_string(r.number) + "\n" + FormatRecord(r) + "\n";
    HANDLE f = CreateFileW(g_settings.killRecordPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (f == INVALID_HANDLE_VALUE)
        return;
    DWORD written = 0;
    WriteFile(f, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    FlushFileBuffers(f);
    CloseHandle(f);
}

constexpr std::uint64_t kMaxFailedRecords = 20000;

bool IsAllocation(const CatalogEntry& e) { return e.style == FailStyle::NullPointer; }

CallRecord MakeRecord(std::uint64_t number, const std::string& function, bool allocation, ULONG_PTR returnAddress)
{
    CallRecord r;
    r.number = number;
    r.function = function;
    r.allocation = allocation;
    CaptureFrames(returnAddress, &r.frames);
    return r;
}

bool DecideCore(const std::string& function, bool allocation, ULONG_PTR returnAddress)
{
    const std::uint64_t number = ++g_calls;
    switch (g_settings.mode) {
    case Mode::Count:
        g_records.push_back(MakeRecord(number, function, allocation, returnAddress));
        return false;
    case Mode::Kill:
        if (number == g_settings.n) {
            WriteKillRecord(MakeRecord(number, function, allocation, returnAddress));
            TerminateProcess(GetCurrentProcess(), kKilledExitCode);
        }
        return false;
    case Mode::Once:
        if (number != g_settings.n)
            return false;
        break;
    case Mode::From:
        if (number < g_settings.n || allocation)
            return false;
        break;
    case Mode::OomFrom:
        if (number < g_settings.n || !allocation)
            return false;
        break;
    }
    // Every failed call is kept (up to a bound): the sweep charges each loss it
    // excuses to one failed call.
    if (g_failed++ < kMaxFailedRecords)
        g_records.push_back(MakeRecord(number, function, allocation, returnAddress));
    return true;
}

// Called by every thunk: 0 passes the call on, 1 fails it with g_failValue.
extern "C" int Decide(int index, ULONG_PTR* regs, ULONG_PTR* entryStack)
{
    (void)regs;
    if (!g_armed)
        return 0;
    const DWORD lastError = GetLastError();
    const Hook& hook = g_hooks[static_cast<size_t>(index)];
    const CatalogEntry& e = *hook.entry;
    if (!DecideCore(hook.name, IsAllocation(e), entryStack[0])) {
        SetLastError(lastError);
        return 0;
    }
    if (std::strcmp(e.function, "CoCreateInstance") == 0 || std::strcmp(e.function, "CoGetClassObject") == 0) {
        // Their fifth argument, the out pointer, is cleared as the real calls do.
        void** out = reinterpret_cast<void**>(entryStack[5]);
        if (out)
            *out = nullptr;
    }
    switch (e.style) {
    case FailStyle::Win32Result:
    case FailStyle::HResult:
        g_failValue = e.error;
        break;
    case FailStyle::BoolFalse:
    case FailStyle::NullPointer:
    case FailStyle::ZeroInt:
    case FailStyle::Pass:
        g_failValue = 0;
        break;
    }
    SetLastError(e.error);
    return 1;
}

void Put8(BYTE*& p, BYTE b) { *p++ = b; }
void Put32(BYTE*& p, DWORD v)
{
    std::memcpy(p, &v, 4);
    p += 4;
}
void Put64(BYTE*& p, ULONG_PTR v)
{
    std::memcpy(p, &v, 8);
    p += 8;
}
void PutBytes(BYTE*& p, std::initializer_list<BYTE> bytes)
{
    for (BYTE b : bytes)
        *p++ = b;
}

void EmitThunk(BYTE* at, int index, void* original)
{
    BYTE* p = at;
    PutBytes(p, {0x41, 0x51, 0x41, 0x50, 0x52, 0x51});       // push r9, r8, rdx, rcx
    PutBytes(p, {0x48, 0x83, 0xEC, 0x28});                   // sub rsp, 28h
    PutBytes(p, {0x48, 0x8D, 0x54, 0x24, 0x28});             // lea rdx, [rsp+28h]
    PutBytes(p, {0x4C, 0x8D, 0x44, 0x24, 0x48});             // lea r8, [rsp+48h]
    Put8(p, 0xB9);                                           // mov ecx, index
    Put32(p, static_cast<DWORD>(index));
    PutBytes(p, {0x48, 0xB8});                               // mov rax, Decide
    Put64(p, reinterpret_cast<ULONG_PTR>(&Decide));
    PutBytes(p, {0xFF, 0xD0});                               // call rax
    PutBytes(p, {0x48, 0x83, 0xC4, 0x28});                   // add rsp, 28h
    PutBytes(p, {0x59, 0x5A, 0x41, 0x58, 0x41, 0x59});       // pop rcx, rdx, r8, r9
    PutBytes(p, {0x85, 0xC0, 0x75, 0x0C});                   // test eax, eax; jnz fail
    PutBytes(p, {0x48, 0xB8});                               // mov rax, original
    Put64(p, reinterpret_cast<ULONG_PTR>(original));
    PutBytes(p, {0xFF, 0xE0});                               // jmp rax
    PutBytes(p, {0x48, 0xB8});                               // fail: mov rax, &g_failValue
    Put64(p, reinterpret_cast<ULONG_PTR>(&g_failValue));
    PutBytes(p, {0x48, 0x8B, 0x00, 0xC3});                   // mov rax, [rax]; ret

    // Unwind data: the four pushes and the stack allocation, latest first.
    BYTE* u = at + kThunkSize;
    PutBytes(u, {0x01, kPrologSize, 5, 0x00});
    PutBytes(u, {kPrologSize, 0x42}); // alloc small: (4 + 1) * 8 = 28h
    PutBytes(u, {0x06, 0x10});        // push rcx
    PutBytes(u, {0x05, 0x20});        // push rdx
    PutBytes(u, {0x04, 0x80});        // push r8
    PutBytes(u, {0x02, 0x90});        // push r9
    PutBytes(u, {0x00, 0x00});        // padding to an even count
}

// "crypt32.dll" for a module loaded from C:\windows\system32\crypt32.dll.
std::string ModuleFileName(HMODULE module)
{
    char path[MAX_PATH] = {};
    const DWORD n = GetModuleFileNameA(module, path, MAX_PATH);
    const std::string full(path, n);
    const size_t slash = full.find_last_of("\\/");
    return Lower(slash == std::string::npos ? full : full.substr(slash + 1));
}

// Stands in for GetProcAddress in the module's import table. The library finds the
// functions of the libraries it does not import (crypt32, netapi32) through it; an
// address that a hook was made for is answered with the hook's thunk, so those
// calls are counted and failed like imported ones.
FARPROC WINAPI HookGetProcAddress(HMODULE module, LPCSTR name)
{
    FARPROC address = GetProcAddress(module, name);
    if (!address || IS_INTRESOURCE(name))
        return address;
    const DWORD error = GetLastError();
    for (size_t i = 0; i < g_hooks.size(); ++i)
        if (!g_hooks[i].slot && g_hooks[i].original == reinterpret_cast<void*>(address))
            return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(g_code + i * kSlotSize));
    const std::string dll = ModuleFileName(module);
    if (IsCoveredFamily(dll, name) && !FindEntry(dll, name))
        g_unclassifiedRunTime.push_back(dll + "!" + name);
    SetLastError(error);
    return address;
}

struct PlannedHook {
    const CatalogEntry* entry;
    std::string name;
    void* original;
    void** slot;
};

// Hooks for the catalog's failing entries of the libraries the module does not
// import: the functions it can only reach through GetProcAddress.
void PlanRunTimeHooks(const std::vector<ImportSlot>& imports, std::vector<PlannedHook>* plan)
{
    std::vector<std::string> imported;
    for (const ImportSlot& s : imports)
        imported.push_back(Lower(s.dll));
    static const std::vector<CatalogEntry> catalog = Catalog();
    for (const CatalogEntry& e : catalog) {
        if (e.style == FailStyle::Pass || std::find(imported.begin(), imported.end(), e.dll) != imported.end())
            continue;
        // The library's own way of loading these: the system directory only.
        const std::string dll = e.dll;
        const HMODULE library = nv::LoadSystemLibrary(std::wstring(dll.begin(), dll.end()).c_str());
        void* original = library ? reinterpret_cast<void*>(GetProcAddress(library, e.function)) : nullptr;
        if (original)
            plan->push_back({&e, std::string(e.dll) + "!" + e.function, original, nullptr});
    }
}

bool PatchSlot(void** slot, void* target)
{
    DWORD old = 0;
    if (!VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old))
        return false;
    *slot = target;
    VirtualProtect(slot, sizeof(void*), old, &old);
    return true;
}

} // namespace

bool DecideCall(const std::string& function, bool allocation, ULONG_PTR returnAddress)
{
    if (!g_armed)
        return false;
    const DWORD lastError = GetLastError();
    const bool fail = DecideCore(function, allocation, returnAddress);
    SetLastError(lastError);
    return fail;
}

const char* ModeName(Mode mode)
{
    switch (mode) {
    case Mode::Count: return "count";
    case Mode::Once: return "once";
    case Mode::From: return "from";
    case Mode::OomFrom: return "oom-from";
    case Mode::Kill: return "kill";
    }
    return "?";
}

bool ParseMode(const std::string& text, Mode* mode)
{
    for (Mode m : {Mode::Count, Mode::Once, Mode::From, Mode::OomFrom, Mode::Kill})
        if (text == ModeName(m)) {
            *mode = m;
            return true;
        }
    return false;
}

bool Install(HMODULE module, const HookSettings& settings, std::string* error)
{
    g_settings = settings;
    g_moduleBase = reinterpret_cast<ULONG_PTR>(module);
    g_moduleEnd = g_moduleBase + ImageSize(module);
    const std::vector<ImportSlot> imports = ListImports(module);

    std::string unclassified;
    std::vector<PlannedHook> toHook;
    void** getProcAddressSlot = nullptr;
    for (const ImportSlot& s : imports) {
        if (Lower(s.dll) == "kernel32.dll" && s.function == "GetProcAddress")
            getProcAddressSlot = s.slot;
        const CatalogEntry* e = FindEntry(s.dll, s.function);
        if (!e) {
            if (IsCoveredFamily(s.dll, s.function))
                unclassified += " " + Lower(s.dll) + "!" + s.function;
            continue;
        }
        if (e->style != FailStyle::Pass)
            toHook.push_back({e, Lower(s.dll) + "!" + s.function, *s.slot, s.slot});
    }
    if (getProcAddressSlot)
        PlanRunTimeHooks(imports, &toHook);
    if (!unclassified.empty()) {
        *error = "imports of covered families that the fault catalog does not classify:" + unclassified;
        return false;
    }

    const size_t bytes = toHook.size() * kSlotSize + toHook.size() * sizeof(RUNTIME_FUNCTION);
    g_code = static_cast<BYTE*>(VirtualAlloc(nullptr, bytes, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
    if (!g_code) {
        *error = "no memory for the thunks";
        return false;
    }
    g_functionTable = reinterpret_cast<RUNTIME_FUNCTION*>(g_code + toHook.size() * kSlotSize);
    g_hooks.clear();
    g_unclassifiedRunTime.clear();
    for (size_t i = 0; i < toHook.size(); ++i) {
        Hook h;
        h.entry = toHook[i].entry;
        h.name = toHook[i].name;
        h.original = toHook[i].original;
        h.slot = toHook[i].slot;
        g_hooks.push_back(h);
        BYTE* at = g_code + i * kSlotSize;
        // The store's entry points go through the store boundary, which wraps what
        // they hand out.
        EmitThunk(at, static_cast<int>(i), StoreBoundaryEntry(h.name, h.original));
        g_functionTable[i].BeginAddress = static_cast<DWORD>(i * kSlotSize);
        g_functionTable[i].EndAddress = static_cast<DWORD>(i * kSlotSize + kThunkSize);
        g_functionTable[i].UnwindData = static_cast<DWORD>(i * kSlotSize + kThunkSize);
    }
    static_assert(kThunkSize + kUnwindSize <= kSlotSize, "thunk slot too small");
    FlushInstructionCache(GetCurrentProcess(), g_code, bytes);
    if (!RtlAddFunctionTable(g_functionTable, static_cast<DWORD>(toHook.size()), reinterpret_cast<DWORD64>(g_code))) {
        *error = "RtlAddFunctionTable failed";
        return false;
    }
    for (size_t i = 0; i < toHook.size(); ++i)
        if (toHook[i].slot && !PatchSlot(toHook[i].slot, g_code + i * kSlotSize)) {
            *error = "cannot unprotect the import slot of " + g_hooks[i].name;
            return false;
        }
    if (getProcAddressSlot && !PatchSlot(getProcAddressSlot, reinterpret_cast<void*>(&HookGetProcAddress))) {
        *error = "cannot unprotect the import slot of kernel32.dll!GetProcAddress";
        return false;
    }
    return true;
}

std::vector<std::string> UnclassifiedRunTimeImports() { return g_unclassifiedRunTime; }

void Arm() { g_armed = true; }
void Disarm() { g_armed = false; }
bool Armed() { return g_armed; }
const HookSettings& Settings() { return g_settings; }
std::uint64_t CallCount() { return g_calls; }
std::uint64_t FailedCount() { return g_failed; }
const std::vector<CallRecord>& Records() { return g_records; }

std::vector<std::string> HookedImports()
{
    std::vector<std::string> out;
    for (const Hook& h : g_hooks)
        out.push_back(h.name);
    return out;
}

std::string FormatRecord(const CallRecord& r)
{
    std::string s = "call " + std::to_string(r.number) + " " + r.function + (r.allocation ? " alloc " : " api ");
    char hex[16];
    for (size_t i = 0; i < r.frames.size(); ++i) {
        std::snprintf(hex, sizeof(hex), "%s%x", i ? "," : "", r.frames[i]);
        s += hex;
    }
    if (r.frames.empty())
        s += "-";
    return s;
}

bool ParseRecord(const std::string& line, CallRecord* r)
{
    std::istringstream in(line);
    std::string word, kind, frames;
    if (!(in >> word) || word != "call" || !(in >> r->number >> r->function >> kind >> frames) ||
        (kind != "alloc" && kind != "api"))
        return false;
    r->allocation = kind == "alloc";
    r->frames.clear();
    if (frames == "-")
        return true;
    std::istringstream list(frames);
    std::string item;
    while (std::getline(list, item, ','))
        r->frames.push_back(static_cast<std::uint32_t>(std::stoul(item, nullptr, 16)));
    return true;
}

} // namespace nvfaults
