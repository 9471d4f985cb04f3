#include <windows.h>

#include <algorithm>
#include <array>
#include <string>

#include "common/cldapi-table.h"
#include "nimbra/nimbra.h"
#include "tests/support/cloud-facts.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/temp-folder.h"
#include "tests/support/threads.h"

namespace nimbra_test {
namespace {

constexpr const char* kPath = R"(C:\Users\Ann\Sync\file.txt)";
const std::string kPathWithUmlaut = "C:\\Users\\Zo\xC3\xAB\\Sync\\\xE6\x97\xA5.txt";

class SyncRootIdentityTest : public NimbraTest {
 protected:
  SyncRootIdentityTest() { buffer_.fill(static_cast<char>(0xCC)); }

  // What the caller's buffer holds in front of the untouched rest.
  std::string Written() const {
    std::size_t length = buffer_.size();
    while (length > 0 && buffer_[length - 1] == static_cast<char>(0xCC)) {
      --length;
    }
    return {buffer_.data(), length};
  }

  std::array<char, 70000> buffer_;
  std::string leftBehind_;
};

TEST_F(SyncRootIdentityTest, CopiesTheIdentityBytesWithoutATerminator) {
  cloud_.SetSyncRoot({"Corvane.Drive.FileStreaming.session.42"});

  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()), 0);

  EXPECT_EQ(Written(), "Corvane.Drive.FileStreaming.session.42");
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(SyncRootIdentityTest, AsksForTheStandardInformationOfTheWidePathInto64KiB) {
  cloud_.SetSyncRoot({"id"});

  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPathWithUmlaut.c_str(), buffer_.data()), 0);

  const auto call = cloud_.Only<GetSyncRootInfoByPathCall>();
  EXPECT_EQ(call.path, Wide(kPathWithUmlaut));
  EXPECT_EQ(call.infoClass, CF_SYNC_ROOT_INFO_STANDARD);
  EXPECT_EQ(call.bufferLength, 65536u);
  EXPECT_TRUE(call.asksReturnedLength);
  EXPECT_EQ(cloud_.Calls().size(), 1u);
}

TEST_F(SyncRootIdentityTest, PassesIdentitiesOfAnyBytesThrough) {
  std::string identity = "a";
  identity += '\0';
  identity += "\xFF\x80z";
  cloud_.SetSyncRoot({identity});

  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()), 0);

  EXPECT_EQ(Written(), identity);
}

TEST_F(SyncRootIdentityTest, ReadsTheLargestIdentityThatFitsItsBuffer) {
  const std::string identity(65536 - 1056, 'x');
  cloud_.SetSyncRoot({identity});

  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()), 0);

  EXPECT_EQ(Written(), identity);
}

TEST_F(SyncRootIdentityTest, RefusesAnIdentityThatDoesNotFit) {
  cloud_.SetSyncRoot({std::string(65536 - 1056 + 1, 'x')});

  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()), -1);

  EXPECT_EQ(Written(), "");
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(IsLogLine(
                                kNimbraSource, std::string("Failed to get syncroot info on path ") +
                                                   kPath + ", ec: -2147024662")));
}

// Whatever lay in the memory that the platform was given to write to.
TEST_F(SyncRootIdentityTest, AWrongLengthGivesZeros) {
  for (const ULONG stated : {3u, 64480u, 64481u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(stated);
    buffer_.fill(static_cast<char>(0xCC));
    cloud_.SetSyncRoot({.identity = "id", .statedIdentityLength = stated});
    // A block of that size is handed out again next, with what is in it.
    std::string(65536 - 1, static_cast<char>(0xEE)).swap(leftBehind_);
    std::string().swap(leftBehind_);

    EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()), 0);

    const std::size_t length = std::min<std::size_t>(stated, 65536 - 1056);
    EXPECT_TRUE(Written() == "id" + std::string(length - 2, '\0'));
  }
}

