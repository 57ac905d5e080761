// hygiene_probe: runs Convert the way an installer does and then searches its own
// memory for secrets it was never told in plain form.
//
//   hygiene_probe PATTERNS REPORT
//
// PATTERNS holds one search string per line, "<label> <hex>", each byte XORed with
// kMask, so the plain secrets never exist in this process except where the
// conversion put them. Patterns labelled "control-live..." and "control-freed..."
// are planted by the probe itself, in a live and in a freed heap block, to show that
// the search finds what is there. Before Convert, the import tables of the library and of the
// modules it works with (the store, the crypto provider, crypt32, oleaut32, combase)
// are patched so that every block those modules allocate is recorded with its
// owner. After Convert returns, every committed, readable, private region is
// searched; REPORT gets one line per hit:
//
//   hit <label> at 0x... owner <module|stack|unknown> block 0x...+<size> region 0x...+<size>
//
// and a last line "convert 0x%08X". Exit codes: 0 searched, 2 usage or setup error.
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "support/import_patch.h"

namespace {

constexpr std::uint8_t kMask = 0x5A;

// ---- allocation records ----------------------------------------------------------

struct Block {
    std::uintptr_t start;
    std::size_t size;
    int owner;
};
constexpr std::size_t kMaxBlocks = 4 * 1024 * 1024;
Block* g_blocks = nullptr; // VirtualAlloc'd, so recording never allocates from a heap
volatile LONG g_blockCount = 0;

const char* const kOwners[] = {"unknown", "NVDBConv.dll", "NVStore.dll", "rsaenh.dll", "crypt32.dll",
                               "oleaut32.dll", "combase.dll", "ole32.dll", "advapi32.dll", "hygiene_probe"};
// The probe's own blocks (the controls); not a module whose imports are patched.
constexpr int kProbeOwner = 9;
constexpr int kOwnerCount = sizeof(kOwners) / sizeof(kOwners[0]);

void Record(const void* p, std::size_t size, int owner)
{
    if (!p || !g_blocks)
        return;
    const LONG i = ::InterlockedIncrement(&g_blockCount) - 1;
    if (static_cast<std::size_t>(i) < kMaxBlocks)
        g_blocks[i] = {reinterpret_cast<std::uintptr_t>(p), size, owner};
}

// The latest recorded block that contains the address.
const Block* BlockOf(std::uintptr_t address)
{
    LONG n = g_blockCount;
    if (static_cast<std::size_t>(n) > kMaxBlocks)
        n = kMaxBlocks;
    for (LONG i = n - 1; i >= 0; --i) {
        if (address >= g_blocks[i].start && address < g_blocks[i].start + g_blocks[i].size)
            return &g_blocks[i];
    }
    return nullptr;
}

// ---- hooks, one set per owner ----------------------------------------------------

enum Fn { kHeapAlloc, kHeapReAlloc, kRtlAllocateHeap, kRtlReAllocateHeap, kLocalAlloc, kLocalReAlloc, kGlobalAlloc,
          kMalloc, kCalloc, kRealloc, kCoTaskMemAlloc, kCoTaskMemRealloc, kSysAllocString, kSysAllocStringLen,
          kSysAllocStringByteLen, kSysReAllocString, kSysReAllocStringLen, kFnCount };
const char* const kFnNames[kFnCount] = {"HeapAlloc", "HeapReAlloc", "RtlAllocateHeap", "RtlReAllocateHeap",
                                        "LocalAlloc", "LocalReAlloc", "GlobalAlloc", "malloc", "calloc", "realloc",
                                        "CoTaskMemAlloc", "CoTaskMemRealloc", "SysAllocString", "SysAllocStringLen",
                                        "SysAllocStringByteLen", "SysReAllocString", "SysReAllocStringLen"};
void* g_real[kOwnerCount][kFnCount];

template <class F>
F Real(int owner, Fn fn) { return reinterpret_cast<F>(g_real[owner][fn]); }

void RecordBstr(BSTR b, int owner)
{
    if (b)
        Record(reinterpret_cast<BYTE*>(b) - 4, ::SysStringByteLen(b) + 6, owner);
}

template <int O>
struct Hooks {
    // Notes a block the owner O got and hands it on.
    template <class P>
    static P Kept(P p, SIZE_T n)
    {
        Record(p, n, O);
        return p;
    }
    // HeapAlloc and RtlAllocateHeap (and their re-allocs) share a signature: one
    // hook each, told apart by which real function it forwards to.
    template <Fn F>
    static LPVOID WINAPI HeapAllocAs(HANDLE h, DWORD f, SIZE_T n)
    {
        return Kept(Real<decltype(&HeapAllocAs<F>)>(O, F)(h, f, n), n);
    }
    template <Fn F>
    static LPVOID WINAPI HeapReAllocAs(HANDLE h, DWORD f, LPVOID old, SIZE_T n)
    {
        return Kept(Real<decltype(&HeapReAllocAs<F>)>(O, F)(h, f, old, n), n);
    }
    static HLOCAL WINAPI LocalAllocH(UINT f, SIZE_T n)
    {
        HLOCAL p = Real<decltype(&LocalAllocH)>(O, kLocalAlloc)(f, n);
        if (!(f & LMEM_MOVEABLE))
            Record(p, n, O);
        return p;
    }
    static HLOCAL WINAPI LocalReAllocH(HLOCAL old, SIZE_T n, UINT f)
    {
        return Kept(Real<decltype(&LocalReAllocH)>(O, kLocalReAlloc)(old, n, f), n);
    }
    static HGLOBAL WINAPI GlobalAllocH(UINT f, SIZE_T n)
    {
        HGLOBAL p = Real<decltype(&GlobalAllocH)>(O, kGlobalAlloc)(f, n);
        if (!(f & GMEM_MOVEABLE))
            Record(p, n, O);
        return p;
    }
    static void* __cdecl MallocH(size_t n)
    {
        return Kept(Real<decltype(&MallocH)>(O, kMalloc)(n), n);
    }
    static void* __cdecl CallocH(size_t c, size_t n)
    {
        return Kept(Real<decltype(&CallocH)>(O, kCalloc)(c, n), c * n);
    }
    static void* __cdecl ReallocH(void* old, size_t n)
    {
        return Kept(Real<decltype(&ReallocH)>(O, kRealloc)(old, n), n);
    }
    static LPVOID WINAPI CoTaskMemAllocH(SIZE_T n)
    {
        return Kept(Real<decltype(&CoTaskMemAllocH)>(O, kCoTaskMemAlloc)(n), n);
    }
    static LPVOID WINAPI CoTaskMemReallocH(LPVOID old, SIZE_T n)
    {
        return Kept(Real<decltype(&CoTaskMemReallocH)>(O, kCoTaskMemRealloc)(old, n), n);
    }
    static BSTR WINAPI SysAllocStringH(const OLECHAR* s)
    {
        BSTR b = Real<decltype(&SysAllocStringH)>(O, kSysAllocString)(s);
        RecordBstr(b, O);
        return b;
    }
    static BSTR WINAPI SysAllocStringLenH(const OLECHAR* s, UINT n)
    {
        BSTR b = Real<decltype(&SysAllocStringLenH)>(O, kSysAllocStringLen)(s, n);
        RecordBstr(b, O);
        return b;
    }
    static BSTR WINAPI SysAllocStringByteLenH(LPCSTR s, UINT n)
    {
        BSTR b = Real<decltype(&SysAllocStringByteLenH)>(O, kSysAllocStringByteLen)(s, n);
        RecordBstr(b, O);
        return b;
    }
    static INT WINAPI SysReAllocStringH(BSTR* old, const OLECHAR* s)
    {
        INT r = Real<decltype(&SysReAllocStringH)>(O, kSysReAllocString)(old, s);
        if (r && old)
            RecordBstr(*old, O);
        return r;
    }
    static INT WINAPI SysReAllocStringLenH(BSTR* old, const OLECHAR* s, UINT n)
    {
        INT r = Real<decltype(&SysReAllocStringLenH)>(O, kSysReAllocStringLen)(old, s, n);
        if (r && old)
            RecordBstr(*old, O);
        return r;
    }
    static void* Table(Fn fn)
    {
        void* const table[kFnCount] = {
            reinterpret_cast<void*>(&HeapAllocAs<kHeapAlloc>),
            reinterpret_cast<void*>(&HeapReAllocAs<kHeapReAlloc>),
            reinterpret_cast<void*>(&HeapAllocAs<kRtlAllocateHeap>),
            reinterpret_cast<void*>(&HeapReAllocAs<kRtlReAllocateHeap>),
            reinterpret_cast<void*>(&LocalAllocH),        reinterpret_cast<void*>(&LocalReAllocH),
            reinterpret_cast<void*>(&GlobalAllocH),       reinterpret_cast<void*>(&MallocH),
            reinterpret_cast<void*>(&CallocH),            reinterpret_cast<void*>(&ReallocH),
            reinterpret_cast<void*>(&CoTaskMemAllocH),    reinterpret_cast<void*>(&CoTaskMemReallocH),
            reinterpret_cast<void*>(&SysAllocStringH),    reinterpret_cast<void*>(&SysAllocStringLenH),
            reinterpret_cast<void*>(&SysAllocStringByteLenH), reinterpret_cast<void*>(&SysReAllocStringH),
            reinterpret_cast<void*>(&SysReAllocStringLenH)};
        return table[fn];
    }
};

void* HookFor(int owner, Fn fn)
{
    switch (owner) {
    case 1: return Hooks<1>::Table(fn);
    case 2: return Hooks<2>::Table(fn);
    case 3: return Hooks<3>::Table(fn);
    case 4: return Hooks<4>::Table(fn);
    case 5: return Hooks<5>::Table(fn);
    case 6: return Hooks<6>::Table(fn);
    case 7: return Hooks<7>::Table(fn);
    case 8: return Hooks<8>::Table(fn);
    default: return nullptr;
    }
}

// Points the module's import slots of the allocation functions at the owner's hooks;
// the number of slots patched. The patches stay to the end: the probe ends with
// TerminateProcess right after its search.
int PatchImports(HMODULE module, int owner)
{
    std::map<std::string, void*> hooks;
    for (int fn = 0; fn < kFnCount; ++fn)
        hooks.emplace(kFnNames[fn], HookFor(owner, static_cast<Fn>(fn)));
    auto* patch = new nvtest::ImportPatch(module, hooks);
    for (int fn = 0; fn < kFnCount; ++fn)
        g_real[owner][fn] = patch->Original(kFnNames[fn]);
    return static_cast<int>(patch->names().size());
}

// ---- the search ----------------------------------------------------------------

struct Pattern {
    std::string label;
    std::vector<std::uint8_t> masked;
};

bool Readable(DWORD protect)
{
    if (protect & (PAGE_GUARD | PAGE_NOACCESS))
        return false;
    return (protect & (PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE |
                       PAGE_EXECUTE_WRITECOPY)) != 0;
}

std::string Hex(std::uintptr_t v)
{
    char text[32];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(v));
    return text;
}

