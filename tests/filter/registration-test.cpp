#include <fcntl.h>
#include <unistd.h>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

// "Documented", "observed" and "guessed" in a name say where the rule comes from.
class Registration : public FilterTest {};

TEST_F(Registration, DocumentedNamesAreMandatoryAndLimited) {
  RootOptions options;
  options.providerName.clear();
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
  options.providerName = std::string(256, 'n');
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
  options.providerName = std::string(255, 'n');
  options.providerVersion.clear();
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
  // Lengths count UTF-16 units, not bytes.
  options.providerVersion.clear();
  for (int i = 0; i < 255; ++i) options.providerVersion += "\xC3\xA9";
  EXPECT_RESULT(api->Register(root, options), hr::kOk);
}

TEST_F(Registration, DocumentedIdentitiesAreLimited) {
  RootOptions options;
  options.identity = std::string((64 << 10) + 1, 'i');
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
  options.identity.pop_back();
  options.rootFileIdentity = std::string(4097, 'i');
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
  options.rootFileIdentity.pop_back();
  EXPECT_RESULT(api->Register(root, options), hr::kOk);
}

TEST_F(Registration, DocumentedStreamingAndValidationExcludeEachOther) {
  RootOptions options;
  options.policies.hydrationModifier = policy::kStreamingAllowed | policy::kValidationRequired;
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
}

TEST_F(Registration, RefusesPoliciesAndFlagsThatDoNotExist) {
  RootOptions options;
  options.policies.hydrationPrimary = 4;
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
  options = {};
  options.policies.populationPrimary = 1;
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
  options = {};
  options.policies.hardLink = 2;
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
  options = {};
  options.flags = 8;
  EXPECT_RESULT(api->Register(root, options), hr::kInvalidParameter);
}

TEST_F(Registration, DocumentedAgainOnlyWithTheUpdateFlag) {
  MakeRoot();
  EXPECT_RESULT(api->Register(root), hr::kAlreadyExists);  // guessed: the code
  RootOptions options;
  options.flags = flag::kRegisterUpdate;
  options.providerName = "Renamed";
  EXPECT_RESULT(api->Register(root, options), hr::kOk);
  wire::RootInfo info;
  EXPECT_RESULT(api->GetRootInfo(root, info), hr::kOk);
  EXPECT_EQ(info.providerName, "Renamed");
}

TEST_F(Registration, DocumentedRootsDoNotNest) {
  std::filesystem::create_directories(root / "inner");
  MakeRoot();
  EXPECT_RESULT(api->Register(root / "inner"), hr::kInvalidRequest);  // guessed: the code
  EXPECT_RESULT(api->Register(folder), hr::kInvalidRequest);
  std::filesystem::create_directory(folder / "root2");
  EXPECT_RESULT(api->Register(folder / "root2"), hr::kOk);
}