// What the platform says that it wrote may count the fixed part only, or nothing.
TEST_F(SyncRootIdentityTest, TheReturnedLengthDoesNotMatter) {
  static DWORD returnedLength = 0;
  static std::string identity;
  corvdrive::cloud_filter::CldApi odd = corvdrive::cloud_filter::Cloud();
  odd.CfGetSyncRootInfoByPath = [](LPCWSTR, CF_SYNC_ROOT_INFO_CLASS infoClass, PVOID buffer,
                                   DWORD length, DWORD* returned) {
    *returned = returnedLength;
    return FillSyncRoot({identity}, infoClass, buffer, length, nullptr);
  };
  const auto* previous = corvdrive::cloud_filter::ExchangeCldApi(&odd);
  for (const std::size_t size : {8u, 4096u}) {
    identity = std::string(size - 1, 'i') + "!";
    for (const DWORD length : {0u, 8u, 1056u, 1060u, 65536u, 0xFFFFFFFFu}) {
      SCOPED_TRACE(length);
      returnedLength = length;
      buffer_.fill(static_cast<char>(0xCC));
      EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()), 0);
      EXPECT_TRUE(Written() == identity);
    }
  }
  corvdrive::cloud_filter::ExchangeCldApi(previous);
}

TEST_F(SyncRootIdentityTest, APlatformThatDoesNotSayHowMuchItWroteIsBelieved) {
  corvdrive::cloud_filter::CldApi silent = corvdrive::cloud_filter::Cloud();
  silent.CfGetSyncRootInfoByPath = [](LPCWSTR, CF_SYNC_ROOT_INFO_CLASS infoClass, PVOID buffer,
                                      DWORD length, DWORD*) {
    return FillSyncRoot({std::string(60000, 'i')}, infoClass, buffer, length, nullptr);
  };
  const auto* previous = corvdrive::cloud_filter::ExchangeCldApi(&silent);
  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()), 0);
  corvdrive::cloud_filter::ExchangeCldApi(previous);
  EXPECT_TRUE(Written() == std::string(60000, 'i'));
}

TEST_F(SyncRootIdentityTest, CopiesNothingForAnEmptyIdentity) {
  cloud_.SetSyncRoot({""});

  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()), 0);

  EXPECT_EQ(Written(), "");
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(SyncRootIdentityTest, StillAsksWhenTheCallerWantsNoCopy) {
  cloud_.SetSyncRoot({"id"});

  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPath, nullptr), 0);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfGetSyncRootInfoByPath"));
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(SyncRootIdentityTest, FailsWithOneLogLineForAPathInNoSyncRoot) {
  cloud_.SetSyncRoot({"id"});
  cloud_.FailNext(CloudFunction::GetSyncRootInfoByPath, kNotUnderSyncRoot);

  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(kPathWithUmlaut.c_str(), buffer_.data()), -1);

  EXPECT_EQ(Written(), "");
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(IsLogLine(
                                kNimbraSource, "Failed to get syncroot info on path " +
                                                   kPathWithUmlaut + ", ec: -2147024506")));
}

TEST_F(SyncRootIdentityTest, FreesItsBufferOnEveryWay) {
  cloud_.SetSyncRoot({"id"});
  for (const HRESULT result : {S_OK, kNotUnderSyncRoot}) {
    SCOPED_TRACE(result);
    cloud_.Always(CloudFunction::GetSyncRootInfoByPath, result);
    int left = 0;
    {
      const HeapWatch heap;
      CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data());
      left = heap.LiveBlocks();
    }
    EXPECT_EQ(left, 0);
  }
}

TEST_F(SyncRootIdentityTest, FailsWhenMemoryRunsOut) {
  cloud_.SetSyncRoot({"id"});
  const int failures = ForEachFailingAllocation([&](auto watched, bool& failed) {
    buffer_.fill(static_cast<char>(0xCC));
    CORVWinCFStatus result = 1;
    watched([&] { result = CORVWinCFGetSyncRootIdentityByPath(kPath, buffer_.data()); });
    // Text that cannot be converted becomes empty text, which the platform is asked about.
    if (failed && cloud_.Calls().empty()) {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(Written(), "");
    }
    cloud_.Clear();
  });
  EXPECT_GT(failures, 0);
}

