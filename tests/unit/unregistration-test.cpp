#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/registry-watch.h"
#include "tests/unit/registration-fixture.h"

namespace {

using nimbra_test::CloudFunction;
using nimbra_test::FailingSid;
using nimbra_test::IsLogLine;
using nimbra_test::kManager;
using nimbra_test::kRegistryFailure;
using nimbra_test::kRegistryKeySource;
using nimbra_test::kSidFailures;
using nimbra_test::kSyncRootSource;
using nimbra_test::NextSession;
using nimbra_test::RegistryFunction;
using nimbra_test::RegistryWatch;
using nimbra_test::SidFailure;
using nimbra_test::SyncRoot;
using nimbra_test::UnregisterSyncRootCall;
using nimbra_test::Wide;
using testing::ElementsAre;
using testing::IsEmpty;

class UnregistrationTest : public nimbra_test::RegistrationFixture {};

TEST_F(UnregistrationTest, UnregisterTellsThePlatformAndRemovesTheEntry) {
  ASSERT_EQ(Register(), S_OK);
  log_.Clear();
  cloud_.Clear();
  bool entryPresent = false;
  cloud_.OnCall(CloudFunction::UnregisterSyncRoot, [&] { entryPresent = entry_.Exists(); });
  const RegistryWatch registry;

  EXPECT_EQ(CORVWinCFSyncRootUnregister(root_.Get()), 0);

  EXPECT_EQ(cloud_.Only<UnregisterSyncRootCall>().path, Wide(path_));
  EXPECT_THAT(cloud_.CallNames(), ElementsAre("CfUnregisterSyncRoot"));
  EXPECT_TRUE(entryPresent) << "the platform comes first";
  EXPECT_FALSE(entry_.Exists());
  const auto created = registry.CallsOf(RegistryFunction::CreateKey);
  ASSERT_EQ(created.size(), 1u);
  EXPECT_EQ(created[0].key, HKEY_LOCAL_MACHINE);
  EXPECT_EQ(created[0].name, Wide(kManager));
  const auto removed = registry.CallsOf(RegistryFunction::DeleteTree);
  ASSERT_EQ(removed.size(), 1u);
  EXPECT_EQ(removed[0].key, created[0].opened);
  EXPECT_EQ(removed[0].name, Wide(KeyName()));
  EXPECT_EQ(registry.StillOpen(), 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(UnregistrationTest, UnregisterLeavesOtherRootsAlone) {
  const std::uint64_t otherSession = NextSession();
  const nimbra_test::RegistryTree otherEntry(HKEY_LOCAL_MACHINE,
                                             Wide(kManager) + L"CorvaneDrive!" + sid_ +
                                                 L"!Corvane.Drive.FileStreaming.session." +
                                                 std::to_wstring(otherSession));
  const SyncRoot other("C:\\Other", otherSession);
  ASSERT_EQ(Register(), S_OK);
  ASSERT_EQ(CORVWinCFSyncRootRegister(other.Get(), "Other"), S_OK);

  EXPECT_EQ(CORVWinCFSyncRootUnregister(root_.Get()), 0);

  EXPECT_FALSE(entry_.Exists());
  EXPECT_EQ(otherEntry.ValueNames().size(), 4u);
}

// Anything but zero counts as refused, a positive result included.
TEST_F(UnregistrationTest, ARefusedUnregistrationLeavesTheEntry) {
  ASSERT_EQ(Register(), S_OK);
  for (const HRESULT refusal :
       {nimbra_test::kNotUnderSyncRoot, static_cast<HRESULT>(0x8007017C), S_FALSE}) {
    SCOPED_TRACE(refusal);
    log_.Clear();
    cloud_.FailNext(CloudFunction::UnregisterSyncRoot, refusal);
    const RegistryWatch registry;

    EXPECT_EQ(CORVWinCFSyncRootUnregister(root_.Get()), refusal);

    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(
                    kSyncRootSource, "Failed to unregister sync root " + std::to_string(refusal))));
    EXPECT_THAT(registry.Calls(), IsEmpty());
    EXPECT_EQ(entry_.ValueNames().size(), 4u);
  }
}

TEST_F(UnregistrationTest, UnregisterWithoutAUserSidLeavesTheEntryAndFails) {
  ASSERT_EQ(Register(), S_OK);
  for (const SidFailure& failure : kSidFailures) {
    SCOPED_TRACE(failure.name);
    log_.Clear();
    cloud_.Clear();
    const FailingSid failing(failure);
    const RegistryWatch registry;

    EXPECT_EQ(CORVWinCFSyncRootUnregister(root_.Get()), kRegistryFailure);

    EXPECT_THAT(cloud_.CallNames(), ElementsAre("CfUnregisterSyncRoot"));
    EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kSyncRootSource, "user_sid is empty")));
    EXPECT_THAT(registry.Calls(), IsEmpty());
  }
  EXPECT_TRUE(entry_.Exists());
}

TEST_F(UnregistrationTest, AnEntryThatCannotBeDeletedFailsTheUnregistration) {
  ASSERT_EQ(Register(), S_OK);
  log_.Clear();
  RegistryWatch registry;
  registry.FailCall(RegistryFunction::DeleteTree, 1, ERROR_ACCESS_DENIED);

  EXPECT_EQ(CORVWinCFSyncRootUnregister(root_.Get()), kRegistryFailure);

  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(IsLogLine(kRegistryKeySource, std::string("Failed to RegDeleteTree, key=") +
                                                    kManager + " hr=-2147024891"),
                  IsLogLine(kSyncRootSource, "Failed to delete reg_sync_root_entry " + KeyName())));
  EXPECT_EQ(registry.StillOpen(), 0);
  EXPECT_TRUE(entry_.Exists());
}

TEST_F(UnregistrationTest, AManagerKeyThatCannotBeOpenedFailsTheUnregistration) {
  ASSERT_EQ(Register(), S_OK);
  log_.Clear();
  RegistryWatch registry;
  registry.FailCall(RegistryFunction::CreateKey, 1, ERROR_ACCESS_DENIED);

  EXPECT_EQ(CORVWinCFSyncRootUnregister(root_.Get()), kRegistryFailure);

  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(IsLogLine(kRegistryKeySource, "reg is not good "),
                  IsLogLine(kSyncRootSource, "Failed to delete reg_sync_root_entry " + KeyName())));
}

TEST_F(UnregistrationTest, AnEntryThatIsAlreadyGoneFailsTheUnregistration) {
  EXPECT_EQ(CORVWinCFSyncRootUnregister(root_.Get()), kRegistryFailure);
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(IsLogLine(kRegistryKeySource, std::string("Failed to RegDeleteTree, key=") +
                                                    kManager + " hr=-2147024894"),
                  IsLogLine(kSyncRootSource, "Failed to delete reg_sync_root_entry " + KeyName())));
}

}  // namespace
