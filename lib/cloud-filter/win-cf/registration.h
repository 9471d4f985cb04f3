#ifndef NIMBRA_WIN_CF_REGISTRATION_H_
#define NIMBRA_WIN_CF_REGISTRATION_H_

#include <string>

namespace corvdrive::cloud_filter {

// A sync root's description for the shell, under the machine's SyncRootManager key. All texts are
// UTF-8. Failures are logged; nothing that was written is taken back.
struct ShellRegistration {
  const std::string& path;
  const std::string& userName;
  const std::string& identity;

  [[nodiscard]] bool Write(const std::string& text) const;
  [[nodiscard]] bool Delete() const;
};

}  // namespace corvdrive::cloud_filter

#endif
