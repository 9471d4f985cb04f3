#ifndef NIMBRA_TESTS_UNIT_TRANSFER_FIXTURE_H_
#define NIMBRA_TESTS_UNIT_TRANSFER_FIXTURE_H_

#include <cstdint>
#include <stdexcept>

#include "nimbra/nimbra.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"

namespace nimbra_test {

inline constexpr std::int64_t kConnectionKey = 0x1020304050607080;

// A connected root.
class TransferFixture : public NimbraTest {
 protected:
  TransferFixture() {
    cloud_.SetConnectionKey(kConnectionKey);
    if (CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()) != S_OK) {
      throw std::runtime_error("not connected");
    }
    cloud_.Clear();
  }

  // What every operation of this root has in common.
  // NOLINTNEXTLINE(readability-function-size): each expectation counts as several statements.
  void ExpectOperation(const ExecuteCall& call, int type, std::int64_t transferKey,
                       ULONG paramSize) {
    EXPECT_EQ(call.info.StructSize, 48u);
    EXPECT_EQ(static_cast<int>(call.info.Type), type);
    EXPECT_EQ(call.info.ConnectionKey.Internal, kConnectionKey);
    EXPECT_EQ(call.info.TransferKey.QuadPart, transferKey);
    EXPECT_EQ(call.info.CorrelationVector, nullptr);
    EXPECT_EQ(call.info.SyncStatus, nullptr);
    EXPECT_EQ(call.info.RequestKey.QuadPart, 0);
    EXPECT_EQ(call.paramSize, paramSize);
    EXPECT_EQ(call.flags, 0u);
  }

  Delegator delegator_;
  SyncRoot root_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_UNIT_TRANSFER_FIXTURE_H_
