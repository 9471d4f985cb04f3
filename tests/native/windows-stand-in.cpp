#include "windows-stand-in.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace nimbra_native {

WindowsState& Windows() {
  static WindowsState state;
  return state;
}

namespace {

thread_local DWORD lastError = 0;

BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

// Keys and files are allocations: one that is closed twice, or not at all, is a finding.
struct OpenKey {
  std::u16string path;
};
struct OpenFile {};

void CopyText(const std::u16string& text, wchar_t* buffer) {
  std::copy(text.begin(), text.end(), buffer);
  buffer[text.size()] = 0;
}

std::u16string Root(HKEY root) { return root == HKEY_LOCAL_MACHINE ? u"HKLM\\" : u"HKCU\\"; }

std::u16string& PathOf(HKEY key) { return reinterpret_cast<OpenKey*>(key)->path; }

}  // namespace
}  // namespace nimbra_native

using nimbra_native::Fail;
using nimbra_native::OpenFile;
using nimbra_native::OpenKey;
using nimbra_native::PathOf;
using nimbra_native::Units;
using nimbra_native::Windows;

DWORD GetLastError() { return nimbra_native::lastError; }
void SetLastError(DWORD error) { nimbra_native::lastError = error; }
void OutputDebugStringW(LPCWSTR text) { Windows().debugLines.push_back(Units(text)); }

// There is no cldapi.dll.
HMODULE LoadLibraryExW(LPCWSTR /*name*/, HANDLE /*file*/, DWORD /*flags*/) {
  SetLastError(ERROR_MOD_NOT_FOUND);
  return nullptr;
}
FARPROC GetProcAddress(HMODULE /*module*/, LPCSTR /*name*/) {
  SetLastError(ERROR_PROC_NOT_FOUND);
  return nullptr;
}
BOOL FreeLibrary(HMODULE /*module*/) { return Fail(ERROR_INVALID_HANDLE); }
BOOL GetModuleHandleExW(DWORD /*flags*/, LPCWSTR /*name*/, HMODULE* module) {
  *module = nullptr;
  return TRUE;
}

HANDLE CreateFileW(LPCWSTR path, DWORD /*access*/, DWORD /*share*/, void* /*security*/,
                   DWORD /*disposition*/, DWORD /*flags*/, HANDLE /*model*/) {
  Windows().fileOpened = Units(path);
  if (!Windows().filesOpen) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
  }
  ++Windows().openHandles;
  return new OpenFile;
}
BOOL CloseHandle(HANDLE handle) {
  --Windows().openHandles;
  delete static_cast<OpenFile*>(handle);
  return TRUE;
}
BOOL FindClose(HANDLE /*search*/) { return Fail(ERROR_INVALID_HANDLE); }
BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) {
  if (file == INVALID_HANDLE_VALUE) return Fail(ERROR_INVALID_HANDLE);
  size->QuadPart = static_cast<LONGLONG>(Windows().fileContent.size());
  return TRUE;
}
BOOL SetFilePointerEx(HANDLE /*file*/, LARGE_INTEGER distance, LARGE_INTEGER* /*position*/,
                      DWORD /*from*/) {
  if (distance.QuadPart < 0) return Fail(ERROR_INVALID_PARAMETER);
  Windows().filePosition = static_cast<std::size_t>(distance.QuadPart);
  return TRUE;
}
BOOL ReadFile(HANDLE /*file*/, LPVOID buffer, DWORD length, DWORD* read,
              LPOVERLAPPED /*overlapped*/) {
  const std::string& content = Windows().fileContent;
  const std::size_t start = std::min(Windows().filePosition, content.size());
  const std::size_t count = std::min<std::size_t>(length, content.size() - start);
  std::memcpy(buffer, content.data() + start, count);
  Windows().filePosition = start + count;
  *read = static_cast<DWORD>(count);
  return TRUE;
}
DWORD GetFileAttributesW(LPCWSTR /*path*/) { return FILE_ATTRIBUTE_NORMAL; }
BOOL GetOverlappedResult(HANDLE /*file*/, LPOVERLAPPED /*record*/, DWORD* transferred,
                         BOOL /*wait*/) {
  *transferred = 0;
  return TRUE;
}
LPVOID VirtualAlloc(LPVOID /*address*/, std::size_t size, DWORD /*type*/, DWORD /*protection*/) {
  return std::calloc(1, size);
}
BOOL VirtualFree(LPVOID address, std::size_t /*size*/, DWORD /*type*/) {
  std::free(address);
  return TRUE;
}
HLOCAL LocalFree(HLOCAL memory) {
  std::free(memory);
  return nullptr;
}
void CoTaskMemFree(LPVOID memory) { std::free(memory); }
BOOL DeleteObject(HGDIOBJ /*object*/) { return FALSE; }

