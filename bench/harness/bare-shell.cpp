#include "bench/harness/bare-shell.h"

#include <objbase.h>
#include <sddl.h>
#include <shlobj.h>
#include <shlwapi.h>
#include <wincodec.h>
#include <wrl/client.h>

#include <array>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/owners.h"

namespace nimbra_bench {
namespace {

using corvdrive::cloud_filter::UniqueFind;
using corvdrive::cloud_filter::UniqueRegistryKey;
using Microsoft::WRL::ComPtr;

constexpr wchar_t kRootManager[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\SyncRootManager\\";
constexpr wchar_t kExplorer[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\";
constexpr wchar_t kClasses[] = L"Software\\Classes\\CLSID\\";
constexpr wchar_t kRootName[] = L"CorvaneDrive!bench!Corvane.Drive.FileStreaming.session.12";
constexpr wchar_t kIcon[] = L"C:\\Program Files (x86)\\Corvane\\CorvaneDrive\\bin\\launcher.exe, 0";

void Require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::runtime_error(std::string("Windows refuses: ") + what);
  }
}

UniqueRegistryKey CreateKey(HKEY root, const std::wstring& path) {
  HKEY key = nullptr;
  Require(RegCreateKeyExW(root, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                          KEY_WRITE | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_WOW64_64KEY,
                          nullptr, &key, nullptr) == ERROR_SUCCESS,
          "a registry key");
  return UniqueRegistryKey(key);
}

void SetText(const UniqueRegistryKey& key, const wchar_t* name, const std::wstring& value) {
  Require(RegSetValueExW(key.Get(), name, 0, REG_EXPAND_SZ,
                         reinterpret_cast<const BYTE*>(value.c_str()),
                         static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) == 0,
          "a registry value");
}

void SetNumber(const UniqueRegistryKey& key, const wchar_t* name, DWORD value) {
  Require(RegSetValueExW(key.Get(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                         sizeof value) == 0,
          "a registry value");
}

// The account's SID, asked for as every caller has to: once for the sizes, once for the data.
void LookUpSid(const std::wstring& account) {
  DWORD sidSize = 0;
  DWORD domainSize = 0;
  SID_NAME_USE use{};
  LookupAccountNameW(nullptr, account.c_str(), nullptr, &sidSize, nullptr, &domainSize, &use);
  std::array<BYTE, SECURITY_MAX_SID_SIZE> sid{};
  std::array<wchar_t, 256> domain{};
  Require(LookupAccountNameW(nullptr, account.c_str(), sid.data(), &sidSize, domain.data(),
                             &domainSize, &use) != 0,
          "the user's SID");
  wchar_t* text = nullptr;
  Require(ConvertSidToStringSidW(sid.data(), &text) != 0, "the user's SID");
  LocalFree(text);
}

void AskFolder(int folder) {
  std::array<wchar_t, MAX_PATH> path{};
  SHGetFolderPathW(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path.data());
}

ComPtr<IShellLinkW> NewShellLink() {
  ComPtr<IShellLinkW> link;
  Require(SUCCEEDED(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_PPV_ARGS(link.GetAddressOf()))),
          "a shell link");
  return link;
}

ComPtr<IWICBitmapSource> ToBgra(IWICImagingFactory* factory, IWICBitmapSource* source) {
  WICPixelFormatGUID format{};
  source->GetPixelFormat(&format);
  ComPtr<IWICBitmapSource> bgra(source);
  if (format != GUID_WICPixelFormat32bppBGRA) {
    ComPtr<IWICFormatConverter> converter;
    factory->CreateFormatConverter(converter.GetAddressOf());
    converter->Initialize(source, GUID_WICPixelFormat32bppBGRA, WICBitmapDitherTypeNone, nullptr,
                          0.0, WICBitmapPaletteTypeCustom);
    converter.As(&bgra);
  }
  return bgra;
}

HBITMAP ToBitmap(IWICBitmapSource* source) {
  UINT width = 0;
  UINT height = 0;
  source->GetSize(&width, &height);
  BITMAPINFO info{};
  info.bmiHeader.biSize = sizeof info.bmiHeader;
  info.bmiHeader.biWidth = static_cast<LONG>(width);
  info.bmiHeader.biHeight = -static_cast<LONG>(height);
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = 32;
  void* pixels = nullptr;
  HBITMAP bitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &pixels, nullptr, 0);
  Require(bitmap != nullptr, "a bitmap");
  Require(SUCCEEDED(source->CopyPixels(nullptr, width * 4, width * height * 4,
                                       static_cast<BYTE*>(pixels))),
          "an image's pixels");
  return bitmap;
}

}  // namespace

