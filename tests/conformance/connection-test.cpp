// Connecting providers, and what their callbacks are told.

#include <atomic>
#include <thread>

#include "sync-root-fixture.h"

namespace conformance {
namespace {

void CALLBACK Nothing(const CF_CALLBACK_INFO*, const CF_CALLBACK_PARAMETERS*) {}

constexpr CF_CALLBACK_REGISTRATION kEnd{CF_CALLBACK_TYPE_NONE, nullptr};

class Connecting : public RegisteredTest {};

TEST_F(Connecting, DocumentedNeedsTheFetchCallback) {
  const CF_CALLBACK_REGISTRATION table[] = {{CF_CALLBACK_TYPE_CANCEL_FETCH_DATA, Nothing}, kEnd};
  CF_CONNECTION_KEY key{};
  EXPECT_EQ(CfConnectSyncRoot(Root().c_str(), table, nullptr, CF_CONNECT_FLAG_NONE, &key),
            kInvalidParameter);
}

TEST_F(Connecting, DocumentedNeedsNoFetchCallbackWhereAllFilesAreFull) {
  policies_.Hydration.Primary.us = CF_HYDRATION_POLICY_ALWAYS_FULL;
  ASSERT_EQ(Register(CF_REGISTER_FLAG_UPDATE), S_OK);
  CF_CONNECTION_KEY key{};
  ASSERT_EQ(CfConnectSyncRoot(Root().c_str(), &kEnd, nullptr, CF_CONNECT_FLAG_NONE, &key), S_OK);
  EXPECT_EQ(CfDisconnectSyncRoot(key), S_OK);
}

TEST_F(Connecting, DocumentedRefusesMissingArguments) {
  const CF_CALLBACK_REGISTRATION table[] = {{CF_CALLBACK_TYPE_FETCH_DATA, Nothing}, kEnd};
  CF_CONNECTION_KEY key{};
  EXPECT_EQ(CfConnectSyncRoot(nullptr, table, nullptr, CF_CONNECT_FLAG_NONE, &key),
            kInvalidParameter);
  EXPECT_EQ(CfConnectSyncRoot(Root().c_str(), nullptr, nullptr, CF_CONNECT_FLAG_NONE, &key),
            kInvalidParameter);
  EXPECT_EQ(CfConnectSyncRoot(Root().c_str(), table, nullptr, CF_CONNECT_FLAG_NONE, nullptr),
            kInvalidParameter);
}

TEST_F(Connecting, GuessedRefusesFlagsAndTypesThatAreNone) {
  const CF_CALLBACK_REGISTRATION table[] = {{CF_CALLBACK_TYPE_FETCH_DATA, Nothing}, kEnd};
  const CF_CALLBACK_REGISTRATION odd[] = {
      {CF_CALLBACK_TYPE_FETCH_DATA, Nothing}, {static_cast<CF_CALLBACK_TYPE>(77), Nothing}, kEnd};
  CF_CONNECTION_KEY key{};
  EXPECT_EQ(
      CfConnectSyncRoot(Root().c_str(), table, nullptr, static_cast<CF_CONNECT_FLAGS>(1), &key),
      kInvalidParameter);
  EXPECT_EQ(CfConnectSyncRoot(Root().c_str(), odd, nullptr, CF_CONNECT_FLAG_NONE, &key),
            kInvalidParameter);
}

TEST_F(Connecting, GuessedTheSecondProviderOfARootIsRefused) {
  Provider first;
  Provider second;
  ASSERT_EQ(first.Connect(Root()), S_OK);
  EXPECT_EQ(second.Connect(Root()), Win32(ERROR_CLOUD_FILE_ALREADY_CONNECTED));
  ASSERT_EQ(first.Disconnect(), S_OK);
  EXPECT_EQ(second.Connect(Root()), S_OK);
}

TEST_F(Connecting, DocumentedARootCannotBeUnregisteredMeanwhile) {
  Provider provider;
  ASSERT_EQ(provider.Connect(Root()), S_OK);
  EXPECT_EQ(CfUnregisterSyncRoot(Root().c_str()), Win32(ERROR_CLOUD_FILE_INVALID_REQUEST));
}

TEST_F(Connecting, DocumentedAKeyEndsWithItsConnection) {
  Provider provider;
  ASSERT_EQ(provider.Connect(Root()), S_OK);
  const CF_CONNECTION_KEY key = provider.Key();
  ASSERT_EQ(provider.Disconnect(), S_OK);
  EXPECT_EQ(CfDisconnectSyncRoot(key), kInvalidParameter);
  EXPECT_EQ(CfUpdateSyncProviderStatus(key, CF_PROVIDER_STATUS_IDLE), kInvalidParameter);
  EXPECT_EQ(CfDisconnectSyncRoot({987654321}), kInvalidParameter);
}

TEST_F(Connecting, DocumentedAStatusIsKeptWhileConnected) {
  Provider provider;
  ASSERT_EQ(provider.Connect(Root()), S_OK);
  ASSERT_EQ(CfUpdateSyncProviderStatus(provider.Key(), CF_PROVIDER_STATUS_SYNC_FULL), S_OK);
  CF_SYNC_PROVIDER_STATUS status{};
  EXPECT_EQ(CfQuerySyncProviderStatus(provider.Key(), &status), S_OK);
  EXPECT_EQ(status & CF_PROVIDER_STATUS_SYNC_FULL, CF_PROVIDER_STATUS_SYNC_FULL);
}

TEST_F(Connecting, DocumentedWithoutAProviderNothingIsHydrated) {
  ASSERT_EQ(Create({}), S_OK);
  EXPECT_EQ(HydrateAll(At(L"file.bin")), Win32(ERROR_CLOUD_FILE_PROVIDER_NOT_RUNNING));
  EXPECT_NE(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

class UnregisteredFolder : public FolderTest {};

TEST_F(UnregisteredFolder, GuessedCannotBeConnected) {
  Provider provider;
  EXPECT_EQ(provider.Connect(Root()), Win32(ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT));
}

class Callbacks : public SyncRootTest {};

TEST_F(Callbacks, DocumentedTellWhichFileOfWhichRootIsMeant) {
  const std::string identity("id\0with zero", 12);
  ASSERT_EQ(Create({L"N\u00e9w \u6f22.bin", 10000, identity}), S_OK);
  EXPECT_EQ(ReadAll(At(L"N\u00e9w \u6f22.bin")).bytes, ServerBytes(identity, 0, 10000));
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->info.StructSize, sizeof(CF_CALLBACK_INFO));
  EXPECT_EQ(event->info.ConnectionKey.Internal, provider_.Key().Internal);
  EXPECT_EQ(event->info.CallbackContext, static_cast<void*>(&provider_));
  EXPECT_EQ(event->rootIdentity, std::string("root\0identity", 13));
  EXPECT_EQ(event->fileIdentity, identity);
  EXPECT_EQ(event->volumeDosName, Root().substr(0, 2));
  EXPECT_EQ(event->path, Root().substr(2) + L"\\N\u00e9w \u6f22.bin");
  EXPECT_EQ(event->info.FileSize.QuadPart, 10000);
  EXPECT_NE(event->info.RequestKey.QuadPart, 0);
  const Info info = InfoOf(At(L"N\u00e9w \u6f22.bin"));
  EXPECT_EQ(event->info.FileId.QuadPart, info.standard.FileId.QuadPart);
  EXPECT_EQ(event->info.SyncRootFileId.QuadPart, info.standard.SyncRootFileId.QuadPart);
  const File root(Root());
  BY_HANDLE_FILE_INFORMATION volume{};
  ASSERT_TRUE(GetFileInformationByHandle(root.Get(), &volume));
  EXPECT_EQ(event->info.VolumeSerialNumber, volume.dwVolumeSerialNumber);
}

TEST_F(Callbacks, DocumentedNameNoProcessUnasked) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_TRUE(event);
  EXPECT_FALSE(event->hasProcess);
}

TEST_F(Callbacks, DocumentedNameTheReadingProcessWhenAsked) {
  ASSERT_EQ(provider_.Disconnect(), S_OK);
  ASSERT_EQ(provider_.Connect(Root(), CF_CONNECT_FLAG_REQUIRE_PROCESS_INFO), S_OK);
  ASSERT_EQ(Create({}), S_OK);
  EXPECT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_TRUE(event);
  ASSERT_TRUE(event->hasProcess);
  EXPECT_EQ(event->process.StructSize, sizeof(CF_PROCESS_INFO));
  EXPECT_NE(event->process.ProcessId, 0u);
  EXPECT_TRUE(event->imagePath.starts_with(L"\\Device\\"))
      << testing::PrintToString(event->imagePath);
  EXPECT_FALSE(event->commandLine.empty());
}

TEST_F(Callbacks, DocumentedComeSeveralAtATime) {
  constexpr int kFiles = 12;
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(Create({L"file" + std::to_wstring(i), 5000, "id" + std::to_string(i)}), S_OK);
  }
  std::atomic<int> waiting = 0;
  provider_.OnFetch([&](const Event& event) {
    // Answers once four callbacks run at the same time, or after a while.
    ++waiting;
    for (int i = 0; i < 500 && waiting < 4; ++i) Sleep(10);
    EXPECT_EQ(provider_.Serve(event), S_OK);
  });
  std::vector<std::thread> readers;
  readers.reserve(kFiles);
  for (int i = 0; i < kFiles; ++i) {
    readers.emplace_back([&, i] {
      EXPECT_EQ(ReadAll(At(L"file" + std::to_wstring(i))).bytes,
                ServerBytes("id" + std::to_string(i), 0, 5000));
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_GE(provider_.MostAtOnce(), 4);
}

TEST_F(Callbacks, DocumentedMayBeAnsweredLaterFromAnotherThread) {
  ASSERT_EQ(Create({}), S_OK);
  std::thread answer;
  provider_.OnFetch([&](const Event& event) {
    answer = std::thread([this, event] {
      Sleep(200);
      EXPECT_EQ(provider_.Serve(event), S_OK);
    });
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 10000));
  ASSERT_TRUE(answer.joinable());
  answer.join();
}

TEST_F(Callbacks, DocumentedNoneRunsAfterDisconnecting) {
  ASSERT_EQ(Create({}), S_OK);
  std::atomic<bool> running = false;
  std::atomic<bool> finished = false;
  provider_.OnFetch([&](const Event&) {
    running = true;
    Sleep(500);
    finished = true;
  });
  std::thread reader([&] { EXPECT_NE(HydrateAll(At(L"file.bin")), S_OK); });
  while (!running) Sleep(5);
  EXPECT_EQ(provider_.Disconnect(), S_OK);
  EXPECT_TRUE(finished);
  reader.join();
}

TEST_F(Callbacks, GuessedMayDisconnectTheirOwnRoot) {
  ASSERT_EQ(Create({}), S_OK);
  std::atomic<HRESULT> result = E_PENDING;
  provider_.OnFetch([&](const Event&) { result = provider_.Disconnect(); });
  EXPECT_NE(HydrateAll(At(L"file.bin")), S_OK);
  for (int i = 0; i < 500 && result == E_PENDING; ++i) Sleep(10);
  EXPECT_EQ(result, S_OK);
}

}  // namespace
}  // namespace conformance
