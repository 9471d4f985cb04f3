#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/cloud-files.h"
#include "nimbra/nimbra.h"
#include "tests/support/temp-folder.h"
#include "tests/unit/dispatch-fixture.h"

namespace {

using nimbra_test::CallbackEvent;
using nimbra_test::EventRow;
using nimbra_test::kCancel;
using nimbra_test::kEvents;
using nimbra_test::kImageBuffer;
using nimbra_test::kPrefix;
using nimbra_test::kSlots;
using nimbra_test::Narrow;
using nimbra_test::Received;
using testing::IsEmpty;

class CallbackRecordTest : public nimbra_test::DispatchFixture {};

TEST_F(CallbackRecordTest, TheRecordHasItsSlotsAtTheirPlaces) {
  static_assert(sizeof(CORVWinCFCallbackRecord) == 8 * kSlots);
  static_assert(offsetof(CORVWinCFCallbackRecord, sessionNumber) == 0);
  static_assert(offsetof(CORVWinCFCallbackRecord, transferKey) == 8);
  static_assert(offsetof(CORVWinCFCallbackRecord, processId) == 16);
  static_assert(offsetof(CORVWinCFCallbackRecord, fileId) == 24);
  static_assert(offsetof(CORVWinCFCallbackRecord, fileIdentity) == 32);
  static_assert(offsetof(CORVWinCFCallbackRecord, fullPath) == 40);
  static_assert(offsetof(CORVWinCFCallbackRecord, targetPath) == 48);
  static_assert(offsetof(CORVWinCFCallbackRecord, parameters) == 56);
  static_assert(offsetof(CORVWinCFCallbackRecord, reserved) == 88);
  static_assert(offsetof(CORVWinCFCallbackRecord, context) == 96);
  static_assert(offsetof(CORVWinCFCallbackRecord, imagePath) == 104);

  const Received received = Play(Event(CF_CALLBACK_TYPE_FETCH_DATA));
  EXPECT_EQ(received.Slot(13), reinterpret_cast<std::uint64_t>(&receiver_));
}

TEST_F(CallbackRecordTest, EachEventReachesItsOwnCallback) {
  for (const EventRow& row : kEvents) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Play(Event(row.type)).kind, row.kind);
  }
  EXPECT_THAT(cloud_.CallNames(), IsEmpty()) << "only the client answers";
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

// An event whose values fill all their bits.
CallbackEvent VividEvent(CF_CALLBACK_TYPE type) {
  CallbackEvent event;
  event.type = type;
  event.syncRootIdentity = kPrefix + "2147483647";
  event.fileIdentity = "identity";
  event.volumeDosName = L"Z:";
  event.normalizedPath = L"\\Sync\\f\u00FC\u65E5\U0001F600.txt";
  event.otherPath = L"\\Sync\\t\u00E9.txt";
  event.imagePath = L"\\Device\\V\u00F6l\\app.exe";
  event.transferKey = static_cast<std::int64_t>(0xFEDCBA9876543210);
  event.fileId = static_cast<std::int64_t>(0x8899AABBCCDDEEFF);
  event.processId = 0xFFFFFFFE;
  event.flags = 2 | 4;
  event.requiredOffset = static_cast<std::int64_t>(0x8000000000000001);
  event.requiredLength = 0x7FFFFFFFFFFFFFFF;
  event.optionalOffset = 0x0123456789ABCDEF;
  event.optionalLength = -1;
  return event;
}

TEST_F(CallbackRecordTest, EveryEventFillsTheCommonSlots) {
  receiver_.ReadIdentityBytes(9);
  for (const EventRow& row : kEvents) {
    SCOPED_TRACE(row.name);
    const Received received = Play(VividEvent(row.type));
    EXPECT_EQ(received.Slot(1), 2147483647u);
    EXPECT_EQ(received.Slot(2), 0xFEDCBA9876543210u);
    EXPECT_EQ(received.Slot(4), 0x8899AABBCCDDEEFFu);
    EXPECT_EQ(received.fileIdentity, std::string("identity\0", 9));
    EXPECT_EQ(received.fullPath, "Z:\\Sync\\f\xC3\xBC\xE6\x97\xA5\xF0\x9F\x98\x80.txt");
    EXPECT_EQ(received.Slot(12), 0u);
    EXPECT_EQ(received.Slot(13), reinterpret_cast<std::uint64_t>(&receiver_));
  }
}

TEST_F(CallbackRecordTest, AFetchTellsItsRangesItsProcessAndNoTarget) {
  const Received received = Play(VividEvent(CF_CALLBACK_TYPE_FETCH_DATA));
  EXPECT_EQ(received.Slot(3), 0xFFFFFFFEu) << "widened without a sign";
  EXPECT_EQ(received.Slot(7), 0u);
  EXPECT_EQ(received.Slot(8), 0x8000000000000001u);
  EXPECT_EQ(received.Slot(9), 0x7FFFFFFFFFFFFFFFu);
  EXPECT_EQ(received.Slot(10), 0x0123456789ABCDEFu);
  EXPECT_EQ(received.Slot(11), 0xFFFFFFFFFFFFFFFFu);
  EXPECT_EQ(received.imagePath, "\\Device\\V\xC3\xB6l\\app.exe");
}

