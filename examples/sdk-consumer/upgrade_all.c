/* upgrade_all: every conversion step in one process, in C, loading NVDBConv.dll at
   run time. The library picks its step when it is loaded, so each step is one
   load: load, Convert, free, and again, until the database is converted or a step
   fails. Usage: upgrade_all <full path of NVDBConv.dll>. Exit codes: 0 converted
   (or nothing to convert), 1 a step failed, 2 the library could not be used, 4 the
   last step ran but users stayed in the old database. */
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <stdio.h>

/* One load, one step: the step's result, and the version it was to reach (0 when
   the library offered no step). */
static HRESULT RunOneStep(const wchar_t* dll, DWORD* target)
{
    PFN_NVDBCONV_GETDBVERSION getDBVersion;
    PFN_NVDBCONV_CONVERT convert;
    DWORD current = 0;
    HRESULT hr;
    /* The full path, and dependencies from the system folder only. */
    HMODULE library = LoadLibraryExW(dll, NULL, LOAD_LIBRARY_SEARCH_SYSTEM32);
    *target = 0;
    if (!library)
        return HRESULT_FROM_WIN32(GetLastError());
    getDBVersion = (PFN_NVDBCONV_GETDBVERSION)(void*)GetProcAddress(library, NVDBCONV_EXPORT_GETDBVERSION);
    convert = (PFN_NVDBCONV_CONVERT)(void*)GetProcAddress(library, NVDBCONV_EXPORT_CONVERT);
    if (!getDBVersion || !convert)
        hr = HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
    else if (FAILED(hr = getDBVersion(&current, target)) || *target == 0)
        *target = 0;
    else {
        hr = convert();
        printf("%lu.%lu -> %lu.%lu: 0x%08lX\n", NVDBCONV_VERSION_MAJOR(current), current & 0xFFFFul,
               NVDBCONV_VERSION_MAJOR(*target), *target & 0xFFFFul, (unsigned long)hr);
    }
    FreeLibrary(library);
    return hr;
}

int wmain(int argc, wchar_t** argv)
{
    HRESULT hr = S_OK, com;
    DWORD target = 0;
    if (argc != 2)
        return 2;
    /* The 3.0 step creates the storage server's COM objects on this thread. */
    com = CoInitializeEx(NULL, COINIT_APARTMENTTHREADED);
    /* A 3.0 step that left users behind ends the loop too: running it again at
       once would find them as they are. */
    while (!NVDBConvIsDatabaseLayout30()) {
        hr = RunOneStep(argv[1], &target);
        if (FAILED(hr) || target == 0 || target == NVDBCONV_VERSION_3_0)
            break;
    }
    if (SUCCEEDED(com))
        CoUninitialize();
    if (NVDBConvIsDatabaseLayout30()) {
        printf("converted: format 3.0\n");
        return 0;
    }
    if (FAILED(hr))
        return hr == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) || hr == HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND) ? 2 : 1;
    if (target == 0) {
        printf("nothing to convert\n");
        return 0;
    }
    printf("users stayed in the old database\n");
    return 4;
}
