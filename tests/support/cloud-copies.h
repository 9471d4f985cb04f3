#ifndef NIMBRA_TESTS_SUPPORT_CLOUD_COPIES_H_
#define NIMBRA_TESTS_SUPPORT_CLOUD_COPIES_H_

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/cloud-files.h"
#include "tests/support/cloud-calls.h"

// Copies of what the arguments of a platform call point to.
namespace nimbra_test {

// A null text is told by a text that no caller passes.
std::wstring Text(LPCWSTR text);
std::optional<Bytes> Blob(const void* data, DWORD length);
OverlappedArgument Overlapped(OVERLAPPED* overlapped);
bool IsZeroed(const void* buffer, DWORD length);
CreateEntry CopyEntry(const CF_PLACEHOLDER_CREATE_INFO& entry);
// Up to and with the terminator.
std::vector<CF_CALLBACK_REGISTRATION> CopyTable(const CF_CALLBACK_REGISTRATION* table);
// `bufferSize` is the size of a transfer's whole buffer, 0 when it is not known.
ExecuteCall CopyExecute(const CF_OPERATION_INFO& info, const CF_OPERATION_PARAMETERS& parameters,
                        std::int64_t bufferSize);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_CLOUD_COPIES_H_