TEST_F(CallbackRecordTest, ACancelTellsItsRangeAndNeitherImageNorTarget) {
  const Received received = Play(VividEvent(CF_CALLBACK_TYPE_CANCEL_FETCH_DATA));
  EXPECT_EQ(received.Slot(7), 0u);
  EXPECT_EQ(received.Slot(8), 0x8000000000000001u);
  EXPECT_EQ(received.Slot(9), 0x7FFFFFFFFFFFFFFFu);
  EXPECT_EQ(received.Slot(10), 0u);
  EXPECT_EQ(received.Slot(11), 0u);
  EXPECT_EQ(received.Slot(14), 0u);
}

TEST_F(CallbackRecordTest, ARenameTellsItsTargetAndItsProcess) {
  const Received received = Play(VividEvent(CF_CALLBACK_TYPE_NOTIFY_RENAME));
  EXPECT_EQ(received.Slot(3), 0xFFFFFFFEu);
  EXPECT_EQ(received.targetPath, "Z:\\Sync\\t\xC3\xA9.txt");
  EXPECT_EQ(received.imagePath, "\\Device\\V\xC3\xB6l\\app.exe");
}

TEST_F(CallbackRecordTest, ACompletionAndADeleteTellTheirProcessAndNoTarget) {
  for (const CF_CALLBACK_TYPE type :
       {CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION, CF_CALLBACK_TYPE_NOTIFY_DELETE}) {
    SCOPED_TRACE(static_cast<int>(type));
    const Received received = Play(VividEvent(type));
    EXPECT_EQ(received.Slot(3), 0xFFFFFFFEu);
    EXPECT_EQ(received.Slot(7), 0u);
    EXPECT_EQ(received.imagePath, "\\Device\\V\xC3\xB6l\\app.exe");
  }
}

TEST_F(CallbackRecordTest, ACompletionAndADeleteReadNoParameters) {
  CF_PROCESS_INFO process{};
  process.StructSize = sizeof process;
  process.ImagePath = L"image";
  const char identity[] = "Corvane.Drive.FileStreaming.session.12";
  CF_CALLBACK_INFO info{};
  info.StructSize = sizeof info;
  info.CallbackContext = delegator_.Get();
  info.VolumeDosName = L"C:";
  info.NormalizedPath = L"\\file";
  info.SyncRootIdentity = identity;
  info.SyncRootIdentityLength = sizeof identity - 1;
  info.ProcessInfo = &process;
  for (const CF_CALLBACK_TYPE type :
       {CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION, CF_CALLBACK_TYPE_NOTIFY_DELETE}) {
    SCOPED_TRACE(static_cast<int>(type));
    receiver_.Clear();
    Translator(type)(&info, nullptr);
    ASSERT_EQ(receiver_.All().size(), 1u);
    EXPECT_EQ(receiver_.All().front().fullPath, "C:\\file");
  }
}

struct RenameRow {
  DWORD flags;
  bool hasTarget;
};

TEST_F(CallbackRecordTest, ARenameHasATargetOnlyWhenBothEndsAreInScope) {
  const RenameRow rows[] = {{0, false}, {1, false}, {2, false}, {3, false}, {4, false},
                            {5, false}, {6, true},  {7, true},  {8, false}, {0xFFFFFFFF, true}};
  for (const RenameRow& row : rows) {
    SCOPED_TRACE(row.flags);
    CallbackEvent event = Event(CF_CALLBACK_TYPE_NOTIFY_RENAME);
    event.flags = row.flags;
    event.volumeDosName = L"D:";
    event.otherPath = L"\\Sync\\target.txt";
    const Received received = Play(event);
    if (row.hasTarget) {
      EXPECT_EQ(received.targetPath, "D:\\Sync\\target.txt");
    } else {
      EXPECT_EQ(received.Slot(7), 0u);
    }
  }
}

TEST_F(CallbackRecordTest, TheFileIdentityIsCopiedByteForByteAndTerminated) {
  const std::vector<std::string> identities = {"", std::string(1, '\0'),
                                               std::string("a\0b\0\0c\xFF\x80", 8),
                                               std::string(4096, '\xEE'), std::string(4096, '\0')};
  for (const std::string& identity : identities) {
    for (const EventRow& row : kEvents) {
      SCOPED_TRACE(std::string(row.name) + " " + std::to_string(identity.size()));
      receiver_.ReadIdentityBytes(identity.size() + 1);
      CallbackEvent event = Event(row.type);
      event.fileIdentity = identity;
      EXPECT_EQ(Play(event).fileIdentity, identity + '\0');
    }
  }
}

