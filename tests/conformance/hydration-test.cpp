// Fetching, transferring and dropping data.

#include <atomic>
#include <thread>

#include "sync-root-fixture.h"

namespace conformance {
namespace {

constexpr std::int64_t kMiB = 1 << 20;

class Hydration : public SyncRootTest {
 protected:
  HRESULT Execute(CF_OPERATION_PARAMETERS& parameters, CF_OPERATION_TYPE type, const Event& event) {
    const CF_OPERATION_INFO operation = AnswerTo(event, type);
    return CfExecute(&operation, &parameters);
  }

  // Refuses the fetch after what a test tried, so that the one who waits is not left waiting.
  void TryOnFetch(Provider::Handler attempt) {
    provider_.OnFetch([this, attempt = std::move(attempt)](const Event& event) {
      attempt(event);
      EXPECT_EQ(provider_.Serve(event), S_OK);
    });
  }
};

TEST_F(Hydration, DocumentedAReadWaitsForTheDataOnce) {
  ASSERT_EQ(Create({}), S_OK);
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 10000));
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 10000));
  EXPECT_EQ(provider_.Events(CF_CALLBACK_TYPE_FETCH_DATA).size(), 1u);
  const Info info = InfoOf(At(L"file.bin"));
  EXPECT_EQ(info.standard.OnDiskDataSize.QuadPart, 10000);
  EXPECT_EQ(info.standard.InSyncState, CF_IN_SYNC_STATE_IN_SYNC);
}

TEST_F(Hydration, DocumentedAllSizesArriveWhole) {
  for (const std::int64_t size :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{4095}, std::int64_t{4096},
        std::int64_t{4097}, std::int64_t{65536}, 4 * kMiB - 1, 4 * kMiB, 4 * kMiB + 1}) {
    const std::wstring name = L"size" + std::to_wstring(size);
    ASSERT_EQ(Create({name, size}), S_OK);
    const Content content = ReadAll(At(name));
    EXPECT_EQ(content.error, DWORD{ERROR_SUCCESS}) << size;
    EXPECT_TRUE(content.bytes == ServerBytes("identity-1", 0, size)) << size;
  }
}

TEST_F(Hydration, DocumentedTheRequiredRangeIsAlignedOrEndsWithTheFile) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_TRUE(event);
  const auto& range = event->parameters.FetchData;
  EXPECT_EQ(range.RequiredFileOffset.QuadPart % 4096, 0);
  EXPECT_EQ(range.RequiredFileOffset.QuadPart + range.RequiredLength.QuadPart, 10000);
  EXPECT_EQ(range.Flags, CF_CALLBACK_FETCH_DATA_FLAG_NONE);
  EXPECT_EQ(event->parameters.ParamSize, 8 + sizeof range);
}

TEST_F(Hydration, DocumentedAnExplicitOneSaysSo) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_TRUE(event);
  EXPECT_TRUE(event->parameters.FetchData.Flags & CF_CALLBACK_FETCH_DATA_FLAG_EXPLICIT_HYDRATION);
}

TEST_F(Hydration, ObservedALengthBeyondTheEndMeansTheEnd) {
  ASSERT_EQ(Create({}), S_OK);
  const File file(At(L"file.bin"));
  ASSERT_EQ(
      CfHydratePlaceholder(file.Get(), Large(0), Large(MAXLONGLONG), CF_HYDRATE_FLAG_NONE, nullptr),
      S_OK);
  EXPECT_EQ(InfoOf(file.Get()).standard.OnDiskDataSize.QuadPart, 10000);
}

