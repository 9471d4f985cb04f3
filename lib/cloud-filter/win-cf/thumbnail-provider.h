#ifndef NIMBRA_WIN_CF_THUMBNAIL_PROVIDER_H_
#define NIMBRA_WIN_CF_THUMBNAIL_PROVIDER_H_

#include <windows.h>

#include <shobjidl.h>
#include <thumbcache.h>

#include <atomic>

namespace corvdrive::cloud_filter {

// The provider's class identifier, as COM takes it and as the registry does.
inline constexpr CLSID kThumbnailProviderClsid = {
    0xD35B8E20, 0x61C4, 0x4A97, {0xB2, 0xF3, 0x08, 0xE6, 0xC1, 0xA7, 0xD5, 0x94}};
inline constexpr char kThumbnailProviderClsidText[] = "{D35B8E20-61C4-4A97-B2F3-08E6C1A7D594}";

// Finds the image that stands for an item; see the public header.
using ThumbRetriever = bool (*)(const wchar_t* itemPath, wchar_t* imagePath);

// The client's retriever, or null. Replacing it while a request runs is no race: the request uses
// the one or the other.
extern std::atomic<ThumbRetriever> thumbRetriever;

}  // namespace corvdrive::cloud_filter

// What the shell asks for an item's thumbnail: it initialises the object with the item and asks for
// the bitmap once, on threads of its choice.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): only Release deletes COM objects.
class WinCFThumbnailProvider final : public IInitializeWithItem, public IThumbnailProvider {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;

  STDMETHODIMP Initialize(IShellItem* shellItem, DWORD mode) override;
  STDMETHODIMP GetThumbnail(UINT cx, HBITMAP* phbmp, WTS_ALPHATYPE* pdwAlpha) override;

 private:
  std::atomic<ULONG> referenceCount = 1;
  // Neither is ever released: the object lives for one request.
  IShellItem2* item = nullptr;
  PWSTR itemPath = nullptr;
};

#endif
