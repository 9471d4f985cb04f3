#include "win-cf/thumbnail-provider.h"

#include <shlwapi.h>
#include <wincodec.h>
#include <wrl/client.h>

#include <array>
#include <cstdint>
#include <new>
#include <optional>

#include "common/debug-log.h"
#include "common/exception-state.h"
#include "common/owners.h"
#include "common/text.h"
#include "win-cf/bitmap-size.h"

namespace corvdrive::cloud_filter {

std::atomic<ThumbRetriever> thumbRetriever = nullptr;

}  // namespace corvdrive::cloud_filter

namespace {

using corvdrive::cloud_filter::BitmapBytes;
using corvdrive::cloud_filter::Log;
using corvdrive::cloud_filter::PrepareExceptionState;
using corvdrive::cloud_filter::ThumbRetriever;
using corvdrive::cloud_filter::thumbRetriever;
using corvdrive::cloud_filter::UniqueBitmap;
using corvdrive::cloud_filter::WideToUtf8;
using Microsoft::WRL::ComPtr;

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\thumbnail-provider)";

// The client sees MAX_PATH characters; one more ends a path that fills them all.
using ImagePath = std::array<wchar_t, MAX_PATH + 1>;

// Whether the client names an image. What it throws ends here: the call came from COM.
bool Retrieve(ThumbRetriever retriever, const wchar_t* itemPath, ImagePath& imagePath) {
  bool isFound = false;
  try {
    isFound = retriever(itemPath, imagePath.data());
  } catch (...) {
    return false;
  }
  imagePath.back() = L'\0';
  return isFound && imagePath.front() != L'\0';
}

HRESULT Convert(IWICImagingFactory* factory, IWICBitmapSource* source,
                ComPtr<IWICBitmapSource>& converted) {
  ComPtr<IWICFormatConverter> converter;
  HRESULT result = factory->CreateFormatConverter(converter.GetAddressOf());
  if (SUCCEEDED(result)) {
    result = converter->Initialize(source, GUID_WICPixelFormat32bppBGRA, WICBitmapDitherTypeNone,
                                   nullptr, 0.0, WICBitmapPaletteTypeCustom);
  }
  return SUCCEEDED(result) ? converter.As(&converted) : result;
}

// The image in the bitmap's own format. One whose format cannot be read is taken as it is.
HRESULT ToBgra(IWICImagingFactory* factory, IWICBitmapSource* source,
               ComPtr<IWICBitmapSource>& bgra) {
  WICPixelFormatGUID format{};
  if (SUCCEEDED(source->GetPixelFormat(&format)) && format != GUID_WICPixelFormat32bppBGRA) {
    return Convert(factory, source, bgra);
  }
  return source->QueryInterface(IID_PPV_ARGS(bgra.GetAddressOf()));
}

// A top-down bitmap of 32 bits per pixel and its pixels, or nothing.
UniqueBitmap NewBitmap(UINT width, UINT height, void*& pixels) {
  BITMAPINFO info{};
  info.bmiHeader.biSize = sizeof info.bmiHeader;
  info.bmiHeader.biWidth = static_cast<LONG>(width);
  info.bmiHeader.biHeight = -static_cast<LONG>(height);
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = 32;
  info.bmiHeader.biCompression = BI_RGB;
  return UniqueBitmap(CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &pixels, nullptr, 0));
}

HRESULT WICCreate32bppHBITMAP(IWICBitmapSource* image, IWICImagingFactory* factory, HBITMAP* out) {
  *out = nullptr;
  ComPtr<IWICBitmapSource> source;
  HRESULT result = ToBgra(factory, image, source);
  if (FAILED(result)) {
    return result;
  }
  UINT width = 0;
  UINT height = 0;
  result = source->GetSize(&width, &height);
  if (FAILED(result)) {
    return result;
  }
  const std::optional<std::uint32_t> bytes = BitmapBytes(width, height);
  void* pixels = nullptr;
  UniqueBitmap bitmap = bytes ? NewBitmap(width, height, pixels) : UniqueBitmap();
  if (!bitmap.IsValid()) {
    return E_OUTOFMEMORY;
  }
  const WICRect all{0, 0, static_cast<INT>(width), static_cast<INT>(height)};
  result = source->CopyPixels(&all, width * 4, *bytes, static_cast<BYTE*>(pixels));
  if (SUCCEEDED(result)) {
    *out = bitmap.Release();
  }
  return result;
}

