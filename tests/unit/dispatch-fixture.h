#ifndef NIMBRA_TESTS_UNIT_DISPATCH_FIXTURE_H_
#define NIMBRA_TESTS_UNIT_DISPATCH_FIXTURE_H_

#include <windows.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/cloud-files.h"
#include "nimbra/nimbra.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/test-scope.h"

namespace nimbra_test {

inline constexpr std::size_t kSlots = 14;
inline constexpr std::size_t kImageBuffer = 260;
inline const std::string kPrefix = "Corvane.Drive.FileStreaming.session.";

// The record that a callback received, slot by slot (counted from 1 as `Slot`), with copies of what
// its pointers led to.
struct Received {
  int kind = 0;
  std::array<std::uint64_t, kSlots> slots{};
  std::string fileIdentity;
  std::string fullPath;
  std::optional<std::string> targetPath;
  std::optional<std::string> imagePath;
  // All 260 bytes.
  std::string imageBuffer;

  std::uint64_t Slot(std::size_t number) const { return slots.at(number - 1); }
};

// What the callbacks of a test received; the delegator's context.
class Receiver {
 public:
  // How many bytes of the file identity to copy, its terminator included.
  void ReadIdentityBytes(std::size_t count) { identityBytes_ = count; }

  void Take(int kind, const CORVWinCFCallbackRecord* record) {
    const TestScope scope;
    Received received;
    received.kind = kind;
    std::memcpy(received.slots.data(), record, sizeof received.slots);
    if (record->fileIdentity != nullptr) {
      received.fileIdentity.assign(record->fileIdentity, identityBytes_);
    }
    received.fullPath = record->fullPath;
    if (record->targetPath != nullptr) {
      received.targetPath = record->targetPath;
    }
    if (record->imagePath != nullptr) {
      received.imagePath = record->imagePath;
      received.imageBuffer.assign(record->imagePath, kImageBuffer);
    }
    std::lock_guard lock(mutex_);
    received_.push_back(std::move(received));
  }

  std::vector<Received> All() const {
    std::lock_guard lock(mutex_);
    return received_;
  }
  void Clear() {
    std::lock_guard lock(mutex_);
    received_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::size_t identityBytes_ = 1;
  std::vector<Received> received_;
};

template <int Kind>
void Receive(const CORVWinCFCallbackRecord* record) {
  static_cast<Receiver*>(record->context)->Take(Kind, record);
}

// The library's own numbers of the events.
enum Kind { kFetch = 1, kCancel = 2, kDelete = 3, kRename = 4, kRenameCompletion = 5, kOpen = 8 };

struct EventRow {
  const char* name;
  CF_CALLBACK_TYPE type;
  int kind;
};

inline constexpr EventRow kEvents[] = {
    {"fetch", CF_CALLBACK_TYPE_FETCH_DATA, kFetch},
    {"cancel", CF_CALLBACK_TYPE_CANCEL_FETCH_DATA, kCancel},
    {"rename", CF_CALLBACK_TYPE_NOTIFY_RENAME, kRename},
    {"rename completion", CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION, kRenameCompletion},
    {"delete", CF_CALLBACK_TYPE_NOTIFY_DELETE, kDelete},
};

inline void SetAllCallbacks(CORVWinCFCallbackDelegatorHandle delegator) {
  ASSERT_EQ(CORVWinCFCallbackDelegatorSetFetchCallback(delegator, Receive<kFetch>), 0);
  ASSERT_EQ(CORVWinCFCallbackDelegatorSetFetchCancelCallback(delegator, Receive<kCancel>), 0);
  ASSERT_EQ(CORVWinCFCallbackDelegatorSetDeleteCallback(delegator, Receive<kDelete>), 0);
  ASSERT_EQ(CORVWinCFCallbackDelegatorSetRenameCallback(delegator, Receive<kRename>), 0);
  ASSERT_EQ(
      CORVWinCFCallbackDelegatorSetRenameCompletionCallback(delegator, Receive<kRenameCompletion>),
      0);
  ASSERT_EQ(CORVWinCFCallbackDelegatorSetOpenCompletionCallback(delegator, Receive<kOpen>), 0);
}

// A connected root on the build that registers for every event, with every callback set.
class DispatchFixture : public NimbraTest {
 protected:
  DispatchFixture() {
    windows_.Become(nimbra_test::kBuildThatHidesOption);
    SetAllCallbacks(delegator_.Get());
    cloud_.SetConnectionKey(0x1122334455667788);
    if (CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()) != S_OK) {
      throw std::runtime_error("not connected");
    }
    translators_ = cloud_.Only<ConnectSyncRootCall>().table;
    cloud_.Clear();
  }

  // Plays the event and gives the one record that arrived.
  Received Play(const CallbackEvent& event) {
    receiver_.Clear();
    EXPECT_NO_THROW(EXPECT_TRUE(cloud_.Play(event)));
    const auto all = receiver_.All();
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? Received{} : all.front();
  }

  static CallbackEvent Event(CF_CALLBACK_TYPE type) {
    CallbackEvent event;
    event.type = type;
    return event;
  }

  CF_CALLBACK Translator(CF_CALLBACK_TYPE type) const {
    for (const CF_CALLBACK_REGISTRATION& entry : translators_) {
      if (entry.Type == type) {
        return entry.Callback;
      }
    }
    return nullptr;
  }

  Receiver receiver_;
  Delegator delegator_{&receiver_};
  SyncRoot root_;
  std::vector<CF_CALLBACK_REGISTRATION> translators_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_UNIT_DISPATCH_FIXTURE_H_
