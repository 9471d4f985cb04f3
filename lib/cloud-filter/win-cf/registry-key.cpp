#include "win-cf/registry-key.h"

#include <optional>

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

// Nothing when a text cannot be converted, for want of memory. The empty text that is left would,
// as a name, stand for the key itself, with all that it holds, or for its default value.
std::optional<std::wstring> ToWide(const std::string& text) {
  std::wstring wide = Utf8ToWide(text);
  if (wide.empty() && !text.empty()) {
    return std::nullopt;
  }
  return wide;
}

}  // namespace

RegistryKey::RegistryKey(HKEY rootHive, const std::string& subkey) {
  const std::optional<std::wstring> name = ToWide(subkey);
  if (!name || name->empty()) {
    return;
  }
  HKEY opened = nullptr;
  const LSTATUS status =
      RegCreateKeyExW(rootHive, name->c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, kAccess,
                      nullptr, &opened, nullptr);
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
  const std::optional<std::wstring> wide = ToWide(value);
  return wide ? Write(name, REG_EXPAND_SZ, wide->c_str(), (wide->size() + 1) * sizeof(wchar_t))
              : Write(name, REG_EXPAND_SZ, nullptr, 0);
}

bool RegistryKey::SetValue(const std::string& name, const char* value) {
  return SetValue(name, std::string(value));
}

bool RegistryKey::Write(const std::string& name, DWORD type, const void* data, std::size_t size) {
  if (!IsGood()) {
    Log(kSource, __LINE__, "registry not good");
    return false;
  }
  const std::optional<std::wstring> wide = ToWide(name);
  if (!wide || data == nullptr ||
      FAILED(ToHresult(RegSetValueExW(handle.Get(), wide->c_str(), 0, type,
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
  const std::optional<std::wstring> wide = ToWide(name);
  const HRESULT result =
      wide ? ToHresult(RegDeleteValueW(handle.Get(), wide->c_str())) : E_OUTOFMEMORY;
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
  const std::optional<std::wstring> wide = ToWide(subkey);
  const HRESULT result =
      wide ? ToHresult(RegDeleteTreeW(handle.Get(), wide->empty() ? nullptr : wide->c_str()))
           : E_OUTOFMEMORY;
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to RegDeleteTree, key=", path, " hr=", result);
    return false;
  }
  return true;
}

}  // namespace corvdrive::cloud_filter
