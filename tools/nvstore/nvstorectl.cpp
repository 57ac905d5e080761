// nvstorectl: drives the registered store through COM, as any client would.
//
//   nvstorectl list                              users, one per line
//   nvstorectl show <sid>                        what the store holds for a user
//   nvstorectl put-secret <sid> <name> <hex>     stores a secret
//   nvstorectl put-template <sid> <pos> <hex>    stores a template
//   nvstorectl put-payload <sid> <hex>           stores the payload
//   nvstorectl enroll <sid>                      password enrolment (key pair, payload)
//   nvstorectl authenticate <sid>                prints the payload and the failed count
//   nvstorectl register <sid>                    registers the user (AddUser)
//   nvstorectl delete <sid>                      deletes the user
//
// enroll and authenticate read the password from the first line of standard input
// (UTF-8), never from the command line, which other processes of the machine can
// read while the tool runs.
//
// Output is UTF-8 text; failures print "error 0x%08X" on stderr and exit with 1, as
// does a usage error (after the usage text); "show" of an unknown user exits with 2.
#include <windows.h>
#include <objbase.h>
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>
#include "common/handles.h"
#include "common/systemlibrary.h"
#include "common/storecontract.h"
#include "nvstore_inspect.h"

namespace {

using nvstore::inspect::Bytes;
using nvstore::inspect::FromHex;
using nvstore::inspect::ToHex;

struct Failure {
    HRESULT hr;
};

void Check(HRESULT hr)
{
    if (FAILED(hr))
        throw Failure{hr};
}

void Print(const std::wstring& line)
{
    const std::wstring text = line + L"\n";
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                        nullptr);
    std::string utf8(static_cast<size_t>(n), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &utf8[0], n, nullptr, nullptr);
    std::fwrite(utf8.data(), 1, utf8.size(), stdout);
}

Bytes Take(CRYPT_DATA_BLOB& blob)
{
    Bytes out(blob.pbData, blob.pbData + blob.cbData);
    ::CoTaskMemFree(blob.pbData);
    blob = CRYPT_DATA_BLOB{};
    return out;
}

Bytes Hex(const wchar_t* text)
{
    Bytes b;
    if (!FromHex(text, &b)) {
        std::fprintf(stderr, "nvstorectl: '%ls' is not hex (an even number of the digits 0-9, a-f)\n", text);
        throw Failure{E_INVALIDARG};
    }
    return b;
}

template <class I>
nv::com_ptr<I> Create()
{
    nv::com_ptr<I> p;
    Check(::CoCreateInstance(nvstore::kClsidUserStore, nullptr, nvstore::kStoreClassContext, __uuidof(I),
                             p.put_void()));
    return p;
}

template <class I>
nv::com_ptr<I> OpenAs(const wchar_t* sid)
{
    nv::com_ptr<IUserStore> store = Create<IUserStore>();
    nv::com_ptr<IUnknown> user;
    Check(store->OpenUser(sid, nvstore::kUserIdKindSid, user.put()));
    nv::com_ptr<I> out;
    Check(user.query(out));
    return out;
}

nv::com_ptr<IAuthService> AuthService()
{
    nv::com_ptr<IStoreService> service = Create<IStoreService>();
    nv::com_ptr<IAuthService> auth;
    Check(service.query(auth));
    return auth;
}

// The password: the first line of standard input, without its line end, as UTF-8.
// Every buffer that held it is cleared before it goes. No line at all fails with
// ERROR_NO_DATA, bytes that are not UTF-8 with ERROR_NO_UNICODE_TRANSLATION, a
// line longer than kMaxPasswordBytes with E_INVALIDARG.
constexpr DWORD kMaxPasswordBytes = 1024;

