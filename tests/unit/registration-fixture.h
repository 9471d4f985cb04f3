#ifndef NIMBRA_TESTS_UNIT_REGISTRATION_FIXTURE_H_
#define NIMBRA_TESTS_UNIT_REGISTRATION_FIXTURE_H_

#include <windows.h>
// windows.h first.
#include <sddl.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "nimbra/nimbra.h"
#include "tests/support/import-double.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/registry-tree.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"

namespace nimbra_test {

inline constexpr HRESULT kRegistryFailure = static_cast<HRESULT>(0x80040151);
inline constexpr char kManager[] =
    R"(SOFTWARE\Microsoft\Windows\CurrentVersion\Explorer\SyncRootManager\)";

using LookupDouble = ImportDouble<"LookupAccountNameW", decltype(&::LookupAccountNameW)>;
using ConvertSidDouble =
    ImportDouble<"ConvertSidToStringSidW", decltype(&::ConvertSidToStringSidW)>;

// The text of the SID under which this program runs, found by the account's name.
inline std::wstring UserSid() {
  wchar_t user[257];
  DWORD userLength = 257;
  BYTE sid[SECURITY_MAX_SID_SIZE];
  DWORD sidSize = sizeof sid;
  wchar_t domain[257];
  DWORD domainLength = 257;
  SID_NAME_USE use{};
  wchar_t* text = nullptr;
  if (!GetUserNameW(user, &userLength) ||
      !LookupAccountNameW(nullptr, user, sid, &sidSize, domain, &domainLength, &use) ||
      !ConvertSidToStringSidW(sid, &text)) {
    throw std::runtime_error("cannot find the user's SID");
  }
  std::wstring result(text);
  LocalFree(text);
  return result;
}

// Several of these programs may run in one registry: each has sessions of its own.
inline std::uint64_t NextSession() {
  static std::uint64_t next = std::uint64_t{GetCurrentProcessId()} * 1000;
  return ++next;
}

class RegistrationFixture : public NimbraTest {
 protected:
  explicit RegistrationFixture(std::string path = R"(C:\Users\me\My Files)")
      : path_(std::move(path)), root_(path_, session_) {}

  std::string Identity() const {
    return "Corvane.Drive.FileStreaming.session." + std::to_string(session_);
  }
  std::string KeyName() const { return "CorvaneDrive!" + Narrow(sid_) + "!" + Identity(); }
  std::string KeyPath() const { return kManager + KeyName(); }

  HRESULT Register(const char* text = "Team") {
    return CORVWinCFSyncRootRegister(root_.Get(), text);
  }

  const std::wstring sid_ = UserSid();
  const std::uint64_t session_ = NextSession();
  const std::string path_;
  RegistryTree entry_{HKEY_LOCAL_MACHINE, Wide(KeyPath())};
  SyncRoot root_;
};

// The ways in which the user's SID cannot be found; each leaves it empty.
struct SidFailure {
  const char* name;
  // The last error of the first look-up, or nothing when that call succeeds out of turn.
  std::optional<DWORD> sizesError;
  bool secondFails;
  bool conversionFails;
  int lookups;
};

inline const SidFailure kSidFailures[] = {
    {"unknown account", ERROR_NONE_MAPPED, false, false, 1},
    {"access denied", ERROR_ACCESS_DENIED, false, false, 1},
    {"sizes without an error", std::nullopt, false, false, 1},
    {"second look-up fails", ERROR_INSUFFICIENT_BUFFER, true, false, 2},
    {"conversion fails", ERROR_INSUFFICIENT_BUFFER, false, true, 2},
};

class FailingSid {
 public:
  explicit FailingSid(const SidFailure& failure)
      : lookup_([this, failure](LookupDouble::Function original, LPCWSTR system, LPCWSTR account,
                                PSID sid, LPDWORD sidSize, LPWSTR domain, LPDWORD domainSize,
                                PSID_NAME_USE use) -> BOOL {
          ++lookups_;
          if (lookups_ == 1 && failure.sizesError != ERROR_INSUFFICIENT_BUFFER) {
            SetLastError(failure.sizesError.value_or(ERROR_SUCCESS));
            return failure.sizesError ? FALSE : TRUE;
          }
          if (lookups_ == 2 && failure.secondFails) {
            SetLastError(ERROR_NONE_MAPPED);
            return FALSE;
          }
          return original(system, account, sid, sidSize, domain, domainSize, use);
        }),
        convert_([failure](ConvertSidDouble::Function original, PSID sid, LPWSTR* text) -> BOOL {
          if (failure.conversionFails) {
            SetLastError(ERROR_INVALID_SID);
            return FALSE;
          }
          return original(sid, text);
        }) {}

  int Lookups() const { return lookups_; }

 private:
  int lookups_ = 0;
  LookupDouble lookup_;
  ConvertSidDouble convert_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_UNIT_REGISTRATION_FIXTURE_H_
