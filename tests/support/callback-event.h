#ifndef NIMBRA_TESTS_SUPPORT_CALLBACK_EVENT_H_
#define NIMBRA_TESTS_SUPPORT_CALLBACK_EVENT_H_

#include <cstdint>
#include <optional>
#include <string>

#include "common/cloud-files.h"

namespace nimbra_test {

// What the platform tells in one callback. A text or blob without a value is passed as a null
// pointer (with length 0 unless a length is forced).
struct CallbackEvent {
  CF_CALLBACK_TYPE type = CF_CALLBACK_TYPE_FETCH_DATA;

  std::optional<std::string> syncRootIdentity = "Corvane.Drive.FileStreaming.session.12";
  std::optional<std::string> fileIdentity = "file-identity";
  // Passed as FileIdentityLength whatever the blob's own length is.
  std::optional<DWORD> forcedFileIdentityLength;
  std::optional<std::wstring> volumeGuidName =
      L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\";
  std::optional<std::wstring> volumeDosName = L"C:";
  std::optional<std::wstring> normalizedPath = L"\\Sync\\file.txt";
  std::int64_t connectionKey = 0x1122334455667788;
  std::int64_t transferKey = 0x0102030405060708;
  std::int64_t requestKey = 0x7172737475767778;
  std::int64_t fileId = 0x2122232425262728;
  std::int64_t syncRootFileId = 0x3132333435363738;
  std::int64_t fileSize = 4096;

  // No process information at all when false.
  bool hasProcessInfo = true;
  DWORD processId = 4711;
  std::optional<std::wstring> imagePath = L"\\Device\\HarddiskVolume1\\Windows\\notepad.exe";

  // The flags of the arm that belongs to the type.
  DWORD flags = 0;
  // Fetch: required and optional range. Cancel: the first two.
  std::int64_t requiredOffset = 0;
  std::int64_t requiredLength = 4096;
  std::int64_t optionalOffset = 0;
  std::int64_t optionalLength = 0;
  // Rename: the target; rename completion: the source.
  std::optional<std::wstring> otherPath = L"\\Sync\\renamed.txt";
};

// Calls `callback` as the platform does: every record and buffer lies in memory that exists only
// during the call and cannot be touched any more once it returned (a later access faults). Anything
// that escapes from the callback reaches the caller.
void Deliver(CF_CALLBACK callback, void* context, const CallbackEvent& event);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_CALLBACK_EVENT_H_