BareRootDescription::BareRootDescription() {
  std::array<wchar_t, 257> name{};
  auto length = static_cast<DWORD>(name.size());
  Require(GetUserNameW(name.data(), &length) != 0, "the user's name");
  account_ = name.data();
}

void BareRootDescription::Write() const {
  LookUpSid(account_);
  const std::wstring path = std::wstring(kRootManager) + kRootName;
  {
    const UniqueRegistryKey key = CreateKey(HKEY_LOCAL_MACHINE, path);
    SetText(key, L"DisplayNameResource", L"Corvane Drive (bench, Sync)");
    AskFolder(CSIDL_PROGRAM_FILESX86);
    SetText(key, L"IconResource", kIcon);
    SetNumber(key, L"Flags", 0x62);
    SetText(key, L"ThumbnailProvider", L"{D35B8E20-61C4-4A97-B2F3-08E6C1A7D594}");
    OutputDebugStringW(L"bench (1) | a line about the thumbnail provider\r\n");
  }
  SetText(CreateKey(HKEY_LOCAL_MACHINE, path + L"\\UserSyncRoots"), L"S-1-5-21-0-0-0-1000",
          L"C:\\Sync");
}

void BareRootDescription::Delete() const {
  LookUpSid(account_);
  const UniqueRegistryKey key = CreateKey(HKEY_LOCAL_MACHINE, kRootManager);
  Require(RegDeleteTreeW(key.Get(), kRootName) == ERROR_SUCCESS, "deleting a registry key");
}

void BareSaveShortcut(const std::wstring& path, const std::wstring& target) {
  const ComPtr<IShellLinkW> link = NewShellLink();
  link->SetPath(target.c_str());
  link->SetDescription(L"Corvane Drive Client");
  AskFolder(CSIDL_LOCAL_APPDATA);
  link->SetIconLocation(kIcon, 3);
  ComPtr<IPersistFile> file;
  link.As(&file);
  Require(SUCCEEDED(file->Save(path.c_str(), TRUE)), "saving a shortcut");
  OutputDebugStringW(L"bench (1) | a line about the shortcut\r\n");
}

std::wstring BareResolveShortcut(const std::wstring& path) {
  const ComPtr<IShellLinkW> link = NewShellLink();
  ComPtr<IPersistFile> file;
  link.As(&file);
  if (FAILED(file->Load(path.c_str(), STGM_READ))) {
    return {};
  }
  OutputDebugStringW(L"bench (1) | a line about the shortcut\r\n");
  link->Resolve(nullptr, SLR_NO_UI);
  std::array<wchar_t, MAX_PATH> target{};
  WIN32_FIND_DATAW data;
  link->GetPath(target.data(), MAX_PATH, &data, SLGP_SHORTPATH);
  std::array<wchar_t, MAX_PATH> longTarget{};
  GetLongPathNameW(target.data(), longTarget.data(), MAX_PATH);
  OutputDebugStringW(L"bench (1) | a line about the target\r\n");
  return longTarget.data();
}

