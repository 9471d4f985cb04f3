#include "win-cf/registry-key.h"

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

}  // namespace

RegistryKey::RegistryKey(HKEY rootHive, const std::string& subkey) {
  if (subkey.empty()) {
    return;
  }
  HKEY opened = nullptr;
  const LSTATUS status =
      RegCreateKeyExW(rootHive, Utf8ToWide(subkey).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
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
  const std::wstring wide = Utf8ToWide(value);
  return Write(name, REG_EXPAND_SZ, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
}

bool RegistryKey::SetValue(const std::string& name, const char* value) {
  return SetValue(name, std::string(value));
}

bool RegistryKey::Write(const std::string& name, DWORD type, const void* data, std::size_t size) {
  if (!IsGood()) {
    Log(kSource, __LINE__, "registry not good");
    return false;
  }
  const LSTATUS status = RegSetValueExW(handle.Get(), Utf8ToWide(name).c_str(), 0, type,
                                        static_cast<const BYTE*>(data), static_cast<DWORD>(size));
  if (FAILED(ToHresult(status))) {
    Log(kSource, __LINE__, "Failed to set value");
    return false;
  }
  return true;
}

bool RegistryKey::DeleteValue(const std::string& name) {
  if (!IsGood()) {
    return false;
  }
  const HRESULT result = ToHresult(RegDeleteValueW(handle.Get(), Utf8ToWide(name).c_str()));
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
  const std::wstring wide = Utf8ToWide(subkey);
  const HRESULT result =
      ToHresult(RegDeleteTreeW(handle.Get(), subkey.empty() ? nullptr : wide.c_str()));
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to RegDeleteTree, key=", path, " hr=", result);
    return false;
  }
  return true;
}

}  // namespace corvdrive::cloud_filter
