#include <windows.h>
// windows.h first.
#include <shlobj.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/registry-watch.h"
#include "tests/unit/registration-fixture.h"

namespace {

using nimbra_test::CloudFunction;
using nimbra_test::ConvertSidDouble;
using nimbra_test::FailingSid;
using nimbra_test::IsLogLine;
using nimbra_test::kAccessDenied;
using nimbra_test::kManager;
using nimbra_test::kRegistryFailure;
using nimbra_test::kRegistryKeySource;
using nimbra_test::kSidFailures;
using nimbra_test::kSyncRootSource;
using nimbra_test::LookupDouble;
using nimbra_test::NextSession;
using nimbra_test::RegisterSyncRootCall;
using nimbra_test::RegistryCall;
using nimbra_test::RegistryFunction;
using nimbra_test::RegistryWatch;
using nimbra_test::SidFailure;
using nimbra_test::StoredNumber;
using nimbra_test::StoredText;
using nimbra_test::SyncRoot;
using nimbra_test::UserSid;
using nimbra_test::Wide;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr wchar_t kThumbnailProvider[] = L"{D35B8E20-61C4-4A97-B2F3-08E6C1A7D594}";

using FolderPathDouble =
    nimbra_test::ImportDouble<"SHGetFolderPathW", decltype(&::SHGetFolderPathW)>;
using LocalFreeDouble = nimbra_test::ImportDouble<"LocalFree", decltype(&::LocalFree)>;

class RegistrationTest : public nimbra_test::RegistrationFixture {};

std::vector<std::wstring> TextNames(const std::vector<RegistryCall>& calls) {
  std::vector<std::wstring> names;
  for (const RegistryCall& call : calls) {
    names.push_back(call.name.value_or(L"(null)"));
  }
  return names;
}

TEST_F(RegistrationTest, RegisterWritesTheWholeRegistryEntry) {
  wchar_t programs[MAX_PATH];
  ASSERT_EQ(
      SHGetFolderPathW(nullptr, CSIDL_PROGRAM_FILESX86, nullptr, SHGFP_TYPE_CURRENT, programs),
      S_OK);

  EXPECT_EQ(Register(), S_OK);

  EXPECT_EQ(entry_.ValueNames(),
            (std::vector<std::wstring>{L"DisplayNameResource", L"Flags", L"IconResource",
                                       L"ThumbnailProvider"}));
  EXPECT_EQ(entry_.Value(L"", L"DisplayNameResource"),
            StoredText(REG_EXPAND_SZ, L"Corvane Drive (Team, My Files)"));
  EXPECT_EQ(entry_.Value(L"", L"IconResource"),
            StoredText(REG_EXPAND_SZ,
                       std::wstring(programs) + L"\\Corvane\\CorvaneDrive\\bin\\launcher.exe, 0"));
  EXPECT_EQ(entry_.Value(L"", L"Flags"), StoredNumber(98));
  EXPECT_EQ(entry_.Value(L"", L"ThumbnailProvider"), StoredText(REG_EXPAND_SZ, kThumbnailProvider));
  EXPECT_EQ(entry_.SubkeyNames(), std::vector<std::wstring>{L"UserSyncRoots"});
  EXPECT_EQ(entry_.ValueNames(L"UserSyncRoots"), std::vector<std::wstring>{sid_});
  EXPECT_EQ(entry_.Value(L"UserSyncRoots", sid_), StoredText(REG_EXPAND_SZ, Wide(path_)));
  EXPECT_THAT(entry_.SubkeyNames(L"UserSyncRoots"), IsEmpty());
}

TEST_F(RegistrationTest, RegisterLogsTheSuccessAndTheInvertedThumbnailOutcome) {
  EXPECT_EQ(Register(), S_OK);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kSyncRootSource, "register thumbnail provider failed"),
                          IsLogLine(kSyncRootSource, "Succeed to register sync root: " + path_ +
                                                         " identity: " + Identity())));
}

