#include <memory>
#include <stdexcept>
#include <vector>

#include "cpp-layer-test.h"

namespace {

using cpp_layer_test::kFailure;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kEvents[][24] = {"Fetch",  "FetchCancel",      "Delete",
                                "Rename", "RenameCompletion", "OpenCompletion"};

// Counts what it is told, and throws when it is to.
class Client {
 public:
  explicit Client(int exception) : exception_(exception) {}

  // Set in an order of their own, so that one that is taken for another shows.
  [[nodiscard]] bool SetAll() {
    return callbacks_.OnOpenCompletion<&Client::OnOpenCompletion>() &&
           callbacks_.OnRenameCompletion<&Client::OnRenameCompletion>() &&
           callbacks_.OnDelete<&Client::OnDelete, &Client::Root>() &&
           callbacks_.OnRename<&Client::OnRename>() &&
           callbacks_.OnFetchCancel<&Client::OnFetchCancel>() &&
           callbacks_.OnFetch<&Client::OnFetch, &Client::root_>();
  }

  [[nodiscard]] const nimbra::SyncRoot& Root() const { return root_; }
  std::vector<std::string> told_;

 private:
  void Take(const std::string& event, const nimbra::CallbackRecord& record) {
    told_.push_back(event + " " + std::to_string(record.transferKey));
    if (exception_ == 1) throw std::runtime_error("not now");
    if (exception_ == 2) throw 7;  // NOLINT(hicpp-exception-baseclass): a client may
  }

  void OnFetch(const nimbra::CallbackRecord& record) { Take("Fetch", record); }
  void OnFetchCancel(const nimbra::CallbackRecord& record) { Take("FetchCancel", record); }
  void OnDelete(const nimbra::CallbackRecord& record) { Take("Delete", record); }
  void OnRename(const nimbra::CallbackRecord& record) { Take("Rename", record); }
  void OnRenameCompletion(const nimbra::CallbackRecord& record) {
    Take("RenameCompletion", record);
  }
  void OnOpenCompletion(const nimbra::CallbackRecord& record) { Take("OpenCompletion", record); }

  int exception_;  // 1: one of the standard's, 2: another
  const nimbra::SyncRoot root_{"C:\\Sync", 1};
  nimbra::CallbackDelegator<Client> callbacks_{*this};
};

class CallbackDelegatorTest : public cpp_layer_test::CppLayerTest {
 protected:
  // Plays an event on a client that throws as said, and gives the calls that this makes.
  std::vector<std::string> Play(const std::string& event, int exception) {
    Client client(exception);
    EXPECT_TRUE(client.SetAll());
    nimbra_.Take();
    CORVWinCFCallbackRecord record{};
    record.transferKey = 42;
    record.parameters[0] = 4096;
    record.parameters[1] = 8192;
    nimbra_.Play(event, record);
    EXPECT_THAT(client.told_, ElementsAre(event + " 42"));
    return nimbra_.Take();
  }
};

TEST_F(CallbackDelegatorTest, SetsEachCallbackByItsFunction) {
  Client client(0);
  nimbra_.Take();
  EXPECT_TRUE(client.SetAll());
  EXPECT_THAT(nimbra_.Take(), ElementsAre("CallbackDelegatorSetOpenCompletionCallback(2)",
                                          "CallbackDelegatorSetRenameCompletionCallback(2)",
                                          "CallbackDelegatorSetDeleteCallback(2)",
                                          "CallbackDelegatorSetRenameCallback(2)",
                                          "CallbackDelegatorSetFetchCancelCallback(2)",
                                          "CallbackDelegatorSetFetchCallback(2)"));
}

TEST_F(CallbackDelegatorTest, SaysWhichCallbackCouldNotBeSet) {
  for (const auto* event : kEvents) {
    const auto name = "CallbackDelegatorSet" + std::string(event) + "Callback";
    nimbra_.Answer(name, kFailure);
    Client client(0);
    EXPECT_FALSE(client.SetAll()) << event;
    EXPECT_THAT(nimbra_.Take(), Contains(StartsWith(name)));
    nimbra_.Answer(name, 0);
  }
}

TEST_F(CallbackDelegatorTest, CallsTheClientsMethods) {
  for (const auto* event : kEvents) {
    EXPECT_THAT(Play(event, 0), IsEmpty()) << "an answer is the client's business";
  }
}

TEST_F(CallbackDelegatorTest, FailsAFetchWhoseMethodThrew) {
  for (const int exception : {1, 2}) {
    EXPECT_THAT(Play("Fetch", exception), ElementsAre(AllOf(StartsWith("SyncRootTransferData("),
                                                            EndsWith(", 42, 0, 4096, 8192, 1)"))));
  }
}

TEST_F(CallbackDelegatorTest, KeepsAnItemWhoseDeleteMethodThrew) {
  for (const int exception : {1, 2}) {
    EXPECT_THAT(Play("Delete", exception),
                ElementsAre(AllOf(StartsWith("SyncRootAckDelete("), EndsWith(", 42, 0, 1)"))));
  }
}

TEST_F(CallbackDelegatorTest, AnswersNothingElseWhenAMethodThrew) {
  for (const auto* event : {"FetchCancel", "Rename", "RenameCompletion", "OpenCompletion"}) {
    EXPECT_THAT(Play(event, 1), IsEmpty()) << event;
    EXPECT_THAT(Play(event, 2), IsEmpty()) << event;
  }
}

// A method may promise more, or give something.
class OtherClient {
 public:
  void Quiet(const nimbra::CallbackRecord&) noexcept { ++calls; }
  int Gives(const nimbra::CallbackRecord&) const { return calls; }
  std::shared_ptr<nimbra::SyncRoot> root = std::make_shared<nimbra::SyncRoot>("C:\\Sync", 1);
  int calls = 0;
};

const nimbra::SyncRoot& RootOf(const OtherClient& client) { return *client.root; }
void Thrower(OtherClient& client, const nimbra::CallbackRecord&) {
  ++client.calls;
  throw std::runtime_error("not now");
}

TEST_F(CallbackDelegatorTest, TakesOtherFormsOfMethodsAndOfRoots) {
  OtherClient client;
  nimbra::CallbackDelegator<OtherClient> callbacks(client);
  EXPECT_TRUE((callbacks.OnFetch<&OtherClient::Quiet, &RootOf>()));
  EXPECT_TRUE((callbacks.OnDelete<&Thrower, &RootOf>()));
  EXPECT_TRUE(callbacks.OnRename<&OtherClient::Gives>());
  nimbra_.Take();
  nimbra_.Play("Fetch");
  nimbra_.Play("Rename");
  EXPECT_EQ(client.calls, 1);
  EXPECT_THAT(nimbra_.Take(), IsEmpty());
  nimbra_.Play("Delete");
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootAckDelete(1, 0, 0, 1)"));
}

TEST_F(CallbackDelegatorTest, SetsNothingWhenItIsEmpty) {
  nimbra_.Answer("CallbackDelegatorSetRenameCallback", kFailure);
  nimbra::CallbackDelegator<OtherClient> none;
  EXPECT_FALSE(none.OnRename<&OtherClient::Quiet>());
  EXPECT_THAT(nimbra_.Take(), ElementsAre("CallbackDelegatorSetRenameCallback(null)"));
}

}  // namespace
