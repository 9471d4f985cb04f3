// The client that docs/cpp.md shows, as it stands there.

#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "cpp-layer-test.h"

static const std::string kFolder = "C:\\Cloud";
static const std::string kContent = "content";
static std::vector<CORVWinCFHresult> reports;
static void Report(CORVWinCFHresult code) { reports.push_back(code); }

#include <nimbra/nimbra.hpp>

class Client {
 public:
  Client() {
    const bool isSet = callbacks_.OnFetch<&Client::OnFetch, &Client::root_>() &&
                       callbacks_.OnRename<&Client::OnRename>();
    if (!root_ || !isSet) throw std::bad_alloc();
    if (!nimbra::IsInSyncRoot(kFolder) && !root_.Register("example")) {
      throw std::runtime_error("not registered");
    }
    connection_ = root_.Connect(callbacks_);
    if (!connection_) Report(connection_.GetResult().Code());
  }
  Client(const Client&) = delete;  // nor can it be moved: callbacks_ refers to it
  Client& operator=(const Client&) = delete;

 private:
  void OnFetch(const nimbra::CallbackRecord& record) {
    const auto result = root_.TransferData(record.transferKey, 0, kContent);
    if (!result && !result.IsCancelled()) Report(result.Code());
  }
  void OnRename(const nimbra::CallbackRecord& record) {
    if (!root_.AcknowledgeRename(record.transferKey)) Report(-1);
  }

  nimbra::SyncRoot root_{kFolder, 1};
  nimbra::CallbackDelegator<Client> callbacks_{*this};
  nimbra::Connection connection_;  // the last: it ends before what it needs
};

static void CreatePlaceholder(std::int64_t size) {
  nimbra::PlaceholderMetadata::Values values;
  values.fileSize = size;
  nimbra::Placeholder item(kFolder + "/file.txt");  // "/" before the name
  if (!item.Create("identity", nimbra::PlaceholderMetadata(values))) Report(-1);
}

namespace {

using cpp_layer_test::kAccessDenied;
using testing::Contains;
using testing::ElementsAre;

static_assert(!std::is_move_constructible_v<Client> && !std::is_move_assignable_v<Client>);

class GuideTest : public cpp_layer_test::CppLayerTest {
 protected:
  GuideTest() { reports.clear(); }
};

TEST_F(GuideTest, ItsClientAnswersAFetchAndARename) {
  {
    const Client client;
    nimbra_.Take();
    CORVWinCFCallbackRecord record{};
    record.transferKey = 42;
    nimbra_.Play("Fetch", record);
    nimbra_.Play("Rename", record);
    EXPECT_THAT(nimbra_.Take(),
                ElementsAre("SyncRootTransferData(1, 42, 0, 0, 7, 0)", "SyncRootAckRename(1, 42)"));
    EXPECT_EQ(nimbra_.Data(), kContent);
  }
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootDisconnect(1)", "CallbackDelegatorRelease(2)",
                                          "SyncRootRelease(1)"));
  EXPECT_TRUE(reports.empty());
}

TEST_F(GuideTest, ItsClientRegistersAFolderThatIsNot) {
  nimbra_.Answer("GetSyncRootIdentityByPath", kAccessDenied);
  const Client client;
  EXPECT_THAT(nimbra_.Take(), Contains("SyncRootRegister(1, \"example\")"));
  nimbra_.Answer("SyncRootRegister", kAccessDenied);
  EXPECT_THROW(Client(), std::runtime_error);
}

TEST_F(GuideTest, ItReportsWhatFailed) {
  nimbra_.Answer("SyncRootConnect", kAccessDenied);
  nimbra_.Answer("PlaceholderCreate", cpp_layer_test::kFailure);
  const Client client;
  CreatePlaceholder(7);
  EXPECT_THAT(reports, ElementsAre(static_cast<CORVWinCFHresult>(kAccessDenied), -1));
  EXPECT_THAT(nimbra_.Take(), Contains("PlaceholderNew(\"C:\\Cloud/file.txt\")"));
}

}  // namespace
