#include "wine-host.h"

#include <windows.h>

#include <memory>

namespace cldapi {
namespace {

using GetUnixFileName = char*(CDECL*)(LPCWSTR);
using GetDosFileName = WCHAR*(CDECL*)(LPCSTR);

template <class Function>
Function KernelFunction(const char* name) noexcept {
  const FARPROC address = GetProcAddress(GetModuleHandleW(L"kernel32.dll"), name);
  return reinterpret_cast<Function>(reinterpret_cast<void*>(address));
}

struct Bridge {
  GetUnixFileName unixFromDos = KernelFunction<GetUnixFileName>("wine_get_unix_file_name");
  GetDosFileName dosFromUnix = KernelFunction<GetDosFileName>("wine_get_dos_file_name");
};

const Bridge& TheBridge() noexcept {
  static const Bridge bridge;
  return bridge;
}

struct HeapDeleter {
  void operator()(void* memory) const noexcept { HeapFree(GetProcessHeap(), 0, memory); }
};

}  // namespace

bool RunsUnderWine() noexcept {
  return TheBridge().unixFromDos != nullptr && TheBridge().dosFromUnix != nullptr;
}

std::optional<std::string> UnixFromDos(const std::wstring& dosPath) {
  const std::unique_ptr<char, HeapDeleter> name(TheBridge().unixFromDos(dosPath.c_str()));
  if (!name) return std::nullopt;
  std::string path(name.get());
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::optional<std::wstring> DosFromUnix(const std::string& unixPath) {
  const std::unique_ptr<WCHAR, HeapDeleter> name(TheBridge().dosFromUnix(unixPath.c_str()));
  if (!name) return std::nullopt;
  return std::wstring(name.get());
}

}  // namespace cldapi