TEST_F(Registration, NeedsAFolder) {
  EXPECT_RESULT(api->Register(folder / "absent"), hr::kPathNotFound);
  close(open((folder / "file").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  EXPECT_RESULT(api->Register(folder / "file"), hr::kNotADirectory);
}

TEST_F(Registration, DocumentedNeedsTheRightToWrite) {
  if (geteuid() != 0) {
    ASSERT_EQ(chmod(root.c_str(), 0555), 0);
    EXPECT_RESULT(api->Register(root), hr::kAccessDenied);
    return;
  }
  // Root may write anywhere, so another user's daemon is asked.
  constexpr uid_t kNobody = 65534;
  ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
  DaemonProcess other(folder / "other");
  ASSERT_TRUE(other.Start({"--no-mount"}, kNobody)) << other.Log();
  ApiClient client(other.Endpoint());
  EXPECT_RESULT(client.Register(root), hr::kAccessDenied);
  EXPECT_EQ(other.Stop(), 0);
}

TEST_F(Registration, DocumentedTheRootBecomesAPlaceholder) {
  RootOptions options;
  options.rootFileIdentity = "the root itself";
  options.flags = flag::kRegisterRootInSync;
  MakeRoot(options);
  ItemStateAnswer state;
  EXPECT_RESULT(api->GetState(root, state), hr::kOk);
  EXPECT_EQ(state.state, state::kPlaceholder | state::kSyncRoot | state::kInSync);
  EXPECT_EQ(state.attributes & attribute::kReparsePoint, attribute::kReparsePoint);
  const auto info = InfoOf("");
  EXPECT_EQ(info.identity, "the root itself");
  EXPECT_EQ(info.fileId, info.syncRootFileId);
}

TEST_F(Registration, DocumentedUnregisterNeedsAKnownRootWithoutProvider) {
  EXPECT_RESULT(api->Unregister(root), hr::kNotUnderSyncRoot);
  MakeRoot();
  ConnectProvider();
  EXPECT_RESULT(api->Unregister(root), hr::kInvalidRequest);
  EXPECT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_RESULT(api->Unregister(root), hr::kOk);
  EXPECT_RESULT(api->Unregister(root), hr::kNotUnderSyncRoot);
}

TEST_F(Registration, DocumentedUnregisterKeepsWhatIsFullAndDeletesWhatIsNot) {
  MakeRoot();
  ConnectProvider();
  provider->Serve([](const std::string& name) { return ContentOf(name, 5000); });
  CreateFile("full", 5000);
  CreateFile("online", 5000);
  ASSERT_RESULT(api->Create(root, {FolderEntry("folder")}), hr::kOk);
  ASSERT_RESULT(api->Create(root / "folder", {FileEntry("online", 5)}), hr::kOk);
  ASSERT_RESULT(api->Hydrate(Path("full")), hr::kOk);
  close(open(Path("plain").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  ASSERT_RESULT(api->Unregister(root), hr::kOk);
  EXPECT_EQ(ReadWhole(root / "full"), ContentOf("full", 5000));
  EXPECT_FALSE(std::filesystem::exists(root / "online"));
  EXPECT_TRUE(std::filesystem::is_directory(root / "folder"));
  EXPECT_FALSE(std::filesystem::exists(root / "folder/online"));
  EXPECT_TRUE(std::filesystem::exists(root / "plain"));
  wire::PlaceholderInfo info;
  EXPECT_RESULT(api->GetInfo(Path("full"), info), hr::kNotUnderSyncRoot);
}

TEST_F(Registration, DocumentedUnregisterDeletesFoldersThatAreNotPopulated) {
  RootOptions options;
  options.policies.populationPrimary = policy::kPopulationFull;
  MakeRoot(options);
  ASSERT_RESULT(api->Create(root, {FolderEntry("partial", 0), FolderEntry("whole")}), hr::kOk);
  ASSERT_RESULT(api->Unregister(root), hr::kOk);
  EXPECT_FALSE(std::filesystem::exists(root / "partial"));
  EXPECT_TRUE(std::filesystem::exists(root / "whole"));
}

class Connecting : public FilterTest {
 protected:
  Hresult Connect(const ProviderOptions& options) {
    FakeProvider candidate(daemon->Endpoint());
    return candidate.Connect(root, options);
  }
};

TEST_F(Connecting, GuessedAnUnregisteredPathIsNotUnderARoot) {
  EXPECT_RESULT(Connect({}), hr::kNotUnderSyncRoot);
}

TEST_F(Connecting, DocumentedOneProviderAtATime) {
  MakeRoot();
  ConnectProvider();
  EXPECT_RESULT(Connect({}), hr::kAlreadyConnected);
  EXPECT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_RESULT(Connect({}), hr::kOk);
}

TEST_F(Connecting, DocumentedPoliciesMakeCallbacksNecessary) {
  MakeRoot();
  ProviderOptions options;
  options.mask = 0;
  EXPECT_RESULT(Connect(options), hr::kInvalidParameter);  // guessed: the code
  RootOptions update;
  update.flags = flag::kRegisterUpdate;
  update.policies.hydrationModifier = policy::kValidationRequired;
  MakeRoot(update);
  options.mask = kFetchMask;
  EXPECT_RESULT(Connect(options), hr::kInvalidParameter);
  options.mask |= Bit(callback::kValidateData);
  EXPECT_RESULT(Connect(options), hr::kOk);
  update.policies = {};
  update.policies.hydrationPrimary = policy::kHydrationFull;
  update.policies.populationPrimary = policy::kPopulationFull;
  MakeRoot(update);
  options.mask = kFetchMask;
  EXPECT_RESULT(Connect(options), hr::kInvalidParameter);
  options.mask |= Bit(callback::kFetchPlaceholders);
  EXPECT_RESULT(Connect(options), hr::kOk);
}

TEST_F(Connecting, RefusesFlagsThatDoNotExist) {
  MakeRoot();
  ProviderOptions options;
  options.flags = 1;
  EXPECT_RESULT(Connect(options), hr::kInvalidParameter);
  options.flags = 2 | 4 | 8;
  EXPECT_RESULT(Connect(options), hr::kOk);
}

TEST_F(Connecting, TellsTheProviderAboutItsRoot) {
  RootOptions options;
  options.identity = std::string("blob\0of the root", 16);
  MakeRoot(options);
  ConnectProvider();
  EXPECT_EQ(provider->RootPath(), root.string());
  EXPECT_EQ(provider->RootIdentity(), options.identity);
}

TEST_F(Connecting, DocumentedAnUnknownKeyIsAnInvalidParameter) {
  MakeRoot();
  EXPECT_RESULT(api->Disconnect(12345), hr::kInvalidParameter);
  ConnectProvider();
  EXPECT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_RESULT(provider->Disconnect(), hr::kInvalidParameter);
}

TEST_F(Connecting, DocumentedTheDeathOfAProviderIsNoticed) {
  MakeRoot();
  ConnectProvider();
  provider->Die();
  EXPECT_TRUE(Eventually([&] { return Connect({}) == hr::kOk; }));
}

TEST_F(Connecting, KeepsTheStatusThatTheProviderGives) {
  MakeRoot();
  ConnectProvider();
  std::uint32_t status = 0;
  EXPECT_RESULT(api->QueryProviderStatus(provider->Key(), status), hr::kOk);
  EXPECT_EQ(status, 1U);
  EXPECT_RESULT(api->SetProviderStatus(provider->Key(), 0x20), hr::kOk);
  wire::RootInfo info;
  EXPECT_RESULT(api->GetRootInfo(Path("any/where"), info), hr::kOk);
  EXPECT_EQ(info.providerStatus, 0x20U);
  EXPECT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_RESULT(api->GetRootInfo(root, info), hr::kOk);
  EXPECT_EQ(info.providerStatus, 0U);
  EXPECT_RESULT(api->QueryProviderStatus(provider->Key(), status), hr::kInvalidParameter);
}

TEST_F(Connecting, RootInfoNeedsAPathUnderARoot) {
  MakeRoot();
  wire::RootInfo info;
  EXPECT_RESULT(api->GetRootInfo(folder, info), hr::kNotUnderSyncRoot);
  EXPECT_RESULT(api->GetRootInfo(root.string() + "2", info), hr::kNotUnderSyncRoot);
  EXPECT_RESULT(api->GetRootInfo(root.string() + "/", info), hr::kOk);
  EXPECT_EQ(info.policies.hydrationPrimary, policy::kHydrationFull);
}

}  // namespace
}  // namespace cloud_filter::test