TEST_F(RegistrationTest, RegisterWritesInOrderAndClosesItsKeys) {
  const RegistryWatch registry;

  EXPECT_EQ(Register(), S_OK);

  const auto created = registry.CallsOf(RegistryFunction::CreateKey);
  ASSERT_EQ(created.size(), 2u);
  EXPECT_EQ(created[0].key, HKEY_LOCAL_MACHINE);
  EXPECT_EQ(created[0].name, Wide(KeyPath()));
  EXPECT_EQ(created[1].key, HKEY_LOCAL_MACHINE);
  EXPECT_EQ(created[1].name, Wide(KeyPath() + R"(\UserSyncRoots)"));
  const auto set = registry.CallsOf(RegistryFunction::SetValue);
  EXPECT_THAT(TextNames(set), ElementsAre(L"DisplayNameResource", L"IconResource", L"Flags",
                                          L"ThumbnailProvider", sid_));
  ASSERT_EQ(set.size(), 5u);
  for (int value = 0; value < 4; ++value) {
    EXPECT_EQ(set[static_cast<std::size_t>(value)].key, created[0].opened);
  }
  EXPECT_EQ(set[4].key, created[1].opened);
  EXPECT_EQ(registry.StillOpen(), 0);
}

TEST_F(RegistrationTest, RegisterTellsThePlatformTheWholeRecord) {
  EXPECT_EQ(Register(), S_OK);

  const auto call = cloud_.Only<RegisterSyncRootCall>();
  EXPECT_EQ(call.path, Wide(path_));
  EXPECT_EQ(call.structSize, 72u);
  EXPECT_EQ(call.providerName, L"CorvaneDrive");
  EXPECT_EQ(call.providerVersion, L"1.1");
  EXPECT_EQ(call.syncRootIdentity, Identity()) << "without a terminating zero";
  EXPECT_EQ(call.syncRootIdentityLength, Identity().size());
  EXPECT_EQ(call.fileIdentity, std::nullopt);
  EXPECT_EQ(call.fileIdentityLength, 0u);
  EXPECT_TRUE(IsEqualGUID(call.providerId, GUID{}));
  EXPECT_EQ(static_cast<int>(call.flags), 2);
  EXPECT_THAT(cloud_.CallNames(), ElementsAre("CfRegisterSyncRoot"));
}

TEST_F(RegistrationTest, RegisterTellsThePlatformThePolicies) {
  EXPECT_EQ(Register(), S_OK);

  const CF_SYNC_POLICIES policies = cloud_.Only<RegisterSyncRootCall>().policies;
  EXPECT_EQ(policies.StructSize, 24u);
  const auto* const words = reinterpret_cast<const std::uint16_t*>(&policies);
  EXPECT_EQ(words[2], 2) << "hydration: full";
  EXPECT_EQ(words[3], 4) << "hydration: automatic dehydration allowed";
  EXPECT_EQ(words[4], 3) << "population: always full";
  EXPECT_EQ(words[5], 0);
  const auto* const numbers = reinterpret_cast<const std::uint32_t*>(&policies);
  EXPECT_EQ(numbers[3], 0x80000000u) << "in sync: the engine's own changes";
  EXPECT_EQ(numbers[4], 0u) << "hard links";
  EXPECT_EQ(numbers[5], 0u) << "placeholder management";
}

TEST_F(RegistrationTest, ThePoliciesAreOneValueForTheWholeProcess) {
  EXPECT_EQ(Register(), S_OK);
  EXPECT_EQ(CORVWinCFSyncRootReregister(root_.Get(), "Team"), S_OK);
  const auto calls = cloud_.CallsOf<RegisterSyncRootCall>();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].policiesAddress, calls[1].policiesAddress);
}

