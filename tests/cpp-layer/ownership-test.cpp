// Owners: what they give back, when, and that they cannot be copied.

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "cpp-layer-test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Client {};
using Delegator = nimbra::CallbackDelegator<Client>;

template <typename Owner>
constexpr bool kMovesOnly =
    !std::is_copy_constructible_v<Owner> && !std::is_copy_assignable_v<Owner> &&
    std::is_nothrow_move_constructible_v<Owner> && std::is_nothrow_move_assignable_v<Owner> &&
    std::is_nothrow_destructible_v<Owner>;

static_assert(kMovesOnly<nimbra::SyncRoot>);
static_assert(kMovesOnly<Delegator>);
static_assert(kMovesOnly<nimbra::Connection>);
static_assert(kMovesOnly<nimbra::Placeholder>);
static_assert(kMovesOnly<nimbra::PlaceholderMetadata>);

// What comes out of nowhere is no owner, and an owner is no number.
static_assert(!std::is_convertible_v<nimbra::SyncRoot, bool>);
static_assert(!std::is_convertible_v<std::string_view, nimbra::Placeholder>);
static_assert(!std::is_convertible_v<CORVWinCFHresult, nimbra::Result>);
static_assert(!std::is_convertible_v<nimbra::Result, bool>);
static_assert(std::is_copy_constructible_v<nimbra::Result>);

template <typename Owner>
Owner Make();
template <>
nimbra::SyncRoot Make() {
  return {"C:\\Sync", 1};
}
template <>
Delegator Make() {
  static Client client;
  return Delegator(client);
}
template <>
nimbra::Placeholder Make() {
  return nimbra::Placeholder("C:/Sync/a");
}
template <>
nimbra::PlaceholderMetadata Make() {
  return nimbra::PlaceholderMetadata({});
}

// How the functions of an owner begin.
template <typename Owner>
constexpr const char* kFamily = nullptr;
template <>
constexpr const char* kFamily<nimbra::SyncRoot> = "SyncRoot";
template <>
constexpr const char* kFamily<Delegator> = "CallbackDelegator";
template <>
constexpr const char* kFamily<nimbra::Placeholder> = "Placeholder";
template <>
constexpr const char* kFamily<nimbra::PlaceholderMetadata> = "PlaceholderMeta";

template <typename Owner>
class OwnerTest : public cpp_layer_test::CppLayerTest {
 protected:
  static std::string Released(int handle) {
    return std::string(kFamily<Owner>) + "Release(" + std::to_string(handle) + ")";
  }
};
using Owners =
    testing::Types<nimbra::SyncRoot, Delegator, nimbra::Placeholder, nimbra::PlaceholderMetadata>;
TYPED_TEST_SUITE(OwnerTest, Owners, );

TYPED_TEST(OwnerTest, GivesItsHandleBackOnceWhenItEnds) {
  {
    const auto owner = Make<TypeParam>();
    EXPECT_TRUE(owner);
    EXPECT_NE(owner.Get(), nullptr);
    this->nimbra_.Take();
  }
  EXPECT_THAT(this->nimbra_.Take(), ElementsAre(this->Released(1)));
}

TYPED_TEST(OwnerTest, IsEmptyWhereThereIsNoHandleAndReleasesNothing) {
  this->nimbra_.Answer(std::string(kFamily<TypeParam>) + "New", cpp_layer_test::kFailure);
  {
    const auto owner = Make<TypeParam>();
    EXPECT_FALSE(owner);
    EXPECT_EQ(owner.Get(), nullptr);
    this->nimbra_.Take();
  }
  EXPECT_THAT(this->nimbra_.Take(), IsEmpty());
}

TYPED_TEST(OwnerTest, HandsItsHandleOverWhenItIsMoved) {
  {
    auto first = Make<TypeParam>();
    auto* const handle = first.Get();
    this->nimbra_.Take();
    const auto second = std::move(first);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): that it is empty is promised
    EXPECT_EQ(second.Get(), handle);
    EXPECT_THAT(this->nimbra_.Take(), IsEmpty());
  }
  EXPECT_THAT(this->nimbra_.Take(), ElementsAre(this->Released(1)));
}

TYPED_TEST(OwnerTest, GivesBackWhatItHeldWhenAnotherIsAssigned) {
  {
    auto first = Make<TypeParam>();
    auto second = Make<TypeParam>();
    this->nimbra_.Take();
    first = std::move(second);
    EXPECT_THAT(this->nimbra_.Take(), ElementsAre(this->Released(1)));
  }
  EXPECT_THAT(this->nimbra_.Take(), ElementsAre(this->Released(2)));
}

TYPED_TEST(OwnerTest, KeepsItsHandleWhenItIsMovedToItself) {
  auto owner = Make<TypeParam>();
  auto* const handle = owner.Get();
  auto& same = owner;
  this->nimbra_.Take();
  owner = std::move(same);
  EXPECT_EQ(owner.Get(), handle);
  EXPECT_THAT(this->nimbra_.Take(), IsEmpty());
}

TYPED_TEST(OwnerTest, SwapsWithAnother) {
  auto first = Make<TypeParam>();
  auto second = Make<TypeParam>();
  auto* const firstHandle = first.Get();
  auto* const secondHandle = second.Get();
  this->nimbra_.Take();
  std::swap(first, second);
  EXPECT_EQ(first.Get(), secondHandle);
  EXPECT_EQ(second.Get(), firstHandle);
  EXPECT_THAT(this->nimbra_.Take(), IsEmpty());
}