BOOL GetUserNameW(LPWSTR buffer, DWORD* size) {
  const std::u16string& name = Windows().userName;
  if (name.empty()) return Fail(ERROR_ACCESS_DENIED);
  if (*size <= name.size()) return Fail(ERROR_INSUFFICIENT_BUFFER);
  nimbra_native::CopyText(name, buffer);
  *size = static_cast<DWORD>(name.size() + 1);
  return TRUE;
}

BOOL LookupAccountNameW(LPCWSTR /*system*/, LPCWSTR /*account*/, PSID sid, DWORD* sidSize,
                        LPWSTR domain, DWORD* domainSize, SID_NAME_USE* /*use*/) {
  constexpr DWORD kSidSize = 28;
  constexpr DWORD kDomainSize = 3;
  if (Windows().sid.empty()) return Fail(ERROR_FILE_NOT_FOUND);
  const bool fits = *sidSize >= kSidSize && *domainSize >= kDomainSize;
  *sidSize = kSidSize;
  *domainSize = kDomainSize;
  if (!fits) return Fail(ERROR_INSUFFICIENT_BUFFER);
  std::memset(sid, 1, kSidSize);
  nimbra_native::CopyText(u"PC", domain);
  return TRUE;
}
BOOL ConvertSidToStringSidW(PSID /*sid*/, LPWSTR* text) {
  const std::u16string& sid = Windows().sid;
  *text = static_cast<wchar_t*>(std::malloc((sid.size() + 1) * sizeof(wchar_t)));
  nimbra_native::CopyText(sid, *text);
  return TRUE;
}
HRESULT SHGetFolderPathW(void* /*window*/, int csidl, HANDLE /*token*/, DWORD /*flags*/,
                         LPWSTR path) {
  const auto found = Windows().folders.find(csidl);
  if (found == Windows().folders.end()) return E_FAIL;
  if (found->second.size() >= MAX_PATH) return E_FAIL;
  nimbra_native::CopyText(found->second, path);
  return S_OK;
}

LSTATUS RegCreateKeyExW(HKEY root, LPCWSTR subkey, DWORD /*reserved*/, LPWSTR /*type*/,
                        DWORD /*options*/, REGSAM /*access*/, const void* /*security*/, HKEY* key,
                        DWORD* /*disposition*/) {
  auto opened = std::make_unique<OpenKey>(OpenKey{nimbra_native::Root(root) + Units(subkey)});
  Windows().openedKeys.push_back(opened->path);
  ++Windows().openHandles;
  *key = reinterpret_cast<HKEY>(opened.release());
  return ERROR_SUCCESS;
}
LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD /*reserved*/, DWORD type, const BYTE* data,
                       DWORD size) {
  Windows().values.push_back({PathOf(key), Units(name), type, {data, data + size}});
  return ERROR_SUCCESS;
}
LSTATUS RegDeleteValueW(HKEY /*key*/, LPCWSTR /*name*/) { return ERROR_FILE_NOT_FOUND; }
LSTATUS RegDeleteTreeW(HKEY key, LPCWSTR subkey) {
  Windows().deletedTrees.emplace_back(PathOf(key), subkey == nullptr ? u"" : Units(subkey));
  return ERROR_SUCCESS;
}
LSTATUS RegCloseKey(HKEY key) {
  --Windows().openHandles;
  delete reinterpret_cast<OpenKey*>(key);
  return ERROR_SUCCESS;
}