TEST_F(RegistrationTest, ReregisterDoesTheSameWithTheUpdateFlag) {
  EXPECT_EQ(Register("First"), S_OK);
  entry_.SetNumber(L"", L"Flags", 0);
  log_.Clear();

  EXPECT_EQ(CORVWinCFSyncRootReregister(root_.Get(), "Second"), S_OK);

  const auto calls = cloud_.CallsOf<RegisterSyncRootCall>();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(static_cast<int>(calls[0].flags), 2);
  EXPECT_EQ(static_cast<int>(calls[1].flags), 3);
  EXPECT_EQ(calls[1].path, calls[0].path);
  EXPECT_EQ(calls[1].syncRootIdentity, calls[0].syncRootIdentity);
  EXPECT_EQ(entry_.Value(L"", L"DisplayNameResource"),
            StoredText(REG_EXPAND_SZ, L"Corvane Drive (Second, My Files)"));
  EXPECT_EQ(entry_.Value(L"", L"Flags"), StoredNumber(98));
  EXPECT_EQ(entry_.ValueNames().size(), 4u);
  EXPECT_EQ(entry_.ValueNames(L"UserSyncRoots"), std::vector<std::wstring>{sid_});
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kSyncRootSource, "register thumbnail provider failed"),
                          IsLogLine(kSyncRootSource, "Succeed to register sync root: " + path_ +
                                                         " identity: " + Identity())));
}

TEST_F(RegistrationTest, TheEntryIsCompleteBeforeThePlatformIsTold) {
  std::vector<std::wstring> values;
  std::vector<std::wstring> users;
  cloud_.OnCall(CloudFunction::RegisterSyncRoot, [&] {
    values = entry_.ValueNames();
    users = entry_.ValueNames(L"UserSyncRoots");
  });
  EXPECT_EQ(Register(), S_OK);
  EXPECT_EQ(values.size(), 4u);
  EXPECT_EQ(users.size(), 1u);
}

TEST_F(RegistrationTest, APlatformFailureIsLoggedAndHandedBackAndTheEntryStays) {
  for (const HRESULT failure : {kAccessDenied, static_cast<HRESULT>(0x8007112A),
                                static_cast<HRESULT>(0x80070178), E_FAIL}) {
    SCOPED_TRACE(failure);
    log_.Clear();
    cloud_.FailNext(CloudFunction::RegisterSyncRoot, failure);
    EXPECT_EQ(Register(), failure);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(kSyncRootSource, "register thumbnail provider failed"),
                            IsLogLine(kSyncRootSource,
                                      "Failed to register sync root " + std::to_string(failure))));
  }
  EXPECT_EQ(entry_.ValueNames().size(), 4u);
}

TEST_F(RegistrationTest, APlatformResultThatIsNotNegativeIsASuccess) {
  cloud_.FailNext(CloudFunction::RegisterSyncRoot, S_FALSE);
  EXPECT_EQ(Register(), S_FALSE);
  EXPECT_THAT(log_.Lines().back(),
              IsLogLine(kSyncRootSource,
                        "Succeed to register sync root: " + path_ + " identity: " + Identity()));
}

struct DisplayRow {
  const char* path;
  const char* text;
  const char* display;
};

class DisplayNameTest : public nimbra_test::NimbraTest,
                        public testing::WithParamInterface<DisplayRow> {};

TEST_P(DisplayNameTest, NamesTheTextAndTheFolder) {
  const std::uint64_t session = NextSession();
  const nimbra_test::RegistryTree entry(
      HKEY_LOCAL_MACHINE, Wide(kManager) + L"CorvaneDrive!" + UserSid() +
                              L"!Corvane.Drive.FileStreaming.session." + std::to_wstring(session));
  const SyncRoot root(GetParam().path, session);

  EXPECT_EQ(CORVWinCFSyncRootRegister(root.Get(), GetParam().text), S_OK);

  EXPECT_EQ(entry.Value(L"", L"DisplayNameResource"),
            StoredText(REG_EXPAND_SZ, Wide(GetParam().display)));
  EXPECT_EQ(entry.Value(L"UserSyncRoots", UserSid()),
            StoredText(REG_EXPAND_SZ, Wide(GetParam().path)));
  EXPECT_EQ(cloud_.Only<RegisterSyncRootCall>().path, Wide(GetParam().path));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, DisplayNameTest,
    testing::Values(
        DisplayRow{R"(C:\Users\me\Files)", "Team", "Corvane Drive (Team, Files)"},
        DisplayRow{"NoBackslash", "Team", "Corvane Drive (Team, NoBackslash)"},
        DisplayRow{"C:/with/slashes", "Team", "Corvane Drive (Team, C:/with/slashes)"},
        DisplayRow{R"(C:\mixed/name)", "Team", "Corvane Drive (Team, mixed/name)"},
        DisplayRow{R"(C:\trailing\)", "Team", "Corvane Drive (Team, )"},
        DisplayRow{R"(C:\)", "", "Corvane Drive (, )"}, DisplayRow{"", "", "Corvane Drive (, )"},
        DisplayRow{
            "C:\\\xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x98\x80", "J\xC3\xB6rg, 100%",
            "Corvane Drive (J\xC3\xB6rg, 100%, \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x98\x80)"}));