TYPED_TEST(OwnerTest, CanBeKeptInAVectorThatGrows) {
  {
    std::vector<TypeParam> owners;
    for (int i = 0; i < 10; ++i) {
      owners.push_back(Make<TypeParam>());
    }
    this->nimbra_.Take();
  }
  EXPECT_EQ(this->nimbra_.Take().size(), 10U);  // each once, or the double complains
}

class ConnectionTest : public cpp_layer_test::CppLayerTest {
 protected:
  ConnectionTest() { nimbra_.Take(); }

  static std::uint32_t CodeOf(const nimbra::Connection& connection) {
    return static_cast<std::uint32_t>(connection.GetResult().Code());
  }

  Client client_;
  nimbra::SyncRoot root_{"C:\\Sync", 1};
  Delegator delegator_{client_};
};

TEST_F(ConnectionTest, EndsWithItsObject) {
  {
    const auto connection = root_.Connect(delegator_);
    EXPECT_TRUE(connection);
    EXPECT_TRUE(connection.GetResult());
    EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootConnect(1, 2)"));
  }
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootDisconnect(1)"));
}

TEST_F(ConnectionTest, IsNoneWhereConnectingFails) {
  nimbra_.Answer("SyncRootConnect", cpp_layer_test::kAccessDenied);
  {
    const auto connection = root_.Connect(delegator_);
    EXPECT_FALSE(connection);
    EXPECT_EQ(CodeOf(connection), cpp_layer_test::kAccessDenied);
    nimbra_.Take();
  }
  EXPECT_THAT(nimbra_.Take(), IsEmpty());
}

TEST_F(ConnectionTest, IsNoneUnlessItWasConnected) {
  nimbra::Connection connection;
  EXPECT_FALSE(connection);
  EXPECT_FALSE(connection.GetResult());
  nimbra_.Answer("SyncRootDisconnect", cpp_layer_test::kNullPointer);
  EXPECT_FALSE(connection.Disconnect());
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootDisconnect(null)"));
}

TEST_F(ConnectionTest, EndsOnceWhenItIsEndedByHand) {
  {
    auto connection = root_.Connect(delegator_);
    nimbra_.Take();
    EXPECT_TRUE(connection.Disconnect());
    EXPECT_FALSE(connection);
    EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootDisconnect(1)"));
  }
  EXPECT_THAT(nimbra_.Take(), IsEmpty());
}

TEST_F(ConnectionTest, IsEndedAgainWhereThatFailed) {
  {
    auto connection = root_.Connect(delegator_);
    nimbra_.Answer("SyncRootDisconnect", cpp_layer_test::kAccessDenied);
    EXPECT_FALSE(connection.Disconnect());
    EXPECT_TRUE(connection);
    nimbra_.Take();
  }
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootDisconnect(1)"));
}

TEST_F(ConnectionTest, MovesToAnotherObject) {
  {
    nimbra::Connection connection;
    connection = root_.Connect(delegator_);
    auto& same = connection;
    connection = std::move(same);
    EXPECT_TRUE(connection);
    EXPECT_TRUE(connection.GetResult());
    EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootConnect(1, 2)"));
    const auto last = std::move(connection);
    EXPECT_FALSE(connection);  // NOLINT(bugprone-use-after-move): that it is empty is promised
  }
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootDisconnect(1)"));
}

TEST_F(ConnectionTest, GoesOnWhenItsRootIsConnectedAnewAndAssignedToIt) {
  {
    auto connection = root_.Connect(delegator_);
    connection = root_.Connect(delegator_);
    EXPECT_TRUE(connection);
    EXPECT_TRUE(connection.GetResult());
    EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootConnect(1, 2)", "SyncRootConnect(1, 2)"));
  }
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootDisconnect(1)"));
}

TEST_F(ConnectionTest, EndsWhenThatOfAnotherRootIsAssigned) {
  nimbra::SyncRoot other("C:\\Other", 2);
  nimbra_.Take();
  {
    auto connection = root_.Connect(delegator_);
    connection = other.Connect(delegator_);
    EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootConnect(1, 2)", "SyncRootConnect(3, 2)",
                                            "SyncRootDisconnect(1)"));
  }
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootDisconnect(3)"));
}

TEST_F(ConnectionTest, SaysThatThereIsNoneAfterItWasMovedOrEnded) {
  auto first = root_.Connect(delegator_);
  nimbra::Connection second(std::move(first));
  EXPECT_EQ(CodeOf(first), cpp_layer_test::kNullPointer);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(second.GetResult());
  first = std::move(second);
  EXPECT_EQ(CodeOf(second), cpp_layer_test::kNullPointer);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(first.Disconnect());
  EXPECT_EQ(CodeOf(first), cpp_layer_test::kNullPointer);
}

TEST_F(ConnectionTest, EndsBeforeTheRootAndTheDelegatorThatAreDeclaredBeforeIt) {
  struct Provider {
    nimbra::SyncRoot root{"C:\\Sync", 1};
    nimbra::CallbackDelegator<Provider> delegator{*this};
    nimbra::Connection connection = root.Connect(delegator);
  };
  { const Provider provider; }
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootNew(\"C:\\Sync\", 1)", "CallbackDelegatorNew()",
                                          "SyncRootConnect(3, 4)", "SyncRootDisconnect(3)",
                                          "CallbackDelegatorRelease(4)", "SyncRootRelease(3)"));
}

}  // namespace
