#include <gtest/gtest.h>

#include "common/session-number.h"
#include "fake-cloud.h"
#include "platform-event.h"
#include "reference-text.h"
#include "windows-stand-in.h"

namespace nimbra_native {
namespace {

using corvdrive::cloud_filter::CallbackDelegatorWinCF;
using corvdrive::cloud_filter::kSessionPrefix;

// What a client could see of a record.
struct Seen {
  std::int64_t session = -1;
  std::string identity;
  std::string fullPath;
  std::string image;
  int count = 0;
};

class NativeCallback : public testing::Test {
 protected:
  NativeCallback() {
    Windows() = {};
    seen() = {};
    seenIdentityLength() = 0;
    event.rootIdentity = std::string(kSessionPrefix) + "12";
    event.fileIdentity = "id";
    event.volume = u"C:";
    event.path = u"\\Drive\\a.txt";
    event.image = u"\\Device\\a.exe";
    EXPECT_TRUE(delegator->SetCallback(corvdrive::cloud_filter::kFetchData, Look));
  }
  void Send() {
    seenIdentityLength() = event.fileIdentity.value_or("").size();
    event.Send(&delegator);
  }
  static Seen& seen() {
    static Seen instance;
    return instance;
  }

  FakeCloud cloud;
  PlatformEvent event;
  std::shared_ptr<CallbackDelegatorWinCF> delegator =
      std::make_shared<CallbackDelegatorWinCF>(nullptr);

 private:
  static std::size_t& seenIdentityLength() {
    static std::size_t length = 0;
    return length;
  }
  static void Look(const CORVWinCFCallbackRecord* record) {
    const int count = seen().count + 1;
    seen() = {record->sessionNumber, std::string(record->fileIdentity, seenIdentityLength() + 1),
              record->fullPath, std::string(record->imagePath, 260), count};
  }
};

TEST_F(NativeCallback, AnImagePathOf259CharactersMayTake777Bytes) {
  event.image = std::u16string(259, u'\x65E5');
  Send();
  ASSERT_EQ(seen().count, 1);
  EXPECT_EQ(seen().image, ReferenceToUtf8(*event.image).substr(0, 260));
}

TEST_F(NativeCallback, TheImagePathBufferHas260BytesUpToThatLength) {
  for (const std::size_t length : {0U, 1U, 258U, 259U}) {
    event.image = std::u16string(length, u'i');
    Send();
    EXPECT_EQ(seen().image, std::string(length, 'i') + std::string(260 - length, '\0'));
  }
}

TEST_F(NativeCallback, IdentitiesOfAnyLengthArriveWithTheirZeroBytes) {
  for (const std::size_t length : {0U, 1U, 4096U}) {
    std::string identity(length, '\xFF');
    if (length > 0) identity.front() = '\0';
    event.fileIdentity = identity;
    Send();
    EXPECT_EQ(seen().identity, identity + '\0');
  }
}

TEST_F(NativeCallback, PathsOf32767CharactersArriveWhole) {
  event.path = std::u16string(32767, u'\x65E5');
  Send();
  EXPECT_EQ(seen().fullPath, "C:" + ReferenceToUtf8(*event.path));
}

TEST_F(NativeCallback, MissingTextsAreEmpty) {
  event.fileIdentity.reset();
  event.volume.reset();
  event.path.reset();
  event.hasProcess = false;
  Send();
  ASSERT_EQ(seen().count, 1);
  EXPECT_EQ(seen().identity, std::string(1, '\0'));
  EXPECT_EQ(seen().fullPath, "");
  EXPECT_EQ(seen().image, std::string(260, '\0'));
}

TEST_F(NativeCallback, AFetchWithAnUnreadableSessionFails) {
  event.rootIdentity = std::string(kSessionPrefix) + "2147483648";
  event.range[0] = 4096;
  event.range[1] = 8192;
  Send();
  EXPECT_EQ(seen().count, 0);
  ASSERT_EQ(cloud.executed.size(), 1U);
  const auto& transfer = cloud.executed[0].parameters.TransferData;
  EXPECT_EQ(transfer.CompletionStatus, STATUS_CLOUD_FILE_UNSUCCESSFUL);
  EXPECT_EQ(transfer.Offset.QuadPart, 4096);
  EXPECT_EQ(transfer.Length.QuadPart, 8192);
  EXPECT_EQ(Windows().debugLines.size(), 1U);
}

}  // namespace
}  // namespace nimbra_native