TEST_F(RegistrationTest, AMissingLauncherEndsTheRegistration) {
  const FolderPathDouble folder([](FolderPathDouble::Function original, HWND window, int which,
                                   HANDLE token, DWORD flags, LPWSTR path) {
    return which == CSIDL_PROGRAM_FILESX86 ? E_FAIL : original(window, which, token, flags, path);
  });

  EXPECT_EQ(Register(), kRegistryFailure);

  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kSyncRootSource, "registry failed Launcher bin path failed")));
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  // What was written stays.
  EXPECT_EQ(entry_.ValueNames(), std::vector<std::wstring>{L"DisplayNameResource"});
  EXPECT_FALSE(entry_.Exists(L"UserSyncRoots"));
}

struct RefusalRow {
  // Which write is refused, counted from 1.
  int write;
  const char* message;
  std::vector<std::wstring> valuesLeft;
};

TEST_F(RegistrationTest, ARefusedWriteEndsTheRegistrationAndKeepsWhatWasWritten) {
  const RefusalRow rows[] = {
      {1, "registry failed DisplayNameResource", {}},
      {2, "registry failed IconResource", {L"DisplayNameResource"}},
      {3, "registry failed Flags", {L"DisplayNameResource", L"IconResource"}},
      {5,
       "registry failed user_sid",
       {L"DisplayNameResource", L"Flags", L"IconResource", L"ThumbnailProvider"}},
  };
  for (const RefusalRow& row : rows) {
    SCOPED_TRACE(row.message);
    const nimbra_test::RegistryTree fresh(HKEY_LOCAL_MACHINE, Wide(KeyPath()));
    RegistryWatch registry;
    registry.FailCall(RegistryFunction::SetValue, row.write, ERROR_ACCESS_DENIED);
    log_.Clear();

    EXPECT_EQ(Register(), kRegistryFailure);

    std::vector<std::string> lines = log_.Lines();
    if (row.write == 5) {
      ASSERT_EQ(lines.size(), 3u);
      EXPECT_THAT(lines[0], IsLogLine(kSyncRootSource, "register thumbnail provider failed"));
      lines.erase(lines.begin());
    }
    EXPECT_THAT(lines, ElementsAre(IsLogLine(kRegistryKeySource, "Failed to set value"),
                                   IsLogLine(kSyncRootSource, row.message)));
    EXPECT_EQ(entry_.ValueNames(), row.valuesLeft);
    EXPECT_EQ(registry.CallsOf(RegistryFunction::SetValue).size(),
              static_cast<std::size_t>(row.write));
    EXPECT_EQ(registry.StillOpen(), 0);
    EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  }
}

TEST_F(RegistrationTest, ARefusedThumbnailProviderStopsNothingAndIsNotLoggedAsFailed) {
  RegistryWatch registry;
  registry.FailCall(RegistryFunction::SetValue, 4, ERROR_ACCESS_DENIED);

  EXPECT_EQ(Register(), S_OK);

  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kRegistryKeySource, "Failed to set value"),
                          IsLogLine(kSyncRootSource, "Succeed to register sync root: " + path_ +
                                                         " identity: " + Identity())));
  EXPECT_EQ(entry_.Value(L"", L"ThumbnailProvider"), std::nullopt);
  EXPECT_EQ(entry_.Value(L"UserSyncRoots", sid_), StoredText(REG_EXPAND_SZ, Wide(path_)));
  EXPECT_EQ(cloud_.CallsOf<RegisterSyncRootCall>().size(), 1u);
}

