#include "tests/faults/functions.h"

#include <winerror.h>

#include <deque>
#include <initializer_list>
#include <map>
#include <string>

#include "common/cloud-files.h"

namespace nimbra_test {
namespace {

using Codes = std::initializer_list<DWORD>;

// A function that gives `result` on failure and says more through the last error.
std::vector<FailureCode> LastErrors(std::uintptr_t result, Codes codes) {
  std::vector<FailureCode> failures;
  for (const DWORD code : codes) {
    failures.push_back({result, code, code});
  }
  return failures;
}
std::vector<FailureCode> Zero(Codes codes) { return LastErrors(0, codes); }
std::vector<FailureCode> InvalidHandle(Codes codes) { return LastErrors(UINTPTR_MAX, codes); }

// A function whose result is a Win32 error.
std::vector<FailureCode> Statuses(Codes codes) {
  std::vector<FailureCode> failures;
  for (const DWORD code : codes) {
    failures.push_back({code, ERROR_SUCCESS, code});
  }
  return failures;
}

std::vector<FailureCode> Hresults(std::initializer_list<HRESULT> codes) {
  std::vector<FailureCode> failures;
  for (const HRESULT code : codes) {
    failures.push_back({static_cast<std::uint32_t>(code), ERROR_SUCCESS, code});
  }
  return failures;
}
template <typename... Win32>
std::vector<FailureCode> CloudErrors(Win32... codes) {
  return Hresults({HRESULT_FROM_WIN32(static_cast<DWORD>(codes))...});
}

constexpr DWORD kCloudUnsuccessful = 389;
constexpr DWORD kCloudInUse = 391;
constexpr DWORD kCloudNotUnderRoot = 390;
constexpr DWORD kCloudCancelled = 398;
constexpr DWORD kCloudNotRunning = 362;

constexpr char kThreadLibrary[] = "of the runtime's thread library, which answers for it";
constexpr char kUnwinding[] = "of the runtime's exceptions: it works on its caller's own frame";
constexpr char kStartUp[] = "of the runtime's start and end";
constexpr char kRuntimeText[] = "of the runtime's locales and formats: cannot fail as used";
constexpr char kCannotFail[] = "cannot fail";

FunctionRow Untouched(const char* name, const char* reason) {
  return {name, Treatment::kUntouched, {}, nullptr, nullptr, reason};
}
FunctionRow Closes(const char* name, const char* resource) {
  return {name, Treatment::kCloses, {}, nullptr, resource, "gives back"};
}
FunctionRow Watched(const char* name, const char* reason) {
  return {name, Treatment::kWatched, {}, nullptr, nullptr, reason};
}
FunctionRow Fails(const char* name, std::vector<FailureCode> failures,
                  const char* opens = nullptr) {
  return {name, Treatment::kFails, std::move(failures), opens};
}

std::vector<FunctionRow> SystemRows() {
  return {
      Fails("ConvertSidToStringSidW", Zero({ERROR_INVALID_SID, ERROR_NOT_ENOUGH_MEMORY}),
            "local text"),
      Fails("GetUserNameW", Zero({ERROR_INSUFFICIENT_BUFFER, ERROR_NO_SUCH_LOGON_SESSION})),
      Fails("LookupAccountNameW", Zero({ERROR_NONE_MAPPED, ERROR_ACCESS_DENIED})),
      Fails("RegCreateKeyExW",
            Statuses({ERROR_ACCESS_DENIED, ERROR_KEY_DELETED, ERROR_NO_SYSTEM_RESOURCES}),
            "registry key"),
      Fails("RegDeleteTreeW", Statuses({ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND})),
      Fails("RegDeleteValueW", Statuses({ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND})),
      Fails("RegSetValueExW", Statuses({ERROR_ACCESS_DENIED, ERROR_NO_SYSTEM_RESOURCES})),
      Closes("RegCloseKey", "registry key"),

      Fails("CreateDIBSection", Zero({ERROR_NOT_ENOUGH_MEMORY}), "bitmap"),
      Closes("DeleteObject", "bitmap"),

      // The wait that follows works on whatever was given.
      Fails("CreateEventW", Zero({ERROR_NO_SYSTEM_RESOURCES, ERROR_ALREADY_EXISTS})),
      Fails("CreateFileW",
            InvalidHandle({ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED,
                           ERROR_SHARING_VIOLATION, kCloudNotRunning})),
      Fails("DeleteFileW", Zero({ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION})),
      Fails("FindFirstFileW", InvalidHandle({ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED}), "search"),
      Fails("FindNextFileW", Zero({ERROR_NO_MORE_FILES, ERROR_ACCESS_DENIED})),
      Fails("GetFileAttributesW",
            LastErrors(INVALID_FILE_ATTRIBUTES, {ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED})),
      Fails("GetFileSizeEx", Zero({ERROR_INVALID_HANDLE, ERROR_ACCESS_DENIED})),
      Fails("GetLongPathNameW", Zero({ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED})),
      Fails("GetModuleHandleExW", Zero({ERROR_MOD_NOT_FOUND})),
      Fails("GetOverlappedResult", Zero({ERROR_OPERATION_ABORTED, ERROR_IO_INCOMPLETE})),
      // Each DLL that it is asked for is failed as LoadLibraryExW:<name>.
      Fails("LoadLibraryExW", Zero({ERROR_MOD_NOT_FOUND, ERROR_ACCESS_DENIED}), "library"),
      Fails("ReadFile", Zero({ERROR_READ_FAULT, ERROR_HANDLE_EOF, ERROR_LOCK_VIOLATION})),
      Fails("SetFileAttributesW", Zero({ERROR_ACCESS_DENIED})),
      Fails("SetFilePointerEx", Zero({ERROR_NEGATIVE_SEEK, ERROR_INVALID_HANDLE})),
      Fails("VirtualAlloc", Zero({ERROR_NOT_ENOUGH_MEMORY, ERROR_COMMITMENT_LIMIT}), "pages"),
      {"MultiByteToWideChar", Treatment::kConverts, Zero({ERROR_NO_UNICODE_TRANSLATION})},
      {"WideCharToMultiByte", Treatment::kConverts, Zero({ERROR_NO_UNICODE_TRANSLATION})},
      // Handles are counted by the system itself; the thread library closes its own, too.
      Closes("CloseHandle", nullptr),
      Closes("FindClose", "search"),
      Closes("FreeLibrary", "library"),
      Closes("LocalFree", "local text"),
      Closes("VirtualFree", "pages"),
      // Each function that it is asked for is failed as GetProcAddress:<name>.
      Watched("GetProcAddress", "failed by the name of what is asked for"),
      Watched("OutputDebugStringW", "has no result"),
      Untouched("VerifyVersionInfoW", "asked at load time only: a failure is an old Windows"),
      Untouched("VerSetConditionMask", kCannotFail),
      Untouched("DisableThreadLibraryCalls", "saves time only; its result is not looked at"),
      Untouched("GetLastError", kCannotFail),
      Untouched("SetLastError", kCannotFail),

      Fails("CoCreateGuid", Hresults({E_FAIL, E_OUTOFMEMORY})),
      Fails("CoCreateInstance", Hresults({REGDB_E_CLASSNOTREG, E_OUTOFMEMORY, E_ACCESSDENIED}),
            "COM reference"),
      Fails("CoInitializeEx", Hresults({RPC_E_CHANGED_MODE, E_OUTOFMEMORY})),
      Fails("CoRegisterClassObject", Hresults({CO_E_OBJISREG, E_ACCESSDENIED})),
      Fails("CoWaitForMultipleHandles", Hresults({E_INVALIDARG, RPC_S_CALLPENDING})),
      Fails("StringFromCLSID", Hresults({E_OUTOFMEMORY}), "task text"),
      Closes("CoTaskMemFree", "task text"),
      // What it says and what the last error says may differ: the log shows the latter.
      Fails("SHCreateDirectory", {{ERROR_PATH_NOT_FOUND, ERROR_WRITE_PROTECT, ERROR_PATH_NOT_FOUND},
                                  {ERROR_ACCESS_DENIED, ERROR_WRITE_PROTECT, ERROR_ACCESS_DENIED},
                                  {ERROR_ALREADY_EXISTS, ERROR_SUCCESS, ERROR_ALREADY_EXISTS}}),
      Fails("SHGetFolderPathW", Hresults({E_FAIL, E_ACCESSDENIED})),
      Fails("PathIsDirectoryEmptyW", Zero({ERROR_PATH_NOT_FOUND})),
      Fails("QISearch", Hresults({E_NOINTERFACE})),
      Fails("SHCreateStreamOnFileW",
            Hresults({static_cast<HRESULT>(0x80070002), E_ACCESSDENIED, E_OUTOFMEMORY}),
            "COM reference"),
  };
}

std::vector<FunctionRow> CloudRows() {
  return {
      Fails("CfGetPlatformInfo", CloudErrors(ERROR_PROC_NOT_FOUND, ERROR_MOD_NOT_FOUND)),
      Fails("CfRegisterSyncRoot", CloudErrors(ERROR_ACCESS_DENIED, kCloudUnsuccessful)),
      Fails("CfUnregisterSyncRoot", CloudErrors(ERROR_ACCESS_DENIED, kCloudNotUnderRoot)),
      Fails("CfConnectSyncRoot", CloudErrors(ERROR_ACCESS_DENIED, kCloudNotUnderRoot)),
      Fails("CfDisconnectSyncRoot", CloudErrors(ERROR_INVALID_HANDLE)),
      Fails("CfGetSyncRootInfoByPath", CloudErrors(kCloudNotUnderRoot, ERROR_MORE_DATA)),
      Fails("CfGetTransferKey", CloudErrors(ERROR_INVALID_HANDLE, kCloudUnsuccessful),
            "transfer key"),
      Closes("CfReleaseTransferKey", "transfer key"),
      Fails("CfExecute", CloudErrors(kCloudCancelled, ERROR_INVALID_PARAMETER)),
      Fails("CfReportProviderProgress", CloudErrors(kCloudUnsuccessful)),
      Fails("CfCreatePlaceholders", CloudErrors(ERROR_ACCESS_DENIED, ERROR_ALREADY_EXISTS)),
      Fails("CfConvertToPlaceholder", CloudErrors(ERROR_ACCESS_DENIED, kCloudInUse)),
      Fails("CfUpdatePlaceholder", CloudErrors(ERROR_ACCESS_DENIED, kCloudInUse)),
      Fails("CfRevertPlaceholder", CloudErrors(ERROR_ACCESS_DENIED, kCloudUnsuccessful)),
      Fails("CfHydratePlaceholder",
            CloudErrors(kCloudUnsuccessful, ERROR_ACCESS_DENIED, ERROR_IO_PENDING)),
      Fails("CfDehydratePlaceholder",
            CloudErrors(kCloudInUse, ERROR_ACCESS_DENIED, ERROR_IO_PENDING)),
      Fails("CfSetPinState", CloudErrors(ERROR_ACCESS_DENIED, ERROR_NOT_SUPPORTED)),
      Fails("CfSetInSyncState", CloudErrors(ERROR_ACCESS_DENIED, ERROR_INVALID_HANDLE)),
      Fails("CfGetPlaceholderInfo", CloudErrors(376, ERROR_ACCESS_DENIED)),
      Fails("CfGetPlaceholderStateFromFindData", {{0, 0, 0}, {0xFFFFFFFF, 0, 0}}),
      Fails("CfReferenceProtectedHandle", Zero({ERROR_SUCCESS})),
      Fails("CfGetWin32HandleFromProtectedHandle", InvalidHandle({ERROR_SUCCESS})),
      Closes("CfReleaseProtectedHandle", nullptr),
  };
}

// Methods of COM interfaces. Those of an interface that have no row must not be called.
std::vector<FunctionRow> ComRows() {
  std::vector<FunctionRow> rows = {
      Fails("IShellLinkW::SetPath", Hresults({E_INVALIDARG, E_OUTOFMEMORY})),
      Fails("IShellLinkW::SetDescription", Hresults({E_OUTOFMEMORY})),
      Fails("IShellLinkW::SetIconLocation", Hresults({E_OUTOFMEMORY})),
      Fails("IShellLinkW::Resolve", Hresults({E_FAIL, E_ACCESSDENIED})),
      Fails("IShellLinkW::GetPath", Hresults({E_FAIL})),
      Fails("IPersistFile::Save", Hresults({STG_E_ACCESSDENIED, STG_E_MEDIUMFULL})),
      Fails("IPersistFile::Load", Hresults({STG_E_ACCESSDENIED, STG_E_FILENOTFOUND})),
      Fails("IWICImagingFactory::CreateDecoderFromStream",
            Hresults({static_cast<HRESULT>(0x88982F50), E_OUTOFMEMORY}), "COM reference"),
      Fails("IWICImagingFactory::CreateFormatConverter", Hresults({E_OUTOFMEMORY}),
            "COM reference"),
      Fails("IWICBitmapDecoder::GetFrame", Hresults({static_cast<HRESULT>(0x88982F62)}),
            "COM reference"),
      Fails("IWICFormatConverter::Initialize", Hresults({static_cast<HRESULT>(0x88982F80)})),
      Fails("IWICBitmapSource::GetSize", Hresults({E_FAIL})),
      Fails("IWICBitmapSource::GetPixelFormat", Hresults({E_FAIL})),
      Fails("IWICBitmapSource::CopyPixels", Hresults({static_cast<HRESULT>(0x88982F60)})),
      Fails("IShellItem2::GetDisplayName", Hresults({E_INVALIDARG, E_OUTOFMEMORY}), "task text"),
  };
  // As long-lived as the table.
  static auto& names = *new std::deque<std::string>;
  for (const char* name :
       {"IShellLinkW", "IPersistFile", "IStream", "IWICImagingFactory", "IWICBitmapDecoder",
        "IWICBitmapSource", "IWICBitmapFrameDecode", "IWICFormatConverter", "IShellItem2"}) {
    names.push_back(std::string(name) + "::QueryInterface");
    rows.push_back(Fails(names.back().c_str(), Hresults({E_NOINTERFACE}), "COM reference"));
    names.push_back(std::string(name) + "::AddRef");
    rows.push_back({names.back().c_str(),
                    Treatment::kWatched,
                    {},
                    "COM reference",
                    nullptr,
                    "counts references"});
    names.push_back(std::string(name) + "::Release");
    rows.push_back(Closes(names.back().c_str(), "COM reference"));
  }
  return rows;
}

// NOLINTNEXTLINE(readability-function-size): a table.
std::vector<FunctionRow> RuntimeRows() {
  std::vector<FunctionRow> rows = {
      {"malloc", Treatment::kAllocates, Zero({ERROR_NOT_ENOUGH_MEMORY})},
      // The C++ heap uses malloc alone. These are the thread library's, for each thread's first use
      // of it, and it does not survive their failure.
      Watched("calloc", kThreadLibrary),
      Watched("realloc", kThreadLibrary),
      {"_strdup", Treatment::kAllocates, Zero({ERROR_NOT_ENOUGH_MEMORY})},
      Closes("free", nullptr),
      Fails("_beginthreadex", Zero({ERROR_NOT_ENOUGH_MEMORY})),
  };
  const std::map<const char*, std::vector<const char*>> untouched = {
      {kThreadLibrary,
       {"AddVectoredExceptionHandler",
        "RemoveVectoredExceptionHandler",
        "CreateEventA",
        "CreateSemaphoreA",
        "ReleaseSemaphore",
        "DuplicateHandle",
        "GetCurrentProcess",
        "GetCurrentProcessId",
        "GetCurrentThread",
        "GetCurrentThreadId",
        "GetHandleInformation",
        "GetProcessAffinityMask",
        "SetProcessAffinityMask",
        "GetSystemTimeAsFileTime",
        "GetThreadContext",
        "SetThreadContext",
        "GetThreadPriority",
        "SetThreadPriority",
        "GetTickCount64",
        "IsDebuggerPresent",
        "LoadLibraryW",
        "GetModuleHandleW",
        "OpenProcess",
        "OutputDebugStringA",
        "ResetEvent",
        "SetEvent",
        "ResumeThread",
        "SuspendThread",
        "Sleep",
        "TlsAlloc",
        "TlsGetValue",
        "TlsSetValue",
        "WaitForMultipleObjects",
        "WaitForSingleObject",
        "DeleteCriticalSection",
        "EnterCriticalSection",
        "TryEnterCriticalSection",
        "InitializeCriticalSection",
        "LeaveCriticalSection",
        "_endthreadex"}},
      {kUnwinding,
       {"RaiseException", "RtlCaptureContext", "RtlLookupFunctionEntry", "RtlUnwindEx",
        "RtlVirtualUnwind", "__C_specific_handler", "_setjmp", "longjmp", "abort"}},
      {kStartUp,
       {"VirtualProtect", "VirtualQuery", "_amsg_exit", "_initterm", "_lock", "_unlock", "exit",
        "signal"}},
      {kRuntimeText,
       {"FormatMessageA",
        "IsDBCSLeadByteEx",
        "___lc_codepage_func",
        "___mb_cur_max_func",
        "__iob_func",
        "_errno",
        "fwprintf",
        "_ultoa",
        "fprintf",
        "fputc",
        "fputs",
        "fputwc",
        "fwrite",
        "iswctype",
        "localeconv",
        "printf",
        "setlocale",
        "strcoll",
        "strerror",
        "strftime",
        "strxfrm",
        "towlower",
        "towupper",
        "vfprintf",
        "wcscoll",
        "wcsftime",
        "wcsxfrm",
        "_read",
        "_close"}},
      {kCannotFail,
       {"memchr", "memcmp", "memcpy", "memmove", "memset", "strcmp", "strlen", "strncmp",
        "wcslen"}}};
  for (const auto& [reason, names] : untouched) {
    for (const char* name : names) {
      rows.push_back(Untouched(name, reason));
    }
  }
  return rows;
}

std::map<std::string_view, FunctionRow> MakeTable() {
  std::map<std::string_view, FunctionRow> table;
  for (auto& rows : {SystemRows(), CloudRows(), ComRows(), RuntimeRows()}) {
    for (const FunctionRow& row : rows) {
      table.emplace(row.name, row);
    }
  }
  return table;
}

}  // namespace

const FunctionRow* FindFunction(std::string_view name) {
  static const auto& table = *new std::map<std::string_view, FunctionRow>(MakeTable());
  const auto found = table.find(name);
  return found == table.end() ? nullptr : &found->second;
}

bool MayBeLoaded(std::string_view library, DWORD folders) {
  static const std::map<std::string_view, DWORD> allowed = {
      {"cldapi.dll", LOAD_LIBRARY_SEARCH_DEFAULT_DIRS},
      {"gdi32.dll", LOAD_LIBRARY_SEARCH_SYSTEM32},
      {"ole32.dll", LOAD_LIBRARY_SEARCH_SYSTEM32},
      {"shell32.dll", LOAD_LIBRARY_SEARCH_SYSTEM32},
      {"shlwapi.dll", LOAD_LIBRARY_SEARCH_SYSTEM32}};
  const auto found = allowed.find(library);
  return found != allowed.end() && found->second == folders;
}

bool Succeeded(const FunctionRow& row, std::uintptr_t result) {
  const std::string_view name = row.name;
  if (name.starts_with("Reg") || name == "SHCreateDirectory") {
    return result == ERROR_SUCCESS;
  }
  if (row.failures.empty() ||
      row.failures[0].result != static_cast<std::uint32_t>(row.failures[0].number)) {
    // By a value that stands for failure.
    return row.failures.empty() || result != row.failures[0].result;
  }
  return SUCCEEDED(static_cast<HRESULT>(result));
}

}  // namespace nimbra_test