Bytes PasswordAuthInfo()
{
    char line[kMaxPasswordBytes + 1];
    wchar_t wide[kMaxPasswordBytes + 1];
    DWORD length = 0;
    bool gotAny = false, ended = false;
    const HANDLE input = ::GetStdHandle(STD_INPUT_HANDLE);
    char c = 0;
    DWORD n = 0;
    while (length <= kMaxPasswordBytes && ::ReadFile(input, &c, 1, &n, nullptr) && n == 1) {
        gotAny = true;
        if (c == '\n') {
            ended = true;
            break;
        }
        line[length++] = c;
    }
    HRESULT hr = S_OK;
    if (!gotAny)
        hr = HRESULT_FROM_WIN32(ERROR_NO_DATA);
    else if (!ended && length > kMaxPasswordBytes)
        hr = E_INVALIDARG;
    if (SUCCEEDED(hr) && length && line[length - 1] == '\r')
        --length;
    int chars = 0;
    if (SUCCEEDED(hr) && length) {
        chars = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, line, static_cast<int>(length), wide,
                                      static_cast<int>(kMaxPasswordBytes));
        if (chars <= 0)
            hr = HRESULT_FROM_WIN32(ERROR_NO_UNICODE_TRANSLATION);
    }
    ::SecureZeroMemory(line, sizeof(line));
    c = 0;
    if (FAILED(hr)) {
        ::SecureZeroMemory(wide, sizeof(wide));
        std::fputs("nvstorectl: the password is read from the first line of standard input\n", stderr);
        throw Failure{hr};
    }
    std::wstring password(wide, static_cast<size_t>(chars));
    ::SecureZeroMemory(wide, sizeof(wide));
    Bytes info;
    try {
        info = nvstore::inspect::BuildPasswordAuthInfo(nvstore::kPasswordAuthKind, password, password);
    } catch (...) {
        ::SecureZeroMemory(&password[0], password.size() * sizeof(wchar_t));
        throw;
    }
    ::SecureZeroMemory(&password[0], password.size() * sizeof(wchar_t));
    return info;
}

int Show(const wchar_t* sid)
{
    nv::com_ptr<IUserStore> store = Create<IUserStore>();
    HRESULT hr = store->UserExists(sid, nvstore::kUserIdKindSid);
    Check(hr);
    if (hr == S_FALSE) {
        Print(std::wstring(L"no user ") + sid);
        return 2;
    }
    nv::com_ptr<IUnknown> user;
    Check(store->OpenUser(sid, nvstore::kUserIdKindSid, user.put()));
    Print(std::wstring(L"user ") + sid);

    nv::com_ptr<IUserSecrets> secrets;
    Check(user.query(secrets));
    std::vector<std::wstring> names;
    for (DWORD i = 0;; ++i) {
        BSTR raw = nullptr;
        hr = secrets->EnumSecrets(i, &raw);
        Check(hr);
        if (hr == S_FALSE)
            break;
        nv::unique_bstr name(raw);
        names.emplace_back(name.get(), ::SysStringLen(name.get()));
    }
    std::sort(names.begin(), names.end());
    for (const std::wstring& name : names) {
        CRYPT_DATA_BLOB blob{};
        Check(secrets->GetSecret(name.c_str(), &blob));
        Print(L"secret " + name + L" " + ToHex(Take(blob)));
    }

    nv::com_ptr<IUserTemplates> templates;
    Check(user.query(templates));
    DWORD mask = 0;
    Check(templates->GetTemplateMask(&mask));
    for (DWORD i = 0; i < 32; ++i) {
        if (mask & (1u << i)) {
            CRYPT_DATA_BLOB blob{};
            Check(templates->GetTemplate(i, &blob));
            Print(L"template " + std::to_wstring(i) + L" " + ToHex(Take(blob)));
        }
    }

    nv::com_ptr<IUserPayload> payload;
    Check(user.query(payload));
    CRYPT_DATA_BLOB blob{};
    hr = payload->GetPayload(&blob);
    Print(SUCCEEDED(hr) ? L"payload " + ToHex(Take(blob)) : std::wstring(L"payload none"));

    nv::com_ptr<IUserProperties> properties;
    if (SUCCEEDED(user.query(properties))) {
        hr = properties->GetProperty(nvstore::kPropertyUserPublicKey, &blob);
        Print(SUCCEEDED(hr) ? L"publickey " + std::to_wstring(Take(blob).size()) : std::wstring(L"publickey none"));
    }

    nv::com_ptr<IUserRegistry> registry = Create<IUserRegistry>();
    hr = registry->CheckUser(sid, nvstore::kUserIdKindSid);
    Check(hr);
    Print(hr == S_OK ? L"registered yes" : L"registered no");
    return 0;
}

