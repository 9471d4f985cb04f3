#include <fstream>

#include "file-service.h"
#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

class Pinning : public FilterTest {
 protected:
  void SetUp() override {
    FilterTest::SetUp();
    MakeRoot();
    ASSERT_RESULT(api->Create(root, {FolderEntry("d")}), hr::kOk);
    ASSERT_RESULT(api->Create(root / "d", {FileEntry("f", 1), FolderEntry("sub")}), hr::kOk);
    ASSERT_RESULT(api->Create(root / "d/sub", {FileEntry("g", 1)}), hr::kOk);
    std::ofstream(Path("d/plain")) << "no placeholder";
  }
  PinState PinOf(const std::string& name) { return static_cast<PinState>(InfoOf(name).pinState); }
};

TEST_F(Pinning, TouchesOneItemWithoutFlags) {
  EXPECT_RESULT(api->SetPin(Path("d"), PinState::kPinned), hr::kOk);
  EXPECT_EQ(PinOf("d"), PinState::kPinned);
  EXPECT_EQ(PinOf("d/f"), PinState::kUnspecified);
  ItemStateAnswer state;
  EXPECT_RESULT(api->GetState(Path("d"), state), hr::kOk);
  EXPECT_EQ(state.attributes & attribute::kPinned, attribute::kPinned);
}

TEST_F(Pinning, DocumentedRecursesBelowAndPassesOverErrors) {
  EXPECT_RESULT(api->SetPin(Path("d"), PinState::kUnpinned, flag::kPinRecurse), hr::kOk);
  for (const auto* name : {"d", "d/f", "d/sub", "d/sub/g"}) {
    EXPECT_EQ(PinOf(name), PinState::kUnpinned) << name;
  }
}

TEST_F(Pinning, DocumentedRecurseOnlyLeavesTheItemItself) {
  EXPECT_RESULT(api->SetPin(Path("d"), PinState::kPinned, flag::kPinRecurseOnly), hr::kOk);
  EXPECT_EQ(PinOf("d"), PinState::kUnspecified);
  EXPECT_EQ(PinOf("d/sub/g"), PinState::kPinned);
}

TEST_F(Pinning, DocumentedMayStopAtTheFirstError) {
  EXPECT_RESULT(
      api->SetPin(Path("d"), PinState::kPinned, flag::kPinRecurse | flag::kPinStopOnError),
      hr::kNotACloudFile);
}

TEST_F(Pinning, RefusesStatesAndFlagsThatDoNotExist) {
  EXPECT_RESULT(api->SetPin(Path("d"), static_cast<PinState>(5)), hr::kInvalidParameter);
  EXPECT_RESULT(api->SetPin(Path("d"), PinState::kPinned, 8), hr::kInvalidParameter);
}

TEST_F(Pinning, DocumentedInheritTakesTheParentsStateByTheTable) {
  ASSERT_RESULT(api->SetPin(Path("d"), PinState::kPinned), hr::kOk);
  EXPECT_RESULT(api->SetPin(Path("d/f"), PinState::kInherit), hr::kOk);
  EXPECT_EQ(PinOf("d/f"), PinState::kPinned);
  EXPECT_RESULT(api->SetPin(root, PinState::kInherit), hr::kOk);
  EXPECT_EQ(PinOf(""), PinState::kUnspecified);
}

TEST_F(Pinning, InferredNewItemsInherit) {
  ASSERT_RESULT(api->SetPin(Path("d"), PinState::kUnpinned), hr::kOk);
  ASSERT_RESULT(api->Create(root / "d", {FileEntry("new", 1), FolderEntry("newdir")}), hr::kOk);
  EXPECT_EQ(PinOf("d/new"), PinState::kUnspecified);
  EXPECT_EQ(PinOf("d/newdir"), PinState::kUnpinned);
}

TEST(PinTable, DocumentedEveryRowAndColumn) {
  using enum PinState;
  struct Row {
    bool directory;
    PinState own;
    PinState expected[4];  // parent unspecified, pinned, unpinned, excluded
  };
  constexpr Row kRows[] = {
      {false, kUnspecified, {kUnspecified, kPinned, kUnspecified, kExcluded}},
      {false, kPinned, {kPinned, kPinned, kPinned, kExcluded}},
      {false, kUnpinned, {kUnpinned, kUnpinned, kUnpinned, kExcluded}},
      {false, kExcluded, {kUnspecified, kPinned, kUnspecified, kExcluded}},
      {true, kUnspecified, {kUnspecified, kPinned, kUnpinned, kExcluded}},
      {true, kPinned, {kPinned, kPinned, kPinned, kExcluded}},
      {true, kUnpinned, {kUnpinned, kUnpinned, kUnpinned, kExcluded}},
      {true, kExcluded, {kUnspecified, kPinned, kUnpinned, kExcluded}},
  };
  constexpr PinState kParents[] = {kUnspecified, kPinned, kUnpinned, kExcluded};
  for (const auto& row : kRows) {
    for (int column = 0; column < 4; ++column) {
      EXPECT_EQ(InheritedPin(row.own, kParents[column], row.directory), row.expected[column])
          << "directory " << row.directory << ", own " << static_cast<int>(row.own) << ", parent "
          << column;
    }
  }
}

TEST_F(Pinning, TheSyncStateIsSetAndCleared) {
  EXPECT_RESULT(api->SetInSync(Path("d/f"), false), hr::kOk);
  EXPECT_EQ(InfoOf("d/f").inSyncState, 0U);
  EXPECT_RESULT(api->SetInSync(Path("d/f"), true), hr::kOk);
  EXPECT_EQ(InfoOf("d/f").inSyncState, 1U);
  EXPECT_GT(api->usn, 0);
}

}  // namespace
}  // namespace cloud_filter::test
