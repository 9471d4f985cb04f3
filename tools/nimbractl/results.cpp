#include "results.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>

#include "basics.h"

namespace nimbractl {
namespace {

struct Known {
  std::uint32_t code;
  const char* name;
  const char* meaning;
  const char* advice;
};

constexpr char kTryAgain[] = "try again when the client is running and its server can be reached";

// Windows has words for all of these, but none that tell what to do.
constexpr Known kKnown[]{
    {0x8000FFFF, "E_UNEXPECTED", "the platform is in an unexpected state", "try again"},
    {0x80004002, "E_NOINTERFACE", "the gate is closed", "nimbractl info tells why"},
    {0x80040151, "REGDB_E_WRITEREGDB", "the registry entry could not be written or removed",
     "it lies under HKEY_LOCAL_MACHINE: run this as administrator"},
    {0x80070002, "ERROR_FILE_NOT_FOUND", "there is no such file", "check the path"},
    {0x80070003, "ERROR_PATH_NOT_FOUND", "there is no such folder", "check the path"},
    {0x80070005, "ERROR_ACCESS_DENIED", "access is denied",
     "run this as the file's owner or as administrator"},
    {0x80070020, "ERROR_SHARING_VIOLATION", "a program has it open", "close that program"},
    {0x80070057, "ERROR_INVALID_PARAMETER", "the platform does not accept the request",
     "check what was given"},
    {0x80070070, "ERROR_DISK_FULL", "the disk is full", "make room on the disk"},
    {0x8007007E, "ERROR_MOD_NOT_FOUND", "cldapi.dll is missing",
     "nimbractl info tells what is there"},
    {0x8007007F, "ERROR_PROC_NOT_FOUND", "cldapi.dll lacks a function",
     "nimbractl info tells which cldapi.dll is used"},
    {0x800700C1, "ERROR_BAD_EXE_FORMAT", "it is no program for Windows", "name an .exe file"},
    {0x80070426, "ERROR_SERVICE_NOT_ACTIVE", "the cloud filter is not running",
     "start it; in the simulator that is cloud-filterd"},
    {0x8007016A, "ERROR_CLOUD_FILE_PROVIDER_NOT_RUNNING",
     "the client that serves the sync root is not running", "start the client"},
    {0x80070178, "ERROR_NOT_A_CLOUD_FILE", "it is no placeholder, but an ordinary file or folder",
     "nimbractl roots lists the folders that have placeholders"},
    {0x80070179, "ERROR_CLOUD_FILE_NOT_IN_SYNC", "it is not in sync",
     "let the client upload it, or mark it with nimbractl in-sync"},
    {0x8007017A, "ERROR_CLOUD_FILE_ALREADY_CONNECTED", "another program serves the sync root",
     "stop that program"},
    {0x8007017B, "ERROR_CLOUD_FILE_NOT_SUPPORTED", "the file system does not support it",
     "sync roots must lie on an NTFS drive"},
    {0x8007017C, "ERROR_CLOUD_FILE_INVALID_REQUEST", "the platform does not allow it now",
     "if the sync root is being served, stop its client first"},
    {0x8007017E, "ERROR_CLOUD_FILE_CONNECTED_PROVIDER_ONLY",
     "only the client that serves the sync root may do that", "start the client"},
    {0x80070184, "ERROR_CLOUD_FILE_NETWORK_UNAVAILABLE", "the client has no network", kTryAgain},
    {0x80070185, "ERROR_CLOUD_FILE_UNSUCCESSFUL", "the client could not fetch the data", kTryAgain},
    {0x80070186, "ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT", "it lies in no sync root",
     "nimbractl roots lists the sync roots"},
    {0x80070187, "ERROR_CLOUD_FILE_IN_USE", "a program has it open", "close that program"},
    {0x80070188, "ERROR_CLOUD_FILE_PINNED", "it is pinned", "nimbractl unpin it first"},
    {0x80070189, "ERROR_CLOUD_FILE_REQUEST_ABORTED", "the client gave up the request", kTryAgain},
    {0x8007018B, "ERROR_CLOUD_FILE_ACCESS_DENIED", "the platform denies access",
     "run this as the user of the sync root"},
    {0x8007018E, "ERROR_CLOUD_FILE_REQUEST_CANCELED", "the request was cancelled", "try again"},
    {0x80070194, "ERROR_CLOUD_FILE_PROVIDER_TERMINATED", "the client ended before it had answered",
     "start the client"},
    {0x80070195, "ERROR_NOT_A_CLOUD_SYNC_ROOT", "it is no sync root",
     "nimbractl roots lists the sync roots"},
    {0x800701AA, "ERROR_CLOUD_FILE_REQUEST_TIMEOUT", "the client did not answer in time",
     kTryAgain},
    {0x800701B2, "ERROR_CLOUD_FILE_DEHYDRATION_DISALLOWED", "the client forbids dehydration",
     "ask the client's maker"},
};

const Known* Find(std::int32_t result) {
  const auto code = static_cast<std::uint32_t>(result);
  const auto* found = std::find_if(std::begin(kKnown), std::end(kKnown),
                                   [&](const Known& one) { return one.code == code; });
  return found == std::end(kKnown) ? nullptr : found;
}

// Windows' own words, without the line break that ends them.
std::string SystemText(std::uint32_t code) {
  wchar_t* text = nullptr;
  const auto length = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  const std::unique_ptr<wchar_t, decltype(&LocalFree)> owner(text, LocalFree);
  auto utf8 = Utf8({text, length});
  while (!utf8.empty() && (utf8.back() == '\n' || utf8.back() == '\r' || utf8.back() == '.')) {
    utf8.pop_back();
  }
  return utf8;
}

}  // namespace

std::string ResultText(std::int32_t result) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(result));
  if (const auto* known = Find(result)) {
    return std::string(code) + " " + known->name + ", " + known->meaning;
  }
  const auto words = SystemText(static_cast<std::uint32_t>(result));
  return words.empty() ? code : std::string(code) + ", " + words;
}

std::string ResultAdvice(std::int32_t result) {
  const auto* known = Find(result);
  return known != nullptr ? known->advice : kLogAdvice;
}

std::string ErrorText(std::uint32_t error) { return ResultText(HRESULT_FROM_WIN32(error)); }

}  // namespace nimbractl
