#ifndef NIMBRA_TESTS_NATIVE_WINDOWS_WINDOWS_H_
#define NIMBRA_TESTS_NATIVE_WINDOWS_WINDOWS_H_

// What the library's sources use of Windows, for building them with a native compiler: the types in
// their Windows sizes, and functions whose behaviour the tests set through windows-stand-in.h. Only
// text is converted for real. Sources that need more of Windows are tested under Wine.

#include <cstddef>
#include <cstdint>
#include <type_traits>

static_assert(sizeof(wchar_t) == 2, "compile with -fshort-wchar");

#define WINAPI
#define CALLBACK
#define VOID void
#define TRUE 1
#define FALSE 0
#define MAX_PATH 260

using BOOL = int;
using BOOLEAN = unsigned char;
using BYTE = unsigned char;
using UCHAR = unsigned char;
using CHAR = char;
using WCHAR = wchar_t;
using USHORT = std::uint16_t;
using UINT = std::uint32_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using DWORD = std::uint32_t;
using LONGLONG = std::int64_t;
using DWORDLONG = std::uint64_t;
using ULONG_PTR = std::uint64_t;
using HRESULT = std::int32_t;
using LSTATUS = LONG;
using USN = LONGLONG;
using REGSAM = DWORD;
using PVOID = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPSTR = char*;
using LPCSTR = const char*;
using LPWSTR = wchar_t*;
using PCWSTR = const wchar_t*;
using LPCWSTR = const wchar_t*;
using PDWORD = DWORD*;
using HANDLE = void*;
using PHANDLE = HANDLE*;
using HLOCAL = void*;
using HGDIOBJ = void*;
using FARPROC = std::intptr_t (*)();
using HKEY = struct HkeyRecord*;
using HMODULE = struct HmoduleRecord*;
using HBITMAP = struct HbitmapRecord*;
using PSID = void*;