TEST_F(CallbackRecordTest, AMissingFileIdentityIsAnEmptyText) {
  for (const EventRow& row : kEvents) {
    SCOPED_TRACE(row.name);
    CallbackEvent event = Event(row.type);
    event.fileIdentity = std::nullopt;
    EXPECT_EQ(Play(event).fileIdentity, std::string(1, '\0'));
    event.forcedFileIdentityLength = 100;
    EXPECT_EQ(Play(event).fileIdentity, std::string(1, '\0'));
  }
}

struct PathRow {
  const char* name;
  std::optional<std::wstring> volume;
  std::optional<std::wstring> path;
};

TEST_F(CallbackRecordTest, TheFullPathIsTheVolumeFollowedByThePathWhateverTheirLengths) {
  const PathRow rows[] = {
      {"usual", L"C:", L"\\Sync\\file"},
      {"no separator is added", L"C:", L"file"},
      {"empty volume", L"", L"\\file"},
      {"empty path", L"C:", L""},
      {"both empty", L"", L""},
      {"no volume", std::nullopt, L"\\file"},
      {"no path", L"C:", std::nullopt},
      {"neither", std::nullopt, std::nullopt},
      {"three bytes a character", L"C:", L"\\" + std::wstring(258, L'\u65E5')},
      {"longest path", L"C:", std::wstring(32767, L'p')},
      {"longest volume", std::wstring(32767, L'v'), L"\\file"},
      {"both longest, three bytes a character", std::wstring(32767, L'\u65E5'),
       std::wstring(32767, L'\u672C')},
  };
  for (const PathRow& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string expected = Narrow(row.volume.value_or(L"")) + Narrow(row.path.value_or(L""));
    for (const EventRow& kind : kEvents) {
      SCOPED_TRACE(kind.name);
      CallbackEvent event = Event(kind.type);
      event.volumeDosName = row.volume;
      event.normalizedPath = row.path;
      EXPECT_EQ(Play(event).fullPath, expected);
    }
  }
}

TEST_F(CallbackRecordTest, TheTargetIsTheVolumeFollowedByTheTargetWhateverTheirLengths) {
  const PathRow rows[] = {
      {"empty volume", L"", L"\\target"},
      {"empty target", L"C:", L""},
      {"no volume", std::nullopt, L"\\target"},
      {"no target", L"C:", std::nullopt},
      {"both longest", std::wstring(32767, L'\u65E5'), std::wstring(32767, L'\u672C')},
  };
  for (const PathRow& row : rows) {
    SCOPED_TRACE(row.name);
    CallbackEvent event = Event(CF_CALLBACK_TYPE_NOTIFY_RENAME);
    event.flags = 6;
    event.volumeDosName = row.volume;
    event.otherPath = row.path;
    EXPECT_EQ(Play(event).targetPath.value_or(""),
              Narrow(row.volume.value_or(L"")) + Narrow(row.path.value_or(L"")));
  }
}

bool CarriesImage(const EventRow& row) { return row.kind != kCancel; }

TEST_F(CallbackRecordTest, TheImagePathStandsInAZeroFilledBufferOf260Bytes) {
  for (const EventRow& row : kEvents) {
    if (!CarriesImage(row)) {
      continue;
    }
    for (const std::size_t length : {0u, 1u, 100u, 258u, 259u}) {
      SCOPED_TRACE(std::string(row.name) + " " + std::to_string(length));
      CallbackEvent event = Event(row.type);
      event.imagePath = std::wstring(length, L'i');
      EXPECT_EQ(Play(event).imageBuffer,
                std::string(length, 'i') + std::string(kImageBuffer - length, '\0'));
    }
  }
}

// The longest image path that fits in MAX_PATH takes 777 bytes in UTF-8.
TEST_F(CallbackRecordTest, AnImagePathLongerThanItsUsualBufferIsNeitherCutNorOverrun) {
  for (const EventRow& row : kEvents) {
    if (!CarriesImage(row)) {
      continue;
    }
    for (const std::wstring& image :
         {std::wstring(260, L'i'), std::wstring(261, L'i'), std::wstring(130, L'\u00FC'),
          std::wstring(259, L'\u65E5'), std::wstring(32767, L'\u65E5')}) {
      SCOPED_TRACE(std::string(row.name) + " " + std::to_string(image.size()));
      CallbackEvent event = Event(row.type);
      event.imagePath = image;
      EXPECT_EQ(Play(event).imagePath, Narrow(image));
    }
  }
}

TEST_F(CallbackRecordTest, AMissingProcessOrImageIsAnEmptyImagePath) {
  for (const EventRow& row : kEvents) {
    if (!CarriesImage(row)) {
      continue;
    }
    SCOPED_TRACE(row.name);
    CallbackEvent event = Event(row.type);
    event.imagePath = std::nullopt;
    EXPECT_EQ(Play(event).imagePath.value_or(""), "");
    event.hasProcessInfo = false;
    const Received received = Play(event);
    EXPECT_EQ(received.imagePath.value_or(""), "");
    EXPECT_EQ(received.Slot(3), 0u);
  }
}

}  // namespace
