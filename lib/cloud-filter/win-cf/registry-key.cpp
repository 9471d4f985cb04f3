#include "win-cf/registry-key.h"

#include <cwchar>

#include "common/debug-log.h"
#include "common/text.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\registry-key)";

constexpr REGSAM kAccess = KEY_WRITE | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_WOW64_64KEY;
static_assert(kAccess == 0x2010F);

HRESULT ToHresult(LSTATUS status) {
  return status > 0 ? HRESULT_FROM_WIN32(static_cast<DWORD>(status)) : static_cast<HRESULT>(status);
}

// Whether a text could not be converted, for want of memory. The empty text that is left would, as
// a name, stand for the key itself, with all that it holds, or for its default value.
bool IsLost(const WideText& wide, const std::string& text) {
  return *wide.Get() == L'\0' && !text.empty();
}

}  // namespace

RegistryKey::RegistryKey(HKEY rootHive, const std::string& subkey) {
  const WideText name(subkey);
  if (*name.Get() == L'\0') {
    return;
  }
  HKEY opened = nullptr;
  const LSTATUS status = RegCreateKeyExW(rootHive, name.Get(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                         kAccess, nullptr, &opened, nullptr);
  if (FAILED(ToHresult(status))) {
    return;
  }
  handle.Reset(opened);
  root = rootHive;
  path = subkey;
}

bool RegistryKey::SetValue(const std::string& name, const DWORD& value) {
  return Write(name, REG_DWORD, &value, sizeof value);
}

bool RegistryKey::SetValue(const std::string& name, const std::string& value) {
  const WideText wide(value);
  return Write(name, REG_EXPAND_SZ, IsLost(wide, value) ? nullptr : wide.Get(),
               (std::wcslen(wide.Get()) + 1) * sizeof(wchar_t));
}

bool RegistryKey::SetValue(const std::string& name, const char* value) {
  return SetValue(name, std::string(value));
}

bool RegistryKey::Write(const std::string& name, DWORD type, const void* data, std::size_t size) {
  if (!IsGood()) {
    Log(kSource, __LINE__, "registry not good");
    return false;
  }
  const WideText wide(name);
  if (IsLost(wide, name) || data == nullptr ||
      FAILED(ToHresult(RegSetValueExW(handle.Get(), wide.Get(), 0, type,
                                      static_cast<const BYTE*>(data), static_cast<DWORD>(size))))) {
    Log(kSource, __LINE__, "Failed to set value");
    return false;
  }
  return true;
}

bool RegistryKey::DeleteValue(const std::string& name) {
  if (!IsGood()) {
    return false;
  }
  const WideText wide(name);
  const HRESULT result =
      IsLost(wide, name) ? E_OUTOFMEMORY : ToHresult(RegDeleteValueW(handle.Get(), wide.Get()));
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to RegDeleteValue, key=", path, " value=", name, " hr=", result);
    return false;
  }
  return true;
}

bool RegistryKey::DeleteTree(const std::string& subkey) {
  if (!IsGood()) {
    Log(kSource, __LINE__, "reg is not good ", path);
    return false;
  }
  const WideText wide(subkey);
  const HRESULT result =
      IsLost(wide, subkey)
          ? E_OUTOFMEMORY
          : ToHresult(RegDeleteTreeW(handle.Get(), subkey.empty() ? nullptr : wide.Get()));
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to RegDeleteTree, key=", path, " hr=", result);
    return false;
  }
  return true;
}

}  // namespace corvdrive::cloud_filter