union LARGE_INTEGER {
  struct {
    DWORD LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
};

struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

struct OVERLAPPED {
  ULONG_PTR Internal;
  ULONG_PTR InternalHigh;
  PVOID Pointer;
  HANDLE hEvent;
};
using LPOVERLAPPED = OVERLAPPED*;

struct FILE_BASIC_INFO {
  LARGE_INTEGER CreationTime;
  LARGE_INTEGER LastAccessTime;
  LARGE_INTEGER LastWriteTime;
  LARGE_INTEGER ChangeTime;
  DWORD FileAttributes;
};

struct _WIN32_FIND_DATAW;
using WIN32_FIND_DATAW = _WIN32_FIND_DATAW;

enum FILE_INFO_BY_HANDLE_CLASS : int {};
enum SID_NAME_USE : int {};

#define DEFINE_ENUM_FLAG_OPERATORS(Type)                                          \
  constexpr Type operator|(Type left, Type right) {                               \
    using Bits = std::underlying_type_t<Type>;                                    \
    return static_cast<Type>(static_cast<Bits>(left) | static_cast<Bits>(right)); \
  }                                                                               \
  constexpr Type operator&(Type left, Type right) {                               \
    using Bits = std::underlying_type_t<Type>;                                    \
    return static_cast<Type>(static_cast<Bits>(left) & static_cast<Bits>(right)); \
  }

#define ERROR_SUCCESS 0L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_MOD_NOT_FOUND 126L
#define ERROR_PROC_NOT_FOUND 127L
#define ERROR_IO_PENDING 997L
#define ERROR_INVALID_FLAGS 1004L

#define STATUS_PENDING \
  DWORD { 0x103 }

#define S_OK \
  HRESULT { 0 }
#define E_FAIL static_cast<HRESULT>(0x80004005)
#define E_POINTER static_cast<HRESULT>(0x80004003)
#define E_OUTOFMEMORY static_cast<HRESULT>(0x8007000E)
#define REGDB_E_WRITEREGDB static_cast<HRESULT>(0x80040151)
#define SUCCEEDED(result) ((result) >= 0)
#define FAILED(result) ((result) < 0)
constexpr HRESULT HRESULT_FROM_WIN32(std::uint64_t error) {
  const auto code = static_cast<std::uint32_t>(error);
  const bool isHresult = code == 0 || (code & 0x80000000U) != 0;
  return static_cast<HRESULT>(isHresult ? code : (code & 0xFFFFU) | 0x80070000U);
}

#define INVALID_HANDLE_VALUE reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(-1))
#define INVALID_FILE_ATTRIBUTES \
  DWORD { 0xFFFFFFFF }
#define FILE_ATTRIBUTE_READONLY 0x1
#define FILE_ATTRIBUTE_DIRECTORY 0x10
#define FILE_ATTRIBUTE_NORMAL 0x80
#define FILE_ATTRIBUTE_OFFLINE 0x1000
#define GENERIC_READ 0x80000000U
#define FILE_SHARE_READ 0x1
#define FILE_SHARE_WRITE 0x2
#define FILE_SHARE_DELETE 0x4
#define OPEN_EXISTING 3
#define FILE_BEGIN 0
#define FILE_FLAG_OVERLAPPED 0x40000000
#define FILE_FLAG_SEQUENTIAL_SCAN 0x08000000
#define FILE_FLAG_BACKUP_SEMANTICS 0x02000000
#define FILE_FLAG_OPEN_REPARSE_POINT 0x00200000
#define FILE_FLAG_OPEN_NO_RECALL 0x00100000
#define MEM_COMMIT 0x1000
#define MEM_RESERVE 0x2000
#define MEM_RELEASE 0x8000
#define PAGE_READWRITE 0x4
#define LOAD_LIBRARY_SEARCH_DEFAULT_DIRS 0x1000
#define GET_MODULE_HANDLE_EX_FLAG_PIN 0x1
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x4
#define HKEY_CURRENT_USER reinterpret_cast<HKEY>(std::intptr_t{-0x7FFFFFFF})
#define HKEY_LOCAL_MACHINE reinterpret_cast<HKEY>(std::intptr_t{-0x7FFFFFFE})
#define KEY_QUERY_VALUE 0x1
#define KEY_ENUMERATE_SUB_KEYS 0x8
#define KEY_WOW64_64KEY 0x100
#define KEY_WRITE 0x20006
#define REG_OPTION_NON_VOLATILE 0
#define REG_EXPAND_SZ 2
#define REG_DWORD 4
#define CP_UTF8 65001
#define CSIDL_LOCAL_APPDATA 0x1C
#define CSIDL_PROGRAM_FILES 0x26
#define CSIDL_PROGRAM_FILESX86 0x2A
#define SHGFP_TYPE_CURRENT 0

DWORD GetLastError();
void SetLastError(DWORD error);
void OutputDebugStringW(LPCWSTR text);
int MultiByteToWideChar(UINT page, DWORD flags, LPCSTR text, int length, LPWSTR buffer,
                        int capacity);
int WideCharToMultiByte(UINT page, DWORD flags, LPCWSTR text, int length, LPSTR buffer,
                        int capacity, LPCSTR defaultChar, BOOL* usedDefault);

HMODULE LoadLibraryExW(LPCWSTR name, HANDLE file, DWORD flags);
FARPROC GetProcAddress(HMODULE module, LPCSTR name);
BOOL FreeLibrary(HMODULE module);
BOOL GetModuleHandleExW(DWORD flags, LPCWSTR name, HMODULE* module);

HANDLE CreateFileW(LPCWSTR path, DWORD access, DWORD share, void* security, DWORD disposition,
                   DWORD flags, HANDLE model);
BOOL CloseHandle(HANDLE handle);
BOOL FindClose(HANDLE search);
BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size);
BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* position, DWORD from);
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD length, DWORD* read, LPOVERLAPPED overlapped);
DWORD GetFileAttributesW(LPCWSTR path);
BOOL GetOverlappedResult(HANDLE file, LPOVERLAPPED record, DWORD* transferred, BOOL wait);
LPVOID VirtualAlloc(LPVOID address, std::size_t size, DWORD type, DWORD protection);
BOOL VirtualFree(LPVOID address, std::size_t size, DWORD type);
HLOCAL LocalFree(HLOCAL memory);
void CoTaskMemFree(LPVOID memory);
BOOL DeleteObject(HGDIOBJ object);

BOOL GetUserNameW(LPWSTR buffer, DWORD* size);
BOOL LookupAccountNameW(LPCWSTR system, LPCWSTR account, PSID sid, DWORD* sidSize, LPWSTR domain,
                        DWORD* domainSize, SID_NAME_USE* use);
BOOL ConvertSidToStringSidW(PSID sid, LPWSTR* text);
HRESULT SHGetFolderPathW(void* window, int csidl, HANDLE token, DWORD flags, LPWSTR path);

LSTATUS RegCreateKeyExW(HKEY root, LPCWSTR subkey, DWORD reserved, LPWSTR type, DWORD options,
                        REGSAM access, const void* security, HKEY* key, DWORD* disposition);
LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD size);
LSTATUS RegDeleteValueW(HKEY key, LPCWSTR name);
LSTATUS RegDeleteTreeW(HKEY key, LPCWSTR subkey);
LSTATUS RegCloseKey(HKEY key);

#endif