class ProviderTest : public NimbraTest {
 protected:
  static std::string NameLine(const std::string& path, const std::string& name) {
    return "ProviderName of " + path + " is: " + name;
  }
};

TEST_F(ProviderTest, SaysYesForThisClientsProvider) {
  EXPECT_EQ(CORVWinCFIsPathUnderCorvDriveSyncRoot(kPathWithUmlaut.c_str()), 0);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(IsLogLine(
                                kNimbraSource, NameLine(kPathWithUmlaut, "CorvaneDrive"))));
}

TEST_F(ProviderTest, AsksForTheProviderInformationOfTheWidePath) {
  CORVWinCFIsPathUnderCorvDriveSyncRoot(kPathWithUmlaut.c_str());

  const auto call = cloud_.Only<GetSyncRootInfoByPathCall>();
  EXPECT_EQ(call.path, Wide(kPathWithUmlaut));
  EXPECT_EQ(call.infoClass, CF_SYNC_ROOT_INFO_PROVIDER);
  EXPECT_EQ(call.bufferLength, 1028u);
  EXPECT_FALSE(call.asksReturnedLength);
  EXPECT_EQ(cloud_.Calls().size(), 1u);
}

TEST_F(ProviderTest, SaysNoForEveryOtherProviderAndNamesIt) {
  const std::string longest(255, 'n');
  for (const std::string& name :
       {std::string("OtherDrive"), std::string("corvanedrive"), std::string("CORVANEDRIVE"),
        std::string("CorvaneDriv"), std::string("CorvaneDrive2"), std::string("CorvaneDrive "),
        std::string(""), std::string("Dr\xC3\xBCve\xF0\x9F\x98\x80"), longest}) {
    SCOPED_TRACE(name);
    log_.Clear();
    cloud_.SetSyncRoot({"id", Wide(name)});

    EXPECT_EQ(CORVWinCFIsPathUnderCorvDriveSyncRoot(kPath), -1);

    EXPECT_THAT(log_.Lines(),
                testing::ElementsAre(IsLogLine(kNimbraSource, NameLine(kPath, name))));
  }
}

TEST_F(ProviderTest, SaysYesWhenTheQueryFails) {
  cloud_.SetSyncRoot({"id", L"OtherDrive"});
  cloud_.FailNext(CloudFunction::GetSyncRootInfoByPath, kNotUnderSyncRoot);

  EXPECT_EQ(CORVWinCFIsPathUnderCorvDriveSyncRoot(kPathWithUmlaut.c_str()), 0);

  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(IsLogLine(
                  kNimbraSource, "Failed to get syncroot info, path is: " + kPathWithUmlaut)));
}

TEST_F(ProviderTest, AsksThePlatformAgainOnEachCall) {
  EXPECT_EQ(CORVWinCFIsPathUnderCorvDriveSyncRoot(kPath), 0);
  cloud_.SetSyncRoot({"id", L"OtherDrive"});
  EXPECT_EQ(CORVWinCFIsPathUnderCorvDriveSyncRoot(kPath), -1);
}

TEST_F(ProviderTest, AnswersManyThreadsAtOnce) {
  cloud_.SetSyncRoot({"identity"});
  constexpr int kThreads = 8;
  constexpr int kCalls = 50;
  const auto failures = OnThreads(kThreads, [](int) {
    int count = 0;
    for (int i = 0; i < kCalls; ++i) {
      char identity[9] = {};
      const bool right = CORVWinCFGetSyncRootIdentityByPath(kPath, identity) == 0 &&
                         std::string(identity) == "identity" &&
                         CORVWinCFIsPathUnderCorvDriveSyncRoot(kPath) == 0;
      count += right ? 0 : 1;
    }
    return count;
  });
  EXPECT_THAT(failures, testing::Each(0));
  // Each line arrives whole.
  EXPECT_THAT(log_.Lines(),
              testing::Each(IsLogLine(kNimbraSource, NameLine(kPath, "CorvaneDrive"))));
  EXPECT_EQ(log_.Lines().size(), static_cast<std::size_t>(kThreads * kCalls));
}

}  // namespace
}  // namespace nimbra_test