int Run(int argc, wchar_t** argv)
{
    const std::wstring cmd = argc > 1 ? argv[1] : L"";
    if (cmd == L"list" && argc == 2) {
        nv::com_ptr<IUserStore> store = Create<IUserStore>();
        std::vector<std::wstring> users;
        for (DWORD i = 0;; ++i) {
            BSTR raw = nullptr;
            DWORD kind = 0;
            const HRESULT hr = store->EnumUsers(i, &raw, &kind);
            Check(hr);
            if (hr == S_FALSE)
                break;
            nv::unique_bstr id(raw);
            users.emplace_back(id.get());
        }
        std::sort(users.begin(), users.end());
        for (const std::wstring& u : users)
            Print(u);
        return 0;
    }
    if (cmd == L"show" && argc == 3)
        return Show(argv[2]);
    if (cmd == L"put-secret" && argc == 5) {
        const Bytes data = Hex(argv[4]);
        CRYPT_DATA_BLOB blob{static_cast<DWORD>(data.size()), const_cast<BYTE*>(data.data())};
        Check(OpenAs<IUserSecrets>(argv[2])->PutSecret(argv[3], &blob));
        return 0;
    }
    if (cmd == L"put-template" && argc == 5) {
        const Bytes data = Hex(argv[4]);
        CRYPT_DATA_BLOB blob{static_cast<DWORD>(data.size()), const_cast<BYTE*>(data.data())};
        Check(OpenAs<IUserTemplates>(argv[2])->PutTemplate(static_cast<DWORD>(std::wcstoul(argv[3], nullptr, 10)),
                                                           &blob));
        return 0;
    }
    if (cmd == L"put-payload" && argc == 4) {
        const Bytes data = Hex(argv[3]);
        CRYPT_DATA_BLOB blob{static_cast<DWORD>(data.size()), const_cast<BYTE*>(data.data())};
        Check(OpenAs<IUserPayload>(argv[2])->PutPayload(&blob));
        return 0;
    }
    if (cmd == L"enroll" && argc == 3) {
        // The service first: once the password is read, nothing may throw before
        // its copy is cleared.
        const nv::com_ptr<IAuthService> auth = AuthService();
        Bytes info = PasswordAuthInfo();
        CRYPT_DATA_BLOB infoBlob{static_cast<DWORD>(info.size()), info.data()};
        CRYPT_DATA_BLOB empty{};
        CRYPT_DATA_BLOB extra{};
        const HRESULT hr = auth->EnrollAuthentication(nvstore::kAuthTypePassword, argv[2], nvstore::kUserIdKindSid,
                                                      &empty, &infoBlob, &extra);
        ::SecureZeroMemory(info.data(), info.size());
        Check(hr);
        Print(L"publickey " + std::to_wstring(Take(extra).size()));
        return 0;
    }
    if (cmd == L"authenticate" && argc == 3) {
        const nv::com_ptr<IAuthService> auth = AuthService(); // before the password, as above
        Bytes info = PasswordAuthInfo();
        CRYPT_DATA_BLOB infoBlob{static_cast<DWORD>(info.size()), info.data()};
        CRYPT_DATA_BLOB payload{}, extra{};
        DWORD failed = 0;
        const HRESULT hr = auth->Authenticate(nvstore::kAuthTypePassword, argv[2], nvstore::kUserIdKindSid, &infoBlob,
                                              &payload, &failed, &extra);
        ::SecureZeroMemory(info.data(), info.size());
        Check(hr);
        Take(extra);
        Print(L"payload " + ToHex(Take(payload)));
        Print(L"failed " + std::to_wstring(failed));
        return 0;
    }
    if (cmd == L"register" && argc == 3) {
        nv::com_ptr<IUserPayload> payload = OpenAs<IUserPayload>(argv[2]);
        Check(Create<IUserRegistry>()->AddUser(payload.get()));
        return 0;
    }
    if (cmd == L"delete" && argc == 3) {
        Check(Create<IUserStore>()->DeleteUser(argv[2], nvstore::kUserIdKindSid));
        return 0;
    }
    std::fputs("usage: nvstorectl list | show <sid> | put-secret <sid> <name> <hex> | put-template <sid> <pos> <hex>\n"
               "       | put-payload <sid> <hex> | enroll <sid> | authenticate <sid>\n"
               "       | register <sid> | delete <sid>\n"
               "enroll and authenticate read the password from the first line of standard input.\n",
               stderr);
    return 1;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    // Before anything else: later loads come from the system directory only.
    nv::RestrictDllSearchToSystemDirectory();
    if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 1;
    int rc = 1;
    try {
        rc = Run(argc, argv);
    } catch (const Failure& f) {
        std::fprintf(stderr, "error 0x%08lX\n", static_cast<unsigned long>(f.hr));
        rc = 1;
    } catch (...) {
        std::fprintf(stderr, "error 0x%08lX\n", static_cast<unsigned long>(E_UNEXPECTED));
        rc = 1;
    }
    std::fflush(stdout);
    ::CoUninitialize();
    return rc;
}
