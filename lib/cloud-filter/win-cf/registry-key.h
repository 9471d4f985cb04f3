#ifndef NIMBRA_WIN_CF_REGISTRY_KEY_H_
#define NIMBRA_WIN_CF_REGISTRY_KEY_H_

#include <windows.h>

#include <string>

#include "common/owners.h"

namespace corvdrive::cloud_filter {

// One opened registry key below a root hive, for writing and deleting; closed with the object.
// Names and values are UTF-8. A key that could not be opened is not good: every operation on it
// then fails. Failures are logged by the operations that say so.
class RegistryKey {
 public:
  // Opens `subkey` below `root` in the 64-bit view, creating it and all keys above it as needed.
  // Silent on failure. An empty `subkey` opens nothing.
  RegistryKey(HKEY root, const std::string& subkey);
  RegistryKey(const RegistryKey&) = delete;
  RegistryKey& operator=(const RegistryKey&) = delete;

  [[nodiscard]] bool IsGood() const { return handle.IsValid(); }

  // Writes a REG_DWORD; logs a failure.
  [[nodiscard]] bool SetValue(const std::string& name, const DWORD& value);
  // Writes a REG_EXPAND_SZ, whatever the text holds; logs a failure.
  [[nodiscard]] bool SetValue(const std::string& name, const std::string& value);
  [[nodiscard]] bool SetValue(const std::string& name, const char* value);

  // Deletes one value of the key; a value that does not exist is a failure. Logs a failure, but
  // not of a key that is not good.
  [[nodiscard]] bool DeleteValue(const std::string& name);
  // Deletes a subkey with all below it; an empty name empties the key itself. Logs a failure.
  [[nodiscard]] bool DeleteTree(const std::string& subkey);

 private:
  // Null data stands for a value that could not be converted: a failure.
  bool Write(const std::string& name, DWORD type, const void* data, std::size_t size);

  HKEY root = nullptr;
  std::string path;
  UniqueRegistryKey handle;
};

}  // namespace corvdrive::cloud_filter

#endif
