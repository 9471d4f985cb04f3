#include "thumbnail-request.h"

#include <objbase.h>
#include <shobjidl.h>
#include <wrl/client.h>

#include <memory>
#include <type_traits>
#include <utility>

#include "wide-text.h"

namespace e2e {
namespace {

using Microsoft::WRL::ComPtr;

constexpr CLSID kProvider = {
    0xD35B8E20, 0x61C4, 0x4A97, {0xB2, 0xF3, 0x08, 0xE6, 0xC1, 0xA7, 0xD5, 0x94}};

struct BitmapDeleter {
  using pointer = HBITMAP;
  void operator()(HBITMAP bitmap) const { DeleteObject(bitmap); }
};
using Bitmap = std::unique_ptr<std::remove_pointer_t<HBITMAP>, BitmapDeleter>;

// Lets one thread of all these programs at a time ask COM for an object: under Wine a class that is
// served has one pipe for that, and callers that meet at it may wait for ever. What they ask the
// objects for is at the same time all the same.
class Turn {
 public:
  Turn() : mutex_(CreateMutexW(nullptr, FALSE, L"Nimbra e2e thumbnail activation")) {
    WaitForSingleObject(mutex_, INFINITE);
  }
  ~Turn() {
    ReleaseMutex(mutex_);
    CloseHandle(mutex_);
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  HANDLE mutex_;
};

template <typename Interface>
HRESULT NewProvider(ComPtr<Interface>& provider) {
  const Turn turn;
  return CoCreateInstance(kProvider, nullptr, CLSCTX_LOCAL_SERVER,
                          IID_PPV_ARGS(provider.GetAddressOf()));
}

// Remembers which call a result came from.
bool Succeeded(Thumbnail& thumbnail, const char* step, HRESULT result) {
  thumbnail.step = step;
  thumbnail.result = result;
  return SUCCEEDED(result);
}

void ReadPicture(Thumbnail& thumbnail, HBITMAP bitmap) {
  Picture picture;
  const auto result = ReadBitmap(bitmap, picture);
  if (FAILED(result)) {
    Succeeded(thumbnail, "ReadBitmap", result);
    return;
  }
  thumbnail.picture = std::move(picture);
}

}  // namespace

void PrepareProxies(const std::string& itemPath) {
  ComPtr<IShellItem> item;
  ComPtr<IInitializeWithItem> initializer;
  ComPtr<IThumbnailProvider> provider;
  if (SUCCEEDED(SHCreateItemFromParsingName(ToWide(itemPath).c_str(), nullptr,
                                            IID_PPV_ARGS(item.GetAddressOf()))) &&
      SUCCEEDED(NewProvider(initializer)) &&
      SUCCEEDED(initializer->Initialize(item.Get(), STGM_READ))) {
    static_cast<void>(initializer.As(&provider));
  }
}

Thumbnail RequestThumbnail(const std::string& itemPath, UINT size) {
  Thumbnail thumbnail;
  ComPtr<IShellItem> item;
  ComPtr<IInitializeWithItem> initializer;
  ComPtr<IThumbnailProvider> provider;
  HBITMAP bitmap = nullptr;
  const bool isAnswered =
      Succeeded(thumbnail, "SHCreateItemFromParsingName",
                SHCreateItemFromParsingName(ToWide(itemPath).c_str(), nullptr,
                                            IID_PPV_ARGS(item.GetAddressOf()))) &&
      Succeeded(thumbnail, "CoCreateInstance", NewProvider(initializer)) &&
      Succeeded(thumbnail, "Initialize", initializer->Initialize(item.Get(), STGM_READ)) &&
      Succeeded(thumbnail, "QueryInterface", initializer.As(&provider)) &&
      Succeeded(thumbnail, "GetThumbnail", provider->GetThumbnail(size, &bitmap, &thumbnail.alpha));
  const Bitmap owned(bitmap);
  if (isAnswered && owned) ReadPicture(thumbnail, owned.get());
  return thumbnail;
}

HRESULT QueryProvider(const std::string& interfaceId) {
  IID id{};
  const auto result = IIDFromString(ToWide(interfaceId).c_str(), &id);
  if (FAILED(result)) return result;
  ComPtr<IUnknown> provider;
  const auto created = NewProvider(provider);
  if (FAILED(created)) return created;
  ComPtr<IUnknown> found;
  return provider->QueryInterface(id, reinterpret_cast<void**>(found.GetAddressOf()));
}

}  // namespace e2e