HRESULT Decode(IStream* stream, HBITMAP* out) {
  ComPtr<IWICImagingFactory> factory;
  ComPtr<IWICBitmapDecoder> decoder;
  ComPtr<IWICBitmapFrameDecode> frame;
  HRESULT result = CoCreateInstance(CLSID_WICImagingFactory2, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_PPV_ARGS(factory.GetAddressOf()));
  if (SUCCEEDED(result)) {
    // The decoders that come with Windows; GUID_VendorMicrosoftBuiltIn stands for other ones.
    result = factory->CreateDecoderFromStream(
        stream, &GUID_VendorMicrosoft, WICDecodeMetadataCacheOnDemand, decoder.GetAddressOf());
  }
  if (SUCCEEDED(result)) {
    result = decoder->GetFrame(0, frame.GetAddressOf());
  }
  return SUCCEEDED(result) ? WICCreate32bppHBITMAP(frame.Get(), factory.Get(), out) : result;
}

HRESULT MakeThumbnail(const ImagePath& imagePath, const wchar_t* itemPath, HBITMAP* phbmp,
                      WTS_ALPHATYPE* pdwAlpha) {
  ComPtr<IStream> stream;
  HRESULT result = SHCreateStreamOnFileW(imagePath.data(), STGM_READ, stream.GetAddressOf());
  if (FAILED(result)) {
    Log(kSource, __LINE__, "SHCreateStreamOnFileW: ", result,
        "path: ", WideToUtf8(imagePath.data()));
    return result;
  }
  result = Decode(stream.Get(), phbmp);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "WICCreate32bppHBITMAP: ", result);
    return result;
  }
  *pdwAlpha = WTSAT_ARGB;
  Log(kSource, __LINE__, "Thumbnail done for ", WideToUtf8(itemPath));
  return result;
}

}  // namespace

HRESULT WinCFThumbnailProvider::QueryInterface(REFIID riid, void** ppv) {
  static const std::array<QITAB, 3> kInterfaces = {
      QITAB{&__uuidof(IInitializeWithItem),
            static_cast<int>(OFFSETOFCLASS(IInitializeWithItem, WinCFThumbnailProvider))},
      QITAB{&__uuidof(IThumbnailProvider),
            static_cast<int>(OFFSETOFCLASS(IThumbnailProvider, WinCFThumbnailProvider))},
      QITAB{nullptr, 0}};
  return QISearch(this, kInterfaces.data(), riid, ppv);
}

ULONG WinCFThumbnailProvider::AddRef() { return ++referenceCount; }

ULONG WinCFThumbnailProvider::Release() {
  const ULONG count = --referenceCount;
  if (count == 0) {
    delete this;
  }
  return count;
}

HRESULT WinCFThumbnailProvider::Initialize(IShellItem* shellItem, DWORD /*mode*/) try {
  PrepareExceptionState();
  if (shellItem == nullptr) {
    return E_INVALIDARG;
  }
  // Whatever fails from here on, no request may be answered with an earlier item's path.
  itemPath = nullptr;
  HRESULT result = shellItem->QueryInterface(IID_PPV_ARGS(&item));
  if (FAILED(result)) {
    return result;
  }
  result = item->GetDisplayName(SIGDN_FILESYSPATH, &itemPath);
  if (FAILED(result)) {
    itemPath = nullptr;
    return result;
  }
  Log(kSource, __LINE__, "Thumbnail requested for ", WideToUtf8(itemPath));
  return S_OK;
} catch (const std::bad_alloc&) {
  itemPath = nullptr;
  return E_OUTOFMEMORY;
}

HRESULT WinCFThumbnailProvider::GetThumbnail(UINT /*cx*/, HBITMAP* phbmp, WTS_ALPHATYPE* pdwAlpha) {
  PrepareExceptionState();
  if (phbmp == nullptr || pdwAlpha == nullptr) {
    return E_POINTER;
  }
  *phbmp = nullptr;
  *pdwAlpha = WTSAT_UNKNOWN;
  const ThumbRetriever retriever = thumbRetriever;
  if (retriever == nullptr) {
    return S_OK;
  }
  ImagePath imagePath{};
  if (itemPath == nullptr || !Retrieve(retriever, itemPath, imagePath)) {
    return E_UNEXPECTED;
  }
  try {
    return MakeThumbnail(imagePath, itemPath, phbmp, pdwAlpha);
  } catch (const std::bad_alloc&) {
    // The log had no memory. A thumbnail that is done stays one.
    return *phbmp != nullptr ? S_OK : E_OUTOFMEMORY;
  }
}
