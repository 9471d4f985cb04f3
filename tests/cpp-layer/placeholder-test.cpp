#include <vector>

#include "cpp-layer-test.h"

namespace {

using cpp_layer_test::kFailure;
using cpp_layer_test::kWithZero;
using cpp_layer_test::Part;
using nimbra::Placeholder;
using nimbra::PlaceholderMetadata;
using testing::ElementsAre;
using testing::IsEmpty;

class PlaceholderTest : public cpp_layer_test::CppLayerTest {
 protected:
  PlaceholderTest() { nimbra_.Take(); }

  Placeholder item_{"C:/Sync/a"};
};

struct Step {
  const char* function;  // without its beginning, "Placeholder"
  bool (*run)(Placeholder& item);
};

// All that takes nothing and says yes or no.
constexpr Step kSteps[] = {
    {"Open", [](Placeholder& item) { return item.Open(); }},
    {"RevertToNormal", [](Placeholder& item) { return item.RevertToNormal(); }},
    {"IsPlaceholder", [](Placeholder& item) { return item.IsPlaceholder(); }},
    {"IsFullyHydrated", [](Placeholder& item) { return item.IsFullyHydrated(); }},
    {"IsPinned", [](Placeholder& item) { return item.IsPinned(); }},
    {"IsExcluded", [](Placeholder& item) { return item.IsExcluded(); }},
    {"IsInSync", [](Placeholder& item) { return item.IsInSync(); }},
    {"HydrateAll", [](Placeholder& item) { return item.Hydrate(); }},
    {"HydrateAllAsync", [](Placeholder& item) { return item.HydrateAsync(); }},
    {"DehydrateAll", [](Placeholder& item) { return item.Dehydrate(); }},
    {"PinToLocal", [](Placeholder& item) { return item.Pin(); }},
    {"Unpin", [](Placeholder& item) { return item.Unpin(); }},
    {"ForceUnpin", [](Placeholder& item) { return item.ForceUnpin(); }},
    {"SetExcluded", [](Placeholder& item) { return item.Exclude(); }},
    {"SetInSync", [](Placeholder& item) { return item.SetInSync(true); }},
    {"SetNotInSync", [](Placeholder& item) { return item.SetInSync(false); }},
};

TEST_F(PlaceholderTest, IsMadeOfAPathThatNeedsNoTerminator) {
  const std::string path = "C:/Sync/b and more";
  const Placeholder item(Part(path, 9));
  EXPECT_THAT(nimbra_.Take(), ElementsAre("PlaceholderNew(\"C:/Sync/b\")"));
}

TEST_F(PlaceholderTest, CallsTheFunctionOfEachStepAndGivesItsResult) {
  for (const Step& step : kSteps) {
    SCOPED_TRACE(step.function);
    const auto name = std::string("Placeholder") + step.function;
    EXPECT_TRUE(step.run(item_));
    EXPECT_THAT(nimbra_.Take(), ElementsAre(name + "(1)"));
    nimbra_.Answer(name, kFailure);
    EXPECT_FALSE(step.run(item_));
    EXPECT_THAT(nimbra_.Take(), ElementsAre(name + "(1)"));
  }
}

TEST_F(PlaceholderTest, PassesNullWhenItIsEmpty) {
  Placeholder none;
  for (const Step& step : kSteps) {
    const auto name = std::string("Placeholder") + step.function;
    nimbra_.Answer(name, kFailure);
    EXPECT_FALSE(step.run(none)) << name;
    EXPECT_THAT(nimbra_.Take(), ElementsAre(name + "(null)"));
  }
}

TEST_F(PlaceholderTest, CreatesUpdatesAndConvertsWithAnIdentity) {
  const std::string identity = "identity and more";
  const PlaceholderMetadata metadata({});
  nimbra_.Take();
  EXPECT_TRUE(item_.Create(Part(identity, 8), metadata));
  EXPECT_TRUE(item_.Update(Part(identity, 8), metadata));
  EXPECT_TRUE(item_.ConvertToPlaceholder(Part(identity, 8)));
  for (const auto* name : {"Create", "Update", "ConvertToPlaceholder"}) {
    nimbra_.Answer(std::string("Placeholder") + name, kFailure);
  }
  EXPECT_FALSE(item_.Create("b", metadata));
  EXPECT_FALSE(item_.Update("b", metadata));
  EXPECT_FALSE(item_.ConvertToPlaceholder("b"));
  EXPECT_THAT(
      nimbra_.Take(),
      ElementsAre("PlaceholderCreate(1, \"identity\", 2)", "PlaceholderUpdate(1, \"identity\", 2)",
                  "PlaceholderConvertToPlaceholder(1, \"identity\")",
                  "PlaceholderCreate(1, \"b\", 2)", "PlaceholderUpdate(1, \"b\", 2)",
                  "PlaceholderConvertToPlaceholder(1, \"b\")"));
}

TEST_F(PlaceholderTest, HandsAnIdentityWithAZeroByteOnAsNone) {
  nimbra_.Answer("PlaceholderConvertToPlaceholder", kFailure);
  EXPECT_FALSE(item_.ConvertToPlaceholder(kWithZero));
  EXPECT_THAT(nimbra_.Take(), ElementsAre("PlaceholderConvertToPlaceholder(1, null)"));
}

TEST_F(PlaceholderTest, UpdatesNothingWithMetadataThatCouldNotBeMade) {
  nimbra_.Answer("PlaceholderMetaNew", kFailure);
  const PlaceholderMetadata metadata({});
  nimbra_.Take();
  EXPECT_FALSE(item_.Update("identity", metadata));
  EXPECT_THAT(nimbra_.Take(), IsEmpty()) << "null would make the file empty";
}

TEST_F(PlaceholderTest, MakesMetadataOfItsValues) {
  PlaceholderMetadata::Values values;
  values.lastAccessTime = 1;
  values.changeTime = -2;
  values.creationTime = 3;
  values.lastWriteTime = 4;
  values.fileSize = 5'000'000'000;
  const PlaceholderMetadata file(values);
  values = {};
  values.isFolder = true;
  const PlaceholderMetadata folder(values);
  EXPECT_THAT(nimbra_.Take(), ElementsAre("PlaceholderMetaNew(1, -2, 3, 4, 5000000000, 0)",
                                          "PlaceholderMetaNew(0, 0, 0, 0, 0, 1)"));
}

TEST_F(PlaceholderTest, DropsARangeOfItsDataWithoutAResult) {
  nimbra_.Answer("PlaceholderDehydrate", kFailure);
  item_.DehydrateRange(4096, -1);
  EXPECT_THAT(nimbra_.Take(), ElementsAre("PlaceholderDehydrate(1, 4096, -1)"));
}

TEST_F(PlaceholderTest, GivesItsIdentityWithoutTheZerosAtItsEnd) {
  const std::string longest(4096, 'x');
  for (const auto& identity : {std::string(), std::string("identity"), std::string("i\0d", 3),
                               std::string(1, 'x'), longest}) {
    nimbra_.SetIdentity(identity);
    EXPECT_EQ(item_.GetIdentity(), identity);
  }
  EXPECT_EQ(nimbra_.Take().front(), "PlaceholderGetFileIdentity(1)");
}

}  // namespace