TEST_F(RegistrationTest, ARefusedKeyEndsTheRegistration) {
  RegistryWatch registry;
  registry.FailCall(RegistryFunction::CreateKey, 1, ERROR_ACCESS_DENIED);

  EXPECT_EQ(Register(), kRegistryFailure);

  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kRegistryKeySource, "registry not good"),
                          IsLogLine(kSyncRootSource, "registry failed DisplayNameResource")));
  EXPECT_THAT(registry.CallsOf(RegistryFunction::SetValue), IsEmpty());
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
}

TEST_F(RegistrationTest, ARefusedUserKeyEndsTheRegistration) {
  RegistryWatch registry;
  registry.FailCall(RegistryFunction::CreateKey, 2, ERROR_ACCESS_DENIED);

  EXPECT_EQ(Register(), kRegistryFailure);

  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kSyncRootSource, "register thumbnail provider failed"),
                          IsLogLine(kRegistryKeySource, "registry not good"),
                          IsLogLine(kSyncRootSource, "registry failed user_sid")));
  EXPECT_EQ(entry_.ValueNames().size(), 4u);
  EXPECT_EQ(registry.StillOpen(), 0);
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
}

TEST_F(RegistrationTest, TheAccountIsLookedUpForItsSizesFirst) {
  struct Lookup {
    std::optional<std::wstring> system;
    std::wstring account;
    bool hasSid;
    bool hasDomain;
    DWORD sidSize;
    DWORD domainSize;
  };
  std::vector<Lookup> lookups;
  const LookupDouble lookup([&](LookupDouble::Function original, LPCWSTR system, LPCWSTR account,
                                PSID sid, LPDWORD sidSize, LPWSTR domain, LPDWORD domainSize,
                                PSID_NAME_USE use) {
    lookups.push_back({system != nullptr ? std::optional<std::wstring>(system) : std::nullopt,
                       account, sid != nullptr, domain != nullptr, *sidSize, *domainSize});
    return original(system, account, sid, sidSize, domain, domainSize, use);
  });
  wchar_t user[257];
  DWORD length = 257;
  ASSERT_TRUE(GetUserNameW(user, &length));

  EXPECT_EQ(Register(), S_OK);

  ASSERT_EQ(lookups.size(), 2u);
  for (const Lookup& one : lookups) {
    EXPECT_EQ(one.system, std::nullopt);
    EXPECT_EQ(one.account, user);
  }
  EXPECT_FALSE(lookups[0].hasSid);
  EXPECT_FALSE(lookups[0].hasDomain);
  EXPECT_EQ(lookups[0].sidSize, 0u);
  EXPECT_EQ(lookups[0].domainSize, 0u);
  EXPECT_TRUE(lookups[1].hasSid);
  EXPECT_TRUE(lookups[1].hasDomain);
  EXPECT_GT(lookups[1].sidSize, 0u);
}

TEST_F(RegistrationTest, TheSidTextIsGivenBackToThePlatform) {
  void* text = nullptr;
  const ConvertSidDouble convert(
      [&](ConvertSidDouble::Function original, PSID sid, LPWSTR* result) {
        const BOOL converted = original(sid, result);
        text = *result;
        return converted;
      });
  int freed = 0;
  const LocalFreeDouble localFree([&](LocalFreeDouble::Function original, HLOCAL block) {
    freed += block != nullptr && block == text ? 1 : 0;
    return original(block);
  });
  EXPECT_EQ(Register(), S_OK);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(freed, 1);
}

TEST_F(RegistrationTest, WithoutAUserSidNothingIsWrittenAndThePlatformIsNotTold) {
  for (const SidFailure& failure : kSidFailures) {
    SCOPED_TRACE(failure.name);
    const FailingSid failing(failure);
    const RegistryWatch registry;
    log_.Clear();

    EXPECT_EQ(Register(), kRegistryFailure);

    EXPECT_EQ(failing.Lookups(), failure.lookups);
    EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kSyncRootSource, "user_sid failed")));
    EXPECT_THAT(registry.Calls(), IsEmpty());
    EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  }
}

}  // namespace