TEST_F(Hydration, DocumentedOnlyWhatIsMissingIsFetched) {
  ASSERT_EQ(Create({L"file.bin", 16384}), S_OK);
  CF_TRANSFER_KEY key{};
  {
    const File file(At(L"file.bin"), GENERIC_READ);
    ASSERT_EQ(CfGetTransferKey(file.Get(), &key), S_OK);
    Event unasked;
    unasked.info.ConnectionKey = provider_.Key();
    unasked.info.TransferKey = key;
    ASSERT_EQ(provider_.Transfer(unasked, 0, ServerBytes("identity-1", 0, 8192)), S_OK);
    CfReleaseTransferKey(file.Get(), &key);
  }
  EXPECT_EQ(InfoOf(At(L"file.bin")).standard.OnDiskDataSize.QuadPart, 8192);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->parameters.FetchData.RequiredFileOffset.QuadPart, 8192);
  EXPECT_EQ(event->parameters.FetchData.RequiredLength.QuadPart, 8192);
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 16384));
}

TEST_F(Hydration, DocumentedTheTransferKeyIsTheOneThatAFetchCarries) {
  ASSERT_EQ(Create({}), S_OK);
  const File file(At(L"file.bin"), GENERIC_READ);
  CF_TRANSFER_KEY key{};
  ASSERT_EQ(CfGetTransferKey(file.Get(), &key), S_OK);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->info.TransferKey.QuadPart, key.QuadPart);
  CfReleaseTransferKey(file.Get(), &key);
}

TEST_F(Hydration, DocumentedAnswersMayComeInPieces) {
  ASSERT_EQ(Create({}), S_OK);
  provider_.OnFetch([&](const Event& event) {
    EXPECT_EQ(provider_.Transfer(event, 8192, ServerBytes("identity-1", 8192, 10000 - 8192)), S_OK);
    EXPECT_EQ(provider_.Transfer(event, 0, ServerBytes("identity-1", 0, 8192)), S_OK);
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 10000));
}

TEST_F(Hydration, DocumentedAnAnswerMayPassTheEndOfTheFile) {
  ASSERT_EQ(Create({}), S_OK);
  provider_.OnFetch([&](const Event& event) {
    EXPECT_EQ(provider_.Transfer(event, 0, ServerBytes("identity-1", 0, 12288)), S_OK);
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 10000));
}

TEST_F(Hydration, GuessedAMisalignedAnswerIsInvalid) {
  ASSERT_EQ(Create({}), S_OK);
  TryOnFetch([&](const Event& event) {
    EXPECT_EQ(provider_.Transfer(event, 100, std::string(4096, 'x')),
              Win32(ERROR_CLOUD_FILE_INVALID_REQUEST));
    EXPECT_EQ(provider_.Transfer(event, 0, std::string(1000, 'x')),
              Win32(ERROR_CLOUD_FILE_INVALID_REQUEST));
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 10000));
}

