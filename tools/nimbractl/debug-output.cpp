#include "debug-output.h"

#include <sddl.h>

#include <cstring>
#include <memory>

#include "basics.h"
#include "results.h"

namespace nimbractl {
namespace {

// Programs with fewer rights than this one must get at the objects, or their lines are lost.
constexpr wchar_t kForEverybody[] = L"D:(A;;GRGWGX;;;WD)S:(ML;;NW;;;LW)";

// Creates a named object, which must not be there yet. A writer may hold the last one's objects for
// a moment after its reader has gone.
template <class Create>
UniqueKernelObject CreateNew(const char* name, const Create& create) {
  constexpr int kTries = 20;
  constexpr DWORD kPause = 50;
  for (int left = kTries; left > 0; --left, Sleep(kPause)) {
    SetLastError(ERROR_SUCCESS);
    UniqueKernelObject object(create());
    const DWORD error = GetLastError();
    if (object && error != ERROR_ALREADY_EXISTS) return object;
    if (error != ERROR_ALREADY_EXISTS) {
      throw Failure(std::string(name) + " cannot be made: " + ErrorText(error), "try again");
    }
  }
  throw Failure("another program reads the debugger output already",
                "only one can: close it (a debug viewer, or another nimbractl log)");
}

// The bytes are in the writer's code page, which they do not tell: UTF-8 if they can be, and else
// that of the system.
std::string ToUtf8(const std::string& bytes) {
  if (Utf8(Wide(bytes)) == bytes) return bytes;
  DWORD codePage = CP_ACP;
  GetLocaleInfoW(LOCALE_SYSTEM_DEFAULT, LOCALE_IDEFAULTANSICODEPAGE | LOCALE_RETURN_NUMBER,
                 reinterpret_cast<wchar_t*>(&codePage), sizeof codePage / sizeof(wchar_t));
  std::wstring text(bytes.size(), L'\0');
  const auto size = static_cast<int>(bytes.size());
  const auto length = MultiByteToWideChar(codePage, 0, bytes.data(), size, text.data(), size);
  text.resize(static_cast<std::size_t>(length));
  return Utf8(text);
}

}  // namespace

DebugOutput::DebugOutput() {
  SECURITY_ATTRIBUTES security{sizeof security, nullptr, FALSE};
  ConvertStringSecurityDescriptorToSecurityDescriptorW(kForEverybody, SDDL_REVISION_1,
                                                       &security.lpSecurityDescriptor, nullptr);
  const UniqueLocal owner(security.lpSecurityDescriptor);
  mapping_ = CreateNew("DBWIN_BUFFER", [&] {
    return CreateFileMappingW(INVALID_HANDLE_VALUE, &security, PAGE_READWRITE, 0, sizeof(Record),
                              L"DBWIN_BUFFER");
  });
  const auto createEvent = [&](const wchar_t* name) {
    return CreateEventW(&security, FALSE, FALSE, name);
  };
  isFree_ = CreateNew("DBWIN_BUFFER_READY", [&] { return createEvent(L"DBWIN_BUFFER_READY"); });
  isFilled_ = CreateNew("DBWIN_DATA_READY", [&] { return createEvent(L"DBWIN_DATA_READY"); });
  view_.reset(MapViewOfFile(mapping_.get(), FILE_MAP_READ, 0, 0, sizeof(Record)));
  if (!view_) {
    throw Failure("DBWIN_BUFFER cannot be read: " + ErrorText(GetLastError()), "try again");
  }
  SetEvent(isFree_.get());
}

std::optional<DebugOutput::Line> DebugOutput::Next(HANDLE stop, DWORD milliseconds) {
  const HANDLE events[]{stop, isFilled_.get()};
  if (WaitForMultipleObjects(2, events, FALSE, milliseconds) != WAIT_OBJECT_0 + 1) {
    return std::nullopt;
  }
  const auto record = std::make_unique<Record>();
  std::memcpy(record.get(), view_.get(), sizeof(Record));
  SetEvent(isFree_.get());
  return Line{record->processId,
              ToUtf8({record->text, strnlen(record->text, sizeof record->text)})};
}

}  // namespace nimbractl
