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

constexpr wchar_t kBuffer[] = L"DBWIN_BUFFER";
constexpr wchar_t kIsFree[] = L"DBWIN_BUFFER_READY";
constexpr wchar_t kIsFilled[] = L"DBWIN_DATA_READY";

// How often, and how long each time, what another reader has is looked at.
constexpr int kTries = 20;
constexpr DWORD kPause = 50;

// Whether a named object is new; one of a reader with other rights cannot even be opened. Throws a
// Failure if it cannot be made for another reason.
bool IsNew(const UniqueKernelObject& object) {
  const DWORD error = GetLastError();
  if (error == ERROR_ALREADY_EXISTS || error == ERROR_ACCESS_DENIED) return false;
  if (object) return true;
  throw Failure("the debugger output cannot be listened to: " + ErrorText(error), "try again");
}

bool BufferExists() {
  const UniqueKernelObject buffer(OpenFileMappingW(FILE_MAP_READ, FALSE, kBuffer));
  return buffer || GetLastError() == ERROR_ACCESS_DENIED;
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
  bool isServed = false;
  for (int left = kTries; left > 0; --left) {
    if (Create()) return;
    isServed = Open() && IsServed() ? true : isServed;
    // A writer may hold the last reader's objects for a moment; they must have a chance to go.
    Close();
    Sleep(kPause);
  }
  if (isServed || !Open()) {
    throw Failure("another program reads the debugger output already",
                  "only one can: close it (a debug viewer, or another nimbractl log)");
  }
  TakeOver();
}

DebugOutput::~DebugOutput() {
  constexpr ULONGLONG kLongest = 5000, kLongestBesideAnother = 500;
  // A writer that is at it still has the buffer, and so the next one may find it: nobody takes the
  // lines any more, but nobody waits for that either. A listener that hangs never lets go of it.
  view_.reset();
  mapping_ = UniqueKernelObject();
  const auto longest = wasLeftBehind_ ? kLongestBesideAnother : kLongest;
  for (const auto end = GetTickCount64() + longest; BufferExists() && GetTickCount64() < end;) {
    if (WaitForSingleObject(isFilled_.get(), kPause) == WAIT_OBJECT_0) SetEvent(isFree_.get());
  }
}

// Gives false, and holds nothing, if any of the objects is there already.
bool DebugOutput::Create() {
  SECURITY_ATTRIBUTES security{sizeof security, nullptr, FALSE};
  ConvertStringSecurityDescriptorToSecurityDescriptorW(kForEverybody, SDDL_REVISION_1,
                                                       &security.lpSecurityDescriptor, nullptr);
  const UniqueLocal owner(security.lpSecurityDescriptor);
  const auto make = [](UniqueKernelObject& object, const auto& create) {
    SetLastError(ERROR_SUCCESS);
    object = UniqueKernelObject(create());
    return IsNew(object);
  };
  const auto makeEvent = [&](UniqueKernelObject& event, const wchar_t* name) {
    return make(event, [&] { return CreateEventW(&security, FALSE, FALSE, name); });
  };
  const auto makeBuffer = [&] {
    return CreateFileMappingW(INVALID_HANDLE_VALUE, &security, PAGE_READWRITE, 0, sizeof(Record),
                              kBuffer);
  };
  if (make(mapping_, makeBuffer) && makeEvent(isFree_, kIsFree) &&
      makeEvent(isFilled_, kIsFilled)) {
    view_.reset(MapViewOfFile(mapping_.get(), FILE_MAP_READ, 0, 0, sizeof(Record)));
    wasEmpty_ = CurrentMoment();
    if (view_) return SetEvent(isFree_.get()) != FALSE;
    throw Failure("the debugger output cannot be read: " + ErrorText(GetLastError()), "try again");
  }
  Close();
  return false;
}

// Another reader's objects, with no more rights than that takes.
bool DebugOutput::Open() {
  mapping_ = UniqueKernelObject(OpenFileMappingW(FILE_MAP_READ, FALSE, kBuffer));
  isFree_ = UniqueKernelObject(OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, kIsFree));
  isFilled_ = UniqueKernelObject(OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, kIsFilled));
  if (!mapping_ || !isFree_ || !isFilled_) return false;
  view_.reset(MapViewOfFile(mapping_.get(), FILE_MAP_READ, 0, 0, sizeof(Record)));
  return view_ != nullptr;
}

void DebugOutput::Close() {
  view_.reset();
  for (auto* object : {&mapping_, &isFree_, &isFilled_}) *object = UniqueKernelObject();
}

// Whether somebody frees the buffer of these objects: a reader does after each line.
bool DebugOutput::IsServed() {
  if (WaitForSingleObject(isFree_.get(), kPause) != WAIT_OBJECT_0) return false;
  SetEvent(isFree_.get());
  return true;
}

// The last line may lie there still, for nobody knows how long; it is for this reader then.
void DebugOutput::TakeOver() {
  wasLeftBehind_ = true;
  const bool isFilled = WaitForSingleObject(isFilled_.get(), 0) == WAIT_OBJECT_0;
  wasEmpty_ = isFilled ? 0 : CurrentMoment();
  SetEvent(isFilled ? isFilled_.get() : isFree_.get());
}

std::optional<DebugOutput::Line> DebugOutput::Next(HANDLE stop, DWORD milliseconds) {
  const HANDLE events[]{stop, isFilled_.get()};
  const auto start = CurrentMoment();
  const auto waited = WaitForMultipleObjects(2, events, FALSE, milliseconds);
  // Not the end of the wait: a process that is held up takes long to come back from it.
  if (waited == WAIT_TIMEOUT) wasEmpty_ = start;
  if (waited != WAIT_OBJECT_0 + 1) return std::nullopt;
  const Span written{wasEmpty_, CurrentMoment()};
  wasEmpty_ = written.latest;
  const auto record = std::make_unique<Record>();
  std::memcpy(record.get(), view_.get(), sizeof(Record));
  SetEvent(isFree_.get());
  return Line{record->processId, written,
              ToUtf8({record->text, strnlen(record->text, sizeof record->text)})};
}

}  // namespace nimbractl