TEST_F(Hydration, DocumentedRecordsOfTheWrongSizeAreRefused) {
  ASSERT_EQ(Create({}), S_OK);
  TryOnFetch([&](const Event& event) {
    auto parameters = Sized(CF_OPERATION_PARAMETERS::TransferDataArm{});
    parameters.TransferData.Buffer = "x";
    parameters.ParamSize -= 8;  // the size of the arm alone
    EXPECT_EQ(Execute(parameters, CF_OPERATION_TYPE_TRANSFER_DATA, event), kInvalidParameter);
    parameters.ParamSize += 8;
    EXPECT_EQ(Execute(parameters, CF_OPERATION_TYPE_RETRIEVE_DATA, event), kInvalidParameter);
    EXPECT_EQ(Execute(parameters, static_cast<CF_OPERATION_TYPE>(8), event), kInvalidParameter);
    CF_OPERATION_INFO operation = AnswerTo(event, CF_OPERATION_TYPE_TRANSFER_DATA);
    operation.StructSize = 40;
    EXPECT_EQ(CfExecute(&operation, &parameters), kInvalidParameter);
    EXPECT_EQ(CfExecute(nullptr, &parameters), kInvalidParameter);
    EXPECT_EQ(CfExecute(&operation, nullptr), kInvalidParameter);
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

TEST_F(Hydration, DocumentedASuccessNeedsItsData) {
  ASSERT_EQ(Create({}), S_OK);
  TryOnFetch([&](const Event& event) {
    auto parameters = Sized(CF_OPERATION_PARAMETERS::TransferDataArm{});
    parameters.TransferData.Length = Large(4096);
    EXPECT_EQ(Execute(parameters, CF_OPERATION_TYPE_TRANSFER_DATA, event), kInvalidParameter);
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

TEST_F(Hydration, DocumentedAFailureReachesTheOneWhoWaits) {
  ASSERT_EQ(Create({}), S_OK);
  provider_.OnFetch([&](const Event& event) {
    EXPECT_EQ(provider_.Fail(event, STATUS_CLOUD_FILE_NETWORK_UNAVAILABLE), S_OK);
  });
  EXPECT_EQ(HydrateAll(At(L"file.bin")), Win32(ERROR_CLOUD_FILE_NETWORK_UNAVAILABLE));
  EXPECT_NE(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

TEST_F(Hydration, DocumentedAForeignFailureCountsAsUnsuccessful) {
  ASSERT_EQ(Create({}), S_OK);
  provider_.OnFetch([&](const Event& event) {
    EXPECT_EQ(provider_.Fail(event, static_cast<NTSTATUS>(0xC0000022)), S_OK);
  });
  EXPECT_EQ(HydrateAll(At(L"file.bin")), Win32(ERROR_CLOUD_FILE_UNSUCCESSFUL));
}

TEST_F(Hydration, ObservedAfterAFailureTheNextReadAsksAgain) {
  ASSERT_EQ(Create({}), S_OK);
  std::atomic<int> asked = 0;
  provider_.OnFetch([&](const Event& event) {
    EXPECT_EQ(asked++ == 0 ? provider_.Fail(event, STATUS_CLOUD_FILE_UNSUCCESSFUL)
                           : provider_.Serve(event),
              S_OK);
  });
  EXPECT_NE(HydrateAll(At(L"file.bin")), S_OK);
  EXPECT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  const auto events = provider_.Events(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].info.TransferKey.QuadPart, events[1].info.TransferKey.QuadPart);
}

TEST_F(Hydration, DocumentedAnUnknownConnectionIsRefused) {
  ASSERT_EQ(Create({}), S_OK);
  TryOnFetch([&](Event event) {
    event.info.ConnectionKey.Internal += 1000;
    EXPECT_EQ(provider_.Serve(event), kInvalidParameter);
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

TEST_F(Hydration, DocumentedATransferMayBeLargerThanAnyFrame) {
  constexpr std::int64_t kSize = 70 * kMiB + 5;
  ASSERT_EQ(Create({L"file.bin", kSize}), S_OK);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  const Content content = ReadAll(At(L"file.bin"));
  EXPECT_EQ(content.error, DWORD{ERROR_SUCCESS});
  EXPECT_TRUE(content.bytes == ServerBytes("identity-1", 0, kSize));
}

TEST_F(Hydration, DocumentedProgressIsTakenWhileAFetchRuns) {
  ASSERT_EQ(Create({}), S_OK);
  TryOnFetch([&](const Event& event) {
    EXPECT_EQ(CfReportProviderProgress(event.info.ConnectionKey, event.info.TransferKey,
                                       Large(10000), Large(5000)),
              S_OK);
    EXPECT_EQ(CfReportProviderProgress2(event.info.ConnectionKey, event.info.TransferKey,
                                        event.info.RequestKey, Large(10000), Large(6000), 0),
              S_OK);
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

TEST_F(Hydration, DocumentedAnAcknowledgementNeedsItsQuestion) {
  ASSERT_EQ(Create({}), S_OK);
  TryOnFetch([&](const Event& event) {
    auto parameters = Sized(CF_OPERATION_PARAMETERS::AckRenameArm{});
    EXPECT_TRUE(FAILED(Execute(parameters, CF_OPERATION_TYPE_ACK_RENAME, event)));
    EXPECT_TRUE(FAILED(Execute(parameters, CF_OPERATION_TYPE_ACK_DELETE, event)));
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

TEST_F(Hydration, DocumentedValidationIsRefusedWhereItIsNotRequired) {
  ASSERT_EQ(Create({}), S_OK);
  TryOnFetch([&](const Event& event) {
    auto ack = Sized(CF_OPERATION_PARAMETERS::AckDataArm{});
    ack.AckData.Length = Large(CF_EOF);
    EXPECT_EQ(Execute(ack, CF_OPERATION_TYPE_ACK_DATA, event),
              Win32(ERROR_CLOUD_FILE_NOT_SUPPORTED));
    char buffer[4096];
    auto retrieve = Sized(CF_OPERATION_PARAMETERS::RetrieveDataArm{});
    retrieve.RetrieveData.Buffer = buffer;
    retrieve.RetrieveData.Length = Large(sizeof buffer);
    EXPECT_EQ(Execute(retrieve, CF_OPERATION_TYPE_RETRIEVE_DATA, event),
              Win32(ERROR_CLOUD_FILE_NOT_SUPPORTED));
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

TEST_F(Hydration, DocumentedRestartingAsksAgainForTheNewVersion) {
  ASSERT_EQ(Create({}), S_OK);
  std::atomic<bool> restarted = false;
  provider_.OnFetch([&](const Event& event) {
    if (restarted.exchange(true)) {
      EXPECT_EQ(event.fileIdentity, "second");
      EXPECT_EQ(provider_.Serve(event), S_OK);
      return;
    }
    auto parameters = Sized(CF_OPERATION_PARAMETERS::RestartHydrationArm{});
    CF_FS_METADATA metadata{};
    metadata.FileSize.QuadPart = 12000;
    parameters.RestartHydration.FsMetadata = &metadata;
    parameters.RestartHydration.FileIdentity = "second";
    parameters.RestartHydration.FileIdentityLength = 6;
    EXPECT_EQ(Execute(parameters, CF_OPERATION_TYPE_RESTART_HYDRATION, event), S_OK);
  });
  EXPECT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("second", 0, 12000));
}

TEST_F(Hydration, DocumentedAnOverlappedOneCompletesItsRecordLater) {
  ASSERT_EQ(Create({}), S_OK);
  std::atomic<bool> release = false;
  provider_.OnFetch([&](const Event& event) {
    while (!release) Sleep(5);
    EXPECT_EQ(provider_.Serve(event), S_OK);
  });
  const File file(At(L"file.bin"), 0, FILE_FLAG_OVERLAPPED);
  OVERLAPPED overlapped{};
  overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  EXPECT_EQ(
      CfHydratePlaceholder(file.Get(), Large(0), Large(CF_EOF), CF_HYDRATE_FLAG_NONE, &overlapped),
      Win32(ERROR_IO_PENDING));
  DWORD transferred = 0;
  EXPECT_FALSE(GetOverlappedResult(file.Get(), &overlapped, &transferred, FALSE));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_IO_INCOMPLETE});
  release = true;
  EXPECT_TRUE(GetOverlappedResult(file.Get(), &overlapped, &transferred, TRUE));
  EXPECT_EQ(InfoOf(file.Get()).standard.OnDiskDataSize.QuadPart, 10000);
  CloseHandle(overlapped.hEvent);
}

TEST_F(Hydration, DocumentedAnOverlappedOneTellsItsFailure) {
  ASSERT_EQ(Create({}), S_OK);
  provider_.OnFetch([&](const Event& event) {
    EXPECT_EQ(provider_.Fail(event, STATUS_CLOUD_FILE_NETWORK_UNAVAILABLE), S_OK);
  });
  const File file(At(L"file.bin"), 0, FILE_FLAG_OVERLAPPED);
  OVERLAPPED overlapped{};
  overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ASSERT_EQ(
      CfHydratePlaceholder(file.Get(), Large(0), Large(CF_EOF), CF_HYDRATE_FLAG_NONE, &overlapped),
      Win32(ERROR_IO_PENDING));
  DWORD transferred = 0;
  EXPECT_FALSE(GetOverlappedResult(file.Get(), &overlapped, &transferred, TRUE));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_CLOUD_FILE_NETWORK_UNAVAILABLE});
  CloseHandle(overlapped.hEvent);
}

class Dehydration : public SyncRootTest {
 protected:
  void SetUp() override {
    SyncRootTest::SetUp();
    ASSERT_EQ(Create({}), S_OK);
    ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  }
};

TEST_F(Dehydration, DocumentedDropsTheDataWhichIsFetchedAgain) {
  ASSERT_EQ(DehydrateAll(At(L"file.bin")), S_OK);
  EXPECT_EQ(InfoOf(At(L"file.bin")).standard.OnDiskDataSize.QuadPart, 0);
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 10000));
  EXPECT_EQ(provider_.Events(CF_CALLBACK_TYPE_FETCH_DATA).size(), 2u);
}

TEST_F(Dehydration, DocumentedAsksTheProviderAndTellsIt) {
  ASSERT_EQ(DehydrateAll(At(L"file.bin")), S_OK);
  ASSERT_TRUE(provider_.WaitFor(CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE));
  const auto done = provider_.WaitFor(CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE_COMPLETION);
  ASSERT_TRUE(done);
  EXPECT_TRUE(done->parameters.DehydrateCompletion.Flags &
              CF_CALLBACK_DEHYDRATE_COMPLETION_FLAG_DEHYDRATED);
}

TEST_F(Dehydration, DocumentedNeedsAFileInSync) {
  ASSERT_EQ(WriteAt(At(L"file.bin"), 0, "changed"), DWORD{ERROR_SUCCESS});
  EXPECT_EQ(DehydrateAll(At(L"file.bin")), Win32(ERROR_CLOUD_FILE_NOT_IN_SYNC));
}

TEST_F(Dehydration, ObservedNeedsAFileThatNobodyElseHasOpen) {
  const File other(At(L"file.bin"), GENERIC_READ);
  ASSERT_TRUE(other.IsOpen());
  EXPECT_EQ(DehydrateAll(At(L"file.bin")), Win32(ERROR_CLOUD_FILE_IN_USE));
}

TEST_F(Dehydration, GuessedWithoutAnEventTheRecordIsCompleteAtOnce) {
  const File file(At(L"file.bin"), 0, FILE_FLAG_OVERLAPPED);
  OVERLAPPED overlapped{};
  ASSERT_EQ(CfDehydratePlaceholder(file.Get(), Large(0), Large(CF_EOF), CF_DEHYDRATE_FLAG_NONE,
                                   &overlapped),
            S_OK);
  DWORD transferred = 0;
  EXPECT_TRUE(GetOverlappedResult(file.Get(), &overlapped, &transferred, TRUE));
  EXPECT_EQ(InfoOf(file.Get()).standard.OnDiskDataSize.QuadPart, 0);
}

class Ranges : public SyncRootTest {
 protected:
  static HRESULT RangesOf(const std::wstring& path, CF_PLACEHOLDER_RANGE_INFO_CLASS which,
                          std::int64_t offset, std::vector<CF_FILE_RANGE>& ranges) {
    const File file(path);
    DWORD length = 0;
    const HRESULT result = CfGetPlaceholderRangeInfo(
        file.Get(), which, Large(offset), Large(MAXLONGLONG - offset), ranges.data(),
        static_cast<DWORD>(ranges.size() * sizeof(CF_FILE_RANGE)), &length);
    ranges.resize(length / sizeof(CF_FILE_RANGE));
    return result;
  }
};

TEST_F(Ranges, DocumentedTellWhatIsOnDiskAndWhatWasChanged) {
  ASSERT_EQ(Create({}), S_OK);
  std::vector<CF_FILE_RANGE> ranges(8);
  EXPECT_EQ(RangesOf(At(L"file.bin"), CF_PLACEHOLDER_RANGE_INFO_ONDISK, 0, ranges), S_OK);
  EXPECT_TRUE(ranges.empty());
  ASSERT_EQ(WriteAt(At(L"file.bin"), 4096, "changed"), DWORD{ERROR_SUCCESS});
  ranges.resize(8);
  ASSERT_EQ(RangesOf(At(L"file.bin"), CF_PLACEHOLDER_RANGE_INFO_ONDISK, 0, ranges), S_OK);
  ASSERT_EQ(ranges.size(), 1u);
  EXPECT_EQ(ranges[0].StartingOffset.QuadPart, 0);
  EXPECT_EQ(ranges[0].Length.QuadPart, 10000);
  ranges.resize(8);
  ASSERT_EQ(RangesOf(At(L"file.bin"), CF_PLACEHOLDER_RANGE_INFO_MODIFIED, 0, ranges), S_OK);
  ASSERT_EQ(ranges.size(), 1u);
  EXPECT_LE(ranges[0].StartingOffset.QuadPart, 4096);
  EXPECT_GE(ranges[0].StartingOffset.QuadPart + ranges[0].Length.QuadPart, 4103);
}

TEST_F(Ranges, DocumentedStopWhereTheBufferEnds) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  std::vector<CF_FILE_RANGE> ranges;
  EXPECT_EQ(RangesOf(At(L"file.bin"), CF_PLACEHOLDER_RANGE_INFO_ONDISK, 0, ranges),
            Win32(ERROR_MORE_DATA));
  EXPECT_TRUE(ranges.empty());
}

TEST_F(Ranges, DocumentedThereAreNoneBehindTheEnd) {
  ASSERT_EQ(Create({}), S_OK);
  std::vector<CF_FILE_RANGE> ranges(8);
  EXPECT_EQ(RangesOf(At(L"file.bin"), CF_PLACEHOLDER_RANGE_INFO_ONDISK, 10000, ranges),
            Win32(ERROR_HANDLE_EOF));
}

TEST_F(Ranges, DocumentedCanBeAskedForByAFetch) {
  ASSERT_EQ(Create({}), S_OK);
  provider_.OnFetch([&](const Event& event) {
    CF_FILE_RANGE range[4];
    DWORD length = 77;
    EXPECT_EQ(
        CfGetPlaceholderRangeInfoForHydration(event.info.ConnectionKey, event.info.TransferKey,
                                              event.info.FileId, CF_PLACEHOLDER_RANGE_INFO_ONDISK,
                                              Large(0), Large(10000), range, sizeof range, &length),
        S_OK);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(provider_.Serve(event), S_OK);
  });
  EXPECT_EQ(ReadAll(At(L"file.bin")).error, DWORD{ERROR_SUCCESS});
}

class Notifications : public SyncRootTest {};

TEST_F(Notifications, DocumentedARenameIsToldWithItsTarget) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_TRUE(MoveFileW(At(L"file.bin").c_str(), At(L"n\u00e9w.bin").c_str())) << GetLastError();
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_NOTIFY_RENAME);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->path, Root().substr(2) + L"\\file.bin");
  EXPECT_EQ(event->otherPath, Root().substr(2) + L"\\n\u00e9w.bin");
  EXPECT_EQ(event->parameters.Rename.Flags,
            CF_CALLBACK_RENAME_FLAG_SOURCE_IN_SCOPE | CF_CALLBACK_RENAME_FLAG_TARGET_IN_SCOPE);
  const auto done = provider_.WaitFor(CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION);
  ASSERT_TRUE(done);
  EXPECT_EQ(done->otherPath, Root().substr(2) + L"\\file.bin");
  EXPECT_EQ(done->path, Root().substr(2) + L"\\n\u00e9w.bin");
  EXPECT_EQ(ReadAll(At(L"n\u00e9w.bin")).bytes, ServerBytes("identity-1", 0, 10000));
}

TEST_F(Notifications, DocumentedADeletionIsTold) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_TRUE(DeleteFileW(At(L"file.bin").c_str())) << GetLastError();
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_NOTIFY_DELETE);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->path, Root().substr(2) + L"\\file.bin");
  EXPECT_EQ(event->parameters.Delete.Flags, CF_CALLBACK_DELETE_FLAG_NONE);
  EXPECT_EQ(event->fileIdentity, "identity-1");
  EXPECT_TRUE(provider_.WaitFor(CF_CALLBACK_TYPE_NOTIFY_DELETE_COMPLETION));
}

}  // namespace
}  // namespace conformance
