#include "picture.h"

#include <wincodec.h>
#include <wrl/client.h>

#include <memory>
#include <type_traits>

#include "wide-text.h"

namespace e2e {
namespace {

using Microsoft::WRL::ComPtr;

constexpr UINT kBytesPerPixel = 4;

struct ContextDeleter {
  using pointer = HDC;
  void operator()(HDC context) const { DeleteDC(context); }
};
using MemoryContext = std::unique_ptr<std::remove_pointer_t<HDC>, ContextDeleter>;

UINT Stride(const Picture& picture) { return picture.width * kBytesPerPixel; }

BITMAPINFO TopDown(const Picture& picture) {
  BITMAPINFO info{};
  info.bmiHeader.biSize = sizeof info.bmiHeader;
  info.bmiHeader.biWidth = static_cast<LONG>(picture.width);
  info.bmiHeader.biHeight = -static_cast<LONG>(picture.height);
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = kBytesPerPixel * 8;
  info.bmiHeader.biCompression = BI_RGB;
  return info;
}

HRESULT OpenForWriting(IWICImagingFactory* factory, const std::string& path,
                       ComPtr<IWICBitmapEncoder>& encoder) {
  ComPtr<IWICStream> stream;
  HRESULT result = factory->CreateStream(stream.GetAddressOf());
  if (SUCCEEDED(result)) {
    result = stream->InitializeFromFilename(ToWide(path).c_str(), GENERIC_WRITE);
  }
  if (SUCCEEDED(result)) {
    result = factory->CreateEncoder(GUID_ContainerFormatPng, nullptr, encoder.GetAddressOf());
  }
  return SUCCEEDED(result) ? encoder->Initialize(stream.Get(), WICBitmapEncoderNoCache) : result;
}

HRESULT WriteFrame(IWICBitmapFrameEncode* frame, Picture& picture) {
  WICPixelFormatGUID format = GUID_WICPixelFormat32bppBGRA;
  HRESULT result = frame->Initialize(nullptr);
  if (SUCCEEDED(result)) result = frame->SetSize(picture.width, picture.height);
  if (SUCCEEDED(result)) result = frame->SetPixelFormat(&format);
  if (SUCCEEDED(result) && format != GUID_WICPixelFormat32bppBGRA) result = E_NOTIMPL;
  if (SUCCEEDED(result)) {
    result = frame->WritePixels(picture.height, Stride(picture),
                                static_cast<UINT>(picture.pixels.size()),
                                reinterpret_cast<BYTE*>(picture.pixels.data()));
  }
  return SUCCEEDED(result) ? frame->Commit() : result;
}

}  // namespace

HRESULT ReadBitmap(HBITMAP bitmap, Picture& picture) {
  BITMAP header{};
  if (GetObjectW(bitmap, sizeof header, &header) == 0) return E_HANDLE;
  picture.width = static_cast<UINT>(header.bmWidth);
  picture.height = static_cast<UINT>(header.bmHeight);
  picture.pixels.resize(std::size_t{Stride(picture)} * picture.height);
  auto info = TopDown(picture);
  const MemoryContext context(CreateCompatibleDC(nullptr));
  const auto lines = GetDIBits(context.get(), bitmap, 0, picture.height, picture.pixels.data(),
                               &info, DIB_RGB_COLORS);
  return static_cast<UINT>(lines) == picture.height ? S_OK : E_FAIL;
}

HRESULT WritePng(Picture& picture, const std::string& path) {
  ComPtr<IWICImagingFactory> factory;
  ComPtr<IWICBitmapEncoder> encoder;
  ComPtr<IWICBitmapFrameEncode> frame;
  HRESULT result = CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_PPV_ARGS(factory.GetAddressOf()));
  if (SUCCEEDED(result)) result = OpenForWriting(factory.Get(), path, encoder);
  if (SUCCEEDED(result)) result = encoder->CreateNewFrame(frame.GetAddressOf(), nullptr);
  if (SUCCEEDED(result)) result = WriteFrame(frame.Get(), picture);
  return SUCCEEDED(result) ? encoder->Commit() : result;
}

}  // namespace e2e