int BareSearchFolder(const std::wstring& folder) {
  WIN32_FIND_DATAW data;
  const UniqueFind search(FindFirstFileW((folder + L"\\*").c_str(), &data));
  int count = 0;
  do {
    count += BareResolveShortcut(folder + L"\\" + data.cFileName).empty() ? 0 : 1;
  } while (FindNextFileW(search.Get(), &data));
  return count;
}

void BareWriteEntry(const std::wstring& clsid, const std::wstring& folder) {
  const std::wstring classKey = kClasses + clsid;
  AskFolder(CSIDL_LOCAL_APPDATA);
  OutputDebugStringW(L"bench (1) | a line about the class\r\n");
  {
    const UniqueRegistryKey entry = CreateKey(HKEY_CURRENT_USER, classKey);
    SetText(entry, L"", L"Corvane Drive - bench");
    SetNumber(entry, L"System.IsPinnedToNameSpaceTree", 1);
    SetNumber(entry, L"SortOrderIndex", 0x42);
  }
  AskFolder(CSIDL_PROGRAM_FILESX86);
  SetText(CreateKey(HKEY_CURRENT_USER, classKey + L"\\DefaultIcon"), L"", kIcon);
  SetText(CreateKey(HKEY_CURRENT_USER, classKey + L"\\InProcServer32"), L"", L"shell32.dll");
  SetText(CreateKey(HKEY_CURRENT_USER, classKey + L"\\Instance"), L"CLSID", clsid);
  {
    const UniqueRegistryKey bag =
        CreateKey(HKEY_CURRENT_USER, classKey + L"\\Instance\\InitPropertyBag");
    SetNumber(bag, L"Attributes", 0x11);
    SetText(bag, L"TargetFolderPath", folder);
  }
  {
    const UniqueRegistryKey shellFolder = CreateKey(HKEY_CURRENT_USER, classKey + L"\\ShellFolder");
    SetNumber(shellFolder, L"FolderValueFlags", 0x28);
    SetNumber(shellFolder, L"Attributes", 0xF080004D);
  }
  const std::wstring explorer = kExplorer;
  SetText(CreateKey(HKEY_CURRENT_USER, explorer + L"Desktop\\NameSpace\\" + clsid), L"", L"bench");
  SetNumber(CreateKey(HKEY_CURRENT_USER, explorer + L"HideDesktopIcons\\NewStartPanel"),
            clsid.c_str(), 1);
}

void BareDeleteEntry(const std::wstring& clsid) {
  const std::wstring explorer = kExplorer;
  RegDeleteTreeW(CreateKey(HKEY_CURRENT_USER, kClasses + clsid).Get(), nullptr);
  RegDeleteTreeW(CreateKey(HKEY_CURRENT_USER, explorer + L"Desktop\\NameSpace").Get(),
                 clsid.c_str());
  RegDeleteValueW(CreateKey(HKEY_CURRENT_USER, explorer + L"HideDesktopIcons\\NewStartPanel").Get(),
                  clsid.c_str());
}

HBITMAP BareDecode(const std::wstring& path) {
  ComPtr<IStream> stream;
  Require(SUCCEEDED(SHCreateStreamOnFileW(path.c_str(), STGM_READ, stream.GetAddressOf())),
          "an image file");
  ComPtr<IWICImagingFactory> factory;
  Require(SUCCEEDED(CoCreateInstance(CLSID_WICImagingFactory2, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_PPV_ARGS(factory.GetAddressOf()))),
          "an imaging factory");
  ComPtr<IWICBitmapDecoder> decoder;
  Require(SUCCEEDED(factory->CreateDecoderFromStream(stream.Get(), &GUID_VendorMicrosoft,
                                                     WICDecodeMetadataCacheOnDemand,
                                                     decoder.GetAddressOf())),
          "an image decoder");
  ComPtr<IWICBitmapFrameDecode> frame;
  Require(SUCCEEDED(decoder->GetFrame(0, frame.GetAddressOf())), "an image's frame");
  return ToBitmap(ToBgra(factory.Get(), frame.Get()).Get());
}

}  // namespace nimbra_bench
