#include "tests/support/fake-shell-link.h"

#include <algorithm>

#include "tests/support/temp-folder.h"

namespace nimbra_test {

FakeShellLink::FakeShellLink(EventSequence& events)
    : events_(events),
      create_([this](auto, REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID id,
                     LPVOID* object) { return Create(classId, outer, context, id, object); }) {}

HRESULT FakeShellLink::Create(REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID id,
                              void** object) {
  const bool asDocumented = IsEqualGUID(classId, CLSID_ShellLink) && outer == nullptr &&
                            context == CLSCTX_INPROC_SERVER && IsEqualGUID(id, IID_IShellLinkW);
  events_.Note(asDocumented ? "CoCreateInstance" : "CoCreateInstance of something else");
  *object = nullptr;
  if (SUCCEEDED(results.create)) {
    ++link_.references;
    *object = static_cast<IShellLinkW*>(&link_);
  }
  return results.create;
}

HRESULT FakeShellLink::Query(REFIID id, void** object) {
  events_.Note(IsEqualGUID(id, IID_IPersistFile) ? "QueryInterface IPersistFile"
                                                 : "QueryInterface of something else");
  *object = nullptr;
  if (SUCCEEDED(results.query)) {
    ++file_.references;
    *object = static_cast<IPersistFile*>(&file_);
  }
  return results.query;
}

HRESULT FakeShellLink::Link::QueryInterface(REFIID id, void** object) {
  return owner_.Query(id, object);
}

ULONG FakeShellLink::Link::AddRef() { return static_cast<ULONG>(++references); }

ULONG FakeShellLink::Link::Release() {
  owner_.events_.Note("Release link");
  return static_cast<ULONG>(--references);
}

HRESULT FakeShellLink::Link::GetPath(LPWSTR path, int size, WIN32_FIND_DATAW* data, DWORD flags) {
  // Whoever asks has cleared the buffer: a failing call leaves it as it is.
  const bool zero = std::all_of(path, path + size, [](wchar_t unit) { return unit == 0; });
  owner_.events_.Note("GetPath size " + std::to_string(size) + " flags " + std::to_string(flags) +
                      (data != nullptr ? "" : " without data") + (zero ? "" : " not cleared"));
  if (SUCCEEDED(owner_.results.getPath)) {
    lstrcpynW(path, owner_.target_.c_str(), size);
  }
  return owner_.results.getPath;
}

HRESULT FakeShellLink::Link::SetDescription(LPCWSTR text) {
  owner_.events_.Note("SetDescription " + Narrow(text));
  return owner_.results.setDescription;
}

HRESULT FakeShellLink::Link::SetIconLocation(LPCWSTR path, int index) {
  owner_.events_.Note("SetIconLocation " + Narrow(path) + " " + std::to_string(index));
  return owner_.results.setIconLocation;
}

HRESULT FakeShellLink::Link::Resolve(HWND window, DWORD flags) {
  owner_.events_.Note("Resolve " + std::string(window == nullptr ? "NULL " : "window ") +
                      std::to_string(flags));
  if (const auto found = owner_.moved.find(owner_.target_); found != owner_.moved.end()) {
    owner_.target_ = found->second;
  }
  return owner_.results.resolve;
}

HRESULT FakeShellLink::Link::SetPath(LPCWSTR path) {
  owner_.events_.Note("SetPath " + Narrow(path));
  return owner_.results.setPath;
}

HRESULT FakeShellLink::Link::Unexpected(const char* name) {
  owner_.events_.Note(std::string("unexpected ") + name);
  return E_NOTIMPL;
}

HRESULT FakeShellLink::File::QueryInterface(REFIID, void** object) {
  *object = nullptr;
  return Unexpected("QueryInterface of the file");
}

ULONG FakeShellLink::File::AddRef() { return static_cast<ULONG>(++references); }

ULONG FakeShellLink::File::Release() {
  owner_.events_.Note("Release file");
  return static_cast<ULONG>(--references);
}

HRESULT FakeShellLink::File::Load(LPCOLESTR path, DWORD mode) {
  owner_.events_.Note("Load " + Narrow(path) + " mode " + std::to_string(mode));
  const auto found = owner_.targets.find(path);
  if (found == owner_.targets.end()) {
    return STG_E_FILENOTFOUND;
  }
  owner_.target_ = found->second;
  return owner_.results.load;
}

HRESULT FakeShellLink::File::Save(LPCOLESTR path, BOOL remember) {
  owner_.events_.Note("Save " + Narrow(path) + (remember == TRUE ? " TRUE" : " not TRUE"));
  return owner_.results.save;
}

HRESULT FakeShellLink::File::Unexpected(const char* name) {
  owner_.events_.Note(std::string("unexpected ") + name);
  return E_NOTIMPL;
}

}  // namespace nimbra_test
