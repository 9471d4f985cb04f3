#include "cpp-layer-test.h"

namespace {

using cpp_layer_test::kAccessDenied;
using cpp_layer_test::kFailure;
using cpp_layer_test::kNullPointer;
using cpp_layer_test::kWithZero;
using cpp_layer_test::Part;
using testing::ElementsAre;

class SyncRootTest : public cpp_layer_test::CppLayerTest {
 protected:
  SyncRootTest() { nimbra_.Take(); }

  // The result's HRESULT, as unsigned as it is written.
  static std::uint32_t Code(nimbra::Result result) {
    return static_cast<std::uint32_t>(result.Code());
  }

  nimbra::SyncRoot root_{"C:\\Sync", 1};
};

TEST_F(SyncRootTest, IsMadeOfAPathThatNeedsNoTerminator) {
  const std::string path = "C:\\Cloud and more";
  const nimbra::SyncRoot root(Part(path, 8), 2147483647);
  EXPECT_TRUE(root);
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootNew(\"C:\\Cloud\", 2147483647)"));
}

TEST_F(SyncRootTest, HandsTextWithAZeroByteOnAsNone) {
  nimbra_.Answer("SyncRootNew", kFailure);
  EXPECT_FALSE(nimbra::SyncRoot(kWithZero, 1));
  nimbra_.Answer("SyncRootRegister", kNullPointer);
  EXPECT_EQ(Code(root_.Register(kWithZero)), kNullPointer);
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootNew(null, 1)", "SyncRootRegister(1, null)"));
}

TEST_F(SyncRootTest, TakesAViewOfNothingForEmptyText) {
  EXPECT_TRUE(root_.Register({}));
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootRegister(1, \"\")"));
}

TEST_F(SyncRootTest, RegistersAndUnregisters) {
  const std::string text = "name of more";
  EXPECT_TRUE(root_.Register(Part(text, 4)));
  EXPECT_TRUE(root_.Reregister(Part(text, 7)));
  EXPECT_TRUE(root_.Unregister());
  EXPECT_THAT(nimbra_.Take(),
              ElementsAre("SyncRootRegister(1, \"name\")", "SyncRootReregister(1, \"name of\")",
                          "SyncRootUnregister(1)"));
}

TEST_F(SyncRootTest, GivesThePlatformsResults) {
  for (const auto* name :
       {"Register", "Reregister", "Unregister", "TransferData", "ReportTransferProgress"}) {
    nimbra_.Answer(std::string("SyncRoot") + name, kAccessDenied);
  }
  for (const auto result : {root_.Register("a"), root_.Reregister("a"), root_.Unregister(),
                            root_.TransferData(7, 0, "data"), root_.FailTransfer(7, 0, 4),
                            root_.ReportProgress(7, 2, 1)}) {
    EXPECT_FALSE(result);
    EXPECT_FALSE(result.IsCancelled());
    EXPECT_EQ(Code(result), kAccessDenied);
  }
}

TEST_F(SyncRootTest, TakesPositiveResultsForSuccess) {
  nimbra_.Answer("SyncRootRegister", 1);
  const auto result = root_.Register("a");
  EXPECT_TRUE(result);
  EXPECT_EQ(result.Code(), 1);
}

TEST_F(SyncRootTest, TransfersDataWithoutACopy) {
  const std::string data = "data";
  EXPECT_TRUE(root_.TransferData(-7, 8192, data));
  EXPECT_TRUE(root_.TransferData(7, 0, Part(data, 4)));
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootTransferData(1, -7, 0, 8192, 4, 0)",
                                          "SyncRootTransferData(1, 7, 0, 0, 4, 0)"));
  EXPECT_EQ(nimbra_.LastBuffer(), data.data());
}

TEST_F(SyncRootTest, KnowsACancelledTransfer) {
  nimbra_.Answer("SyncRootTransferData", 0x8007018E);
  const auto result = root_.TransferData(7, 0, "data");
  EXPECT_FALSE(result);
  EXPECT_TRUE(result.IsCancelled());
}

TEST_F(SyncRootTest, FailsTransfersWithAStatus) {
  EXPECT_TRUE(root_.FailTransfer(7, 4096, -1));
  EXPECT_TRUE(root_.FailTransfer(7, 0, 5, nimbra::TransferStatus::kDiskFull));
  EXPECT_TRUE(root_.FailTransfer(7, 0, 5, nimbra::TransferStatus::kAborted));
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootTransferData(1, 7, 0, 4096, -1, 1)",
                                          "SyncRootTransferData(1, 7, 0, 0, 5, 2)",
                                          "SyncRootTransferData(1, 7, 0, 0, 5, 3)"));
  EXPECT_EQ(nimbra_.LastBuffer(), nullptr);
}

TEST_F(SyncRootTest, ReportsProgress) {
  EXPECT_TRUE(root_.ReportProgress(7, 100, 30));
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootReportTransferProgress(1, 7, 100, 30)"));
}

TEST_F(SyncRootTest, FillsAPlaceholderFromAFile) {
  const nimbra::Placeholder item("C:/Sync/a");
  const std::string path = "C:\\local.txt";
  nimbra_.Take();
  EXPECT_TRUE(root_.TransferFile(item, Part(path, 8)));
  nimbra_.Answer("SyncRootProactiveTransferToPlaceholder", kFailure);
  EXPECT_FALSE(root_.TransferFile(item, path));
  EXPECT_THAT(nimbra_.Take(),
              ElementsAre("SyncRootProactiveTransferToPlaceholder(1, 2, \"C:\\local\")",
                          "SyncRootProactiveTransferToPlaceholder(1, 2, \"C:\\local.txt\")"));
}

TEST_F(SyncRootTest, AnswersRenamesAndDeletes) {
  EXPECT_TRUE(root_.AcknowledgeRename(7));
  EXPECT_TRUE(root_.AcknowledgeDelete(8));
  EXPECT_TRUE(root_.AcknowledgeDelete(9, nimbra::TransferStatus::kUnsuccessful));
  nimbra_.Answer("SyncRootAckRename", kFailure);
  nimbra_.Answer("SyncRootAckDelete", kFailure);
  EXPECT_FALSE(root_.AcknowledgeRename(7));
  EXPECT_FALSE(root_.AcknowledgeDelete(8));
  EXPECT_THAT(nimbra_.Take(),
              ElementsAre("SyncRootAckRename(1, 7)", "SyncRootAckDelete(1, 8, 0, 0)",
                          "SyncRootAckDelete(1, 9, 0, 1)", "SyncRootAckRename(1, 7)",
                          "SyncRootAckDelete(1, 8, 0, 0)"));
}

TEST_F(SyncRootTest, PassesNullWhenItIsEmpty) {
  nimbra::SyncRoot none;
  nimbra_.Answer("SyncRootUnregister", kNullPointer);
  EXPECT_EQ(Code(none.Unregister()), kNullPointer);
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SyncRootUnregister(null)"));
}

}  // namespace