// Controls, which the search must find: patterns labelled "control-live..." are
// written into a heap block that stays allocated, "control-freed..." into one that is
// freed without being cleared, as a careless owner would leave a secret. Planted
// after Convert, so that the conversion's own allocations cannot reuse the freed one.
bool PlantControls(const std::vector<Pattern>& patterns)
{
    for (const Pattern& p : patterns) {
        const bool live = p.label.rfind("control-live", 0) == 0;
        if (!live && p.label.rfind("control-freed", 0) != 0)
            continue;
        auto* block = static_cast<std::uint8_t*>(::HeapAlloc(::GetProcessHeap(), 0, 256 + p.masked.size()));
        if (!block)
            return false;
        Record(block, 256 + p.masked.size(), kProbeOwner);
        for (std::size_t i = 0; i < p.masked.size(); ++i)
            block[64 + i] = p.masked[i] ^ kMask;
        if (!live)
            ::HeapFree(::GetProcessHeap(), 0, block);
    }
    return true;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: hygiene_probe PATTERNS REPORT\n");
        return 2;
    }
    std::vector<Pattern> patterns;
    {
        std::ifstream in(argv[1]);
        std::string label, hex;
        while (in >> label >> hex) {
            Pattern p{label, {}};
            for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
                p.masked.push_back(static_cast<std::uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
            if (!p.masked.empty())
                patterns.push_back(std::move(p));
        }
    }
    if (patterns.empty()) {
        std::fprintf(stderr, "hygiene_probe: no patterns in the pattern file\n");
        return 2;
    }

    g_blocks = static_cast<Block*>(::VirtualAlloc(nullptr, kMaxBlocks * sizeof(Block), MEM_RESERVE | MEM_COMMIT,
                                                  PAGE_READWRITE));
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);

    wchar_t exe[MAX_PATH];
    ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring dir(exe);
    dir.resize(dir.find_last_of(L'\\') + 1);
    HMODULE library = ::LoadLibraryW((dir + L"NVDBConv.dll").c_str());
    // The store's server from the same folder: the path COM has registered for it, so
    // CoCreateInstance finds this module already loaded.
    HMODULE store = ::LoadLibraryW((dir + L"NVStore.dll").c_str());
    if (!library || !store) {
        std::fprintf(stderr, "hygiene_probe: cannot load NVDBConv.dll or NVStore.dll\n");
        return 2;
    }
    const HMODULE modules[kOwnerCount] = {nullptr, library, store, ::LoadLibraryW(L"rsaenh.dll"),
                                          ::LoadLibraryW(L"crypt32.dll"), ::LoadLibraryW(L"oleaut32.dll"),
                                          ::LoadLibraryW(L"combase.dll"), ::LoadLibraryW(L"ole32.dll"),
                                          ::LoadLibraryW(L"advapi32.dll")};
    std::string patchedText;
    for (int owner = 1; owner < kOwnerCount; ++owner) {
        if (modules[owner])
            patchedText += std::string(" ") + kOwners[owner] + "=" + std::to_string(PatchImports(modules[owner], owner));
    }

    using ConvertFn = HRESULT(WINAPI*)();
    auto convert = reinterpret_cast<ConvertFn>(reinterpret_cast<void*>(::GetProcAddress(library, "Convert")));
    const HRESULT hr = convert ? convert() : E_NOINTERFACE;
    if (!PlantControls(patterns))
        return 2;

    // The stack below this frame was used by the calls that have returned.
    volatile BYTE marker = 0;
    const auto stackHere = reinterpret_cast<std::uintptr_t>(&marker);
    MEMORY_BASIC_INFORMATION stackInfo{};
    ::VirtualQuery(const_cast<BYTE*>(&marker), &stackInfo, sizeof(stackInfo));
    const auto stackLow = reinterpret_cast<std::uintptr_t>(stackInfo.AllocationBase);
    std::uintptr_t stackHigh = stackLow;
    for (MEMORY_BASIC_INFORMATION part{};
         ::VirtualQuery(reinterpret_cast<void*>(stackHigh), &part, sizeof(part)) == sizeof(part) &&
         part.AllocationBase == stackInfo.AllocationBase;)
        stackHigh = reinterpret_cast<std::uintptr_t>(part.BaseAddress) + part.RegionSize;

    FILE* report = _wfopen(argv[2], L"w");
    if (!report)
        return 2;
    std::fprintf(report, "patched%s\n", patchedText.c_str());
    std::fprintf(report, "blocks %ld\n", static_cast<long>(g_blockCount));
    const auto recordsBegin = reinterpret_cast<std::uintptr_t>(g_blocks);
    const auto recordsEnd = recordsBegin + kMaxBlocks * sizeof(Block);

    std::vector<std::size_t> byFirst[256];
    for (std::size_t i = 0; i < patterns.size(); ++i)
        byFirst[patterns[i].masked[0]].push_back(i);

    MEMORY_BASIC_INFORMATION mbi;
    std::uintptr_t address = 0;
    unsigned long long scanned = 0;
    while (::VirtualQuery(reinterpret_cast<void*>(address), &mbi, sizeof(mbi)) == sizeof(mbi)) {
        const auto start = reinterpret_cast<std::uintptr_t>(mbi.BaseAddress);
        const std::uintptr_t end = start + mbi.RegionSize;
        if (end <= address)
            break;
        address = end;
        if (mbi.State != MEM_COMMIT || mbi.Type != MEM_PRIVATE || !Readable(mbi.Protect))
            continue;
        if (start >= recordsBegin && end <= recordsEnd)
            continue;
        scanned += mbi.RegionSize;
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(start);
        for (std::size_t i = 0; i < mbi.RegionSize; ++i) {
            for (const std::size_t index : byFirst[bytes[i] ^ kMask]) {
                const Pattern& p = patterns[index];
                const std::size_t n = p.masked.size();
                if (n > mbi.RegionSize - i)
                    continue;
                std::size_t k = 1;
                while (k < n && (bytes[i + k] ^ kMask) == p.masked[k])
                    ++k;
                if (k != n)
                    continue;
                const std::uintptr_t at = start + i;
                std::string owner = "unknown", block = "-";
                if (at >= stackLow && at < stackHigh) {
                    owner = at < stackHere ? "stack-below" : "stack-live";
                } else if (const Block* b = BlockOf(at)) {
                    owner = kOwners[b->owner];
                    block = Hex(b->start) + "+" + std::to_string(b->size);
                }
                std::fprintf(report, "hit %s at %s owner %s block %s region %s+%llu\n", p.label.c_str(),
                             Hex(at).c_str(), owner.c_str(), block.c_str(), Hex(start).c_str(),
                             static_cast<unsigned long long>(mbi.RegionSize));
            }
        }
    }
    std::fprintf(report, "scanned %llu\n", scanned);
    std::fprintf(report, "convert 0x%08lX\n", static_cast<unsigned long>(hr));
    std::fclose(report);
    std::fflush(stdout);
    // Leave at once: the point of the probe is the state right after Convert.
    ::TerminateProcess(::GetCurrentProcess(), 0);
    return 0;
}
