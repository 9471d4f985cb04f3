#include "thumbnails.h"

#include <windows.h>

#include <wincodec.h>
#include <wrl/client.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace mirror {
namespace {

using Microsoft::WRL::ComPtr;

constexpr UINT kLongestSide = 256;  // of a preview: as much as Explorer usually shows

struct Folders {
  fs::path source, root, previews;
};
const Folders* folders = nullptr;  // once set it stays, as a request may run until the process ends

// The file of the source that an item of the sync root stands for; empty if there is none. It goes
// by the name alone: opening the item could fetch its data. So one that was renamed has none.
fs::path SourceOf(std::wstring_view item) {
  const auto& root = folders->root.native();
  const auto length = static_cast<int>(root.size());
  if (item.size() <= root.size() + 1 || item[root.size()] != L'\\') return {};
  const bool isBelow =
      CompareStringOrdinal(item.data(), length, root.data(), length, TRUE) == CSTR_EQUAL;
  return isBelow ? folders->source / item.substr(root.size() + 1) : fs::path();
}

// The name of a file's preview in the temporary folder, another one when the file has changed.
fs::path PreviewOf(const fs::path& image) {
  // The file system library may know the time to the second only, and a picture can change twice.
  WIN32_FILE_ATTRIBUTE_DATA data{};
  GetFileAttributesExW(image.c_str(), GetFileExInfoStandard, &data);
  auto key = image.native();
  for (const DWORD part : {data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime,
                           data.nFileSizeHigh, data.nFileSizeLow}) {
    key.append(L"|").append(std::to_wstring(part));
  }
  wchar_t name[32];
  std::swprintf(name, std::size(name), L"%016zx.png", std::hash<std::wstring>()(key));
  return folders->previews / name;
}

void Check(HRESULT result) {
  if (FAILED(result)) throw std::system_error(result, std::system_category());
}

// Decodes a picture and gives its first frame, in one pixel format and as small as it is to be.
ComPtr<IWICBitmapSource> ReadSmall(IWICImagingFactory* factory, const fs::path& image) {
  ComPtr<IWICBitmapDecoder> decoder;
  ComPtr<IWICBitmapFrameDecode> frame;
  Check(factory->CreateDecoderFromFilename(image.c_str(), nullptr, GENERIC_READ,
                                           WICDecodeMetadataCacheOnDemand, &decoder));
  Check(decoder->GetFrame(0, &frame));
  ComPtr<IWICFormatConverter> converter;
  Check(factory->CreateFormatConverter(&converter));
  Check(converter->Initialize(frame.Get(), GUID_WICPixelFormat32bppBGRA, WICBitmapDitherTypeNone,
                              nullptr, 0, WICBitmapPaletteTypeCustom));
  UINT width = 0, height = 0;
  Check(converter->GetSize(&width, &height));
  const UINT longest = std::max({width, height, kLongestSide});
  const auto scaled = [&](UINT side) {
    return static_cast<UINT>(std::max(1ULL, 1ULL * side * kLongestSide / longest));
  };
  ComPtr<IWICBitmapScaler> scaler;
  Check(factory->CreateBitmapScaler(&scaler));
  Check(scaler->Initialize(converter.Get(), scaled(width), scaled(height),
                           WICBitmapInterpolationModeFant));
  return scaler;
}

void WritePng(IWICImagingFactory* factory, IWICBitmapSource* picture, const fs::path& file) {
  ComPtr<IWICStream> stream;
  ComPtr<IWICBitmapEncoder> encoder;
  ComPtr<IWICBitmapFrameEncode> frame;
  Check(factory->CreateStream(&stream));
  Check(stream->InitializeFromFilename(file.c_str(), GENERIC_WRITE));
  Check(factory->CreateEncoder(GUID_ContainerFormatPng, nullptr, &encoder));
  Check(encoder->Initialize(stream.Get(), WICBitmapEncoderNoCache));
  Check(encoder->CreateNewFrame(&frame, nullptr));
  Check(frame->Initialize(nullptr));
  Check(frame->WriteSource(picture, nullptr));
  Check(frame->Commit());
  Check(encoder->Commit());
}

// Two threads may make the same preview: each writes a file of its own, and the second to come
// leaves the first one's where that is in use already.
void MakePreview(const fs::path& image, const fs::path& preview) {
  ComPtr<IWICImagingFactory> factory;
  Check(CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER,
                         IID_PPV_ARGS(&factory)));
  const auto picture = ReadSmall(factory.Get(), image);
  auto unfinished = preview;
  unfinished += std::to_string(GetCurrentThreadId()) + ".part";
  WritePng(factory.Get(), picture.Get(), unfinished);
  std::error_code inUse;
  fs::rename(unfinished, preview, inUse);
  if (inUse) fs::remove(unfinished);
}

// Called on the system's threads, several at once, while it draws a folder. Most files are no
// pictures: that is no failure to speak of, and what is thrown means that there is no preview.
std::optional<std::wstring> FindPreview(std::wstring_view item) {
  const auto image = SourceOf(item);
  if (!fs::is_regular_file(image)) return std::nullopt;
  const auto preview = PreviewOf(image);
  if (preview.native().size() >= MAX_PATH) return std::nullopt;
  if (!fs::exists(preview)) {
    MakePreview(image, preview);
    Print("preview " + Utf8(image.lexically_relative(folders->source).generic_wstring()));
  }
  return fs::exists(preview) ? std::optional(preview.native()) : std::nullopt;
}

}  // namespace

Thumbnails::Thumbnails(const fs::path& source, const fs::path& root) {
  const auto previews = fs::temp_directory_path() / "Nimbra mirror previews";
  fs::create_directories(previews);
  folders = new Folders{source, root, previews};
  nimbra::SetThumbnailRetriever<FindPreview>();
  nimbra::StartShellServices();
}

Thumbnails::~Thumbnails() { nimbra::ClearThumbnailRetriever(); }

}  // namespace mirror
