#include "bench/harness/bare-shell.h"

#include <objbase.h>
#include <sddl.h>
#include <shlobj.h>
#include <shlwapi.h>
#include <wincodec.h>
#include <wrl/client.h>

#include <array>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "common/owners.h"

namespace nimbra_bench {
namespace {

using corvdrive::cloud_filter::UniqueFind;
using corvdrive::cloud_filter::UniqueRegistryKey;
using corvdrive::cloud_filter::UniqueTaskText;
using Microsoft::WRL::ComPtr;

constexpr wchar_t kRootManager[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\SyncRootManager\\";
constexpr wchar_t kNameSpace[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Desktop\\NameSpace";
constexpr wchar_t kHiddenIcons[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\HideDesktopIcons\\NewStartPanel";
constexpr wchar_t kClasses[] = L"Software\\Classes\\CLSID\\";
constexpr wchar_t kRootName[] =
    L"CorvaneDrive!S-1-5-21-0-0-0-1000!Corvane.Drive.FileStreaming.session.99";
constexpr wchar_t kIcon[] = L"C:\\Program Files (x86)\\Corvane\\CorvaneDrive\\bin\\launcher.exe, 0";
constexpr wchar_t kUiProgram[] =
    L"C:\\users\\bench\\AppData\\Local\\CorvaneDrive\\CorvaneDrive.app\\bin\\cloud-drive-ui.exe";
constexpr DWORD kFolderAttributes =
    FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

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

// Gives the target's long path.
std::wstring ResolveShortcut(const std::wstring& path) {
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
  OutputDebugStringW(L"bench (1) | a line about the registered root and its identity\r\n");
}

void BareRootDescription::Delete() const {
  LookUpSid(account_);
  const UniqueRegistryKey key = CreateKey(HKEY_LOCAL_MACHINE, kRootManager);
  Require(RegDeleteTreeW(key.Get(), kRootName) == ERROR_SUCCESS, "deleting a registry key");
}

BareEntry::BareEntry(std::wstring clsid, std::wstring folder, std::wstring target)
    : clsid_(std::move(clsid)),
      folder_(std::move(folder)),
      target_(std::move(target)),
      shortcut_(folder_ + L"\\My Drive.lnk"),
      description_(L"Corvane Drive Client: " + target_),
      classKey_(kClasses + clsid_) {}

void BareEntry::Register() const {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  AskFolder(CSIDL_LOCAL_APPDATA);
  const int code = SHCreateDirectory(nullptr, folder_.c_str());
  Require(code == ERROR_SUCCESS || code == ERROR_ALREADY_EXISTS, "a folder");
  SetFileAttributesW(folder_.c_str(), kFolderAttributes);
  SaveShortcut();
  WriteKeys();
}

void BareEntry::Unregister() const {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  Require(DeleteFileW(BareFindShortcut(folder_, target_).c_str()) != 0, "deleting a shortcut");
  AskFolder(CSIDL_LOCAL_APPDATA);
  Require(PathIsDirectoryEmptyW(folder_.c_str()) != 0, "an empty folder");
  DeleteKeys();
}

void BareEntry::SaveShortcut() const {
  // Is the name free?
  AskFolder(CSIDL_LOCAL_APPDATA);
  WIN32_FIND_DATAW data;
  const UniqueFind search(FindFirstFileW(shortcut_.c_str(), &data));
  Require(!search.IsValid(), "a free name");
  const ComPtr<IShellLinkW> link = NewShellLink();
  link->SetPath(target_.c_str());
  link->SetDescription(description_.c_str());
  AskFolder(CSIDL_LOCAL_APPDATA);
  link->SetIconLocation(kUiProgram, 3);
  ComPtr<IPersistFile> file;
  link.As(&file);
  Require(SUCCEEDED(file->Save(shortcut_.c_str(), TRUE)), "saving a shortcut");
  OutputDebugStringW(L"bench (1) | a line about the shortcut\r\n");
}

void BareEntry::WriteKeys() const {
  AskFolder(CSIDL_LOCAL_APPDATA);
  OutputDebugStringW(L"bench (1) | a line about the class\r\n");
  {
    const UniqueRegistryKey entry = CreateKey(HKEY_CURRENT_USER, classKey_);
    SetText(entry, L"", L"Corvane Drive - bench");
    SetNumber(entry, L"System.IsPinnedToNameSpaceTree", 1);
    SetNumber(entry, L"SortOrderIndex", 0x42);
  }
  AskFolder(CSIDL_PROGRAM_FILESX86);
  SetText(CreateKey(HKEY_CURRENT_USER, classKey_ + L"\\DefaultIcon"), L"", kIcon);
  SetText(CreateKey(HKEY_CURRENT_USER, classKey_ + L"\\InProcServer32"), L"", L"shell32.dll");
  SetText(CreateKey(HKEY_CURRENT_USER, classKey_ + L"\\Instance"), L"CLSID", clsid_);
  {
    const UniqueRegistryKey bag =
        CreateKey(HKEY_CURRENT_USER, classKey_ + L"\\Instance\\InitPropertyBag");
    SetNumber(bag, L"Attributes", 0x11);
    SetText(bag, L"TargetFolderPath", folder_);
  }
  {
    const UniqueRegistryKey shellFolder =
        CreateKey(HKEY_CURRENT_USER, classKey_ + L"\\ShellFolder");
    SetNumber(shellFolder, L"FolderValueFlags", 0x28);
    SetNumber(shellFolder, L"Attributes", 0xF080004D);
  }
  SetText(CreateKey(HKEY_CURRENT_USER, kNameSpace + (L"\\" + clsid_)), L"", L"bench");
  SetNumber(CreateKey(HKEY_CURRENT_USER, kHiddenIcons), clsid_.c_str(), 1);
}

void BareEntry::DeleteKeys() const {
  Require(
      RegDeleteTreeW(CreateKey(HKEY_CURRENT_USER, classKey_).Get(), nullptr) == 0 &&
          RegDeleteTreeW(CreateKey(HKEY_CURRENT_USER, kNameSpace).Get(), clsid_.c_str()) == 0 &&
          RegDeleteValueW(CreateKey(HKEY_CURRENT_USER, kHiddenIcons).Get(), clsid_.c_str()) == 0,
      "deleting an entry");
}

std::wstring BareFindShortcut(const std::wstring& folder, const std::wstring& target) {
  AskFolder(CSIDL_LOCAL_APPDATA);
  WIN32_FIND_DATAW data;
  const UniqueFind search(FindFirstFileW((folder + L"\\*").c_str(), &data));
  do {
    std::wstring candidate = folder + L"\\" + data.cFileName;
    if (ResolveShortcut(candidate) == target) {
      return candidate;
    }
  } while (FindNextFileW(search.Get(), &data));
  OutputDebugStringW(L"bench (1) | a line about no shortcut that leads to this root\r\n");
  return {};
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

HBITMAP BareThumbnail(IShellItem* item, const std::wstring& imagePath) {
  ComPtr<IShellItem2> item2;
  Require(SUCCEEDED(item->QueryInterface(IID_PPV_ARGS(item2.GetAddressOf()))), "an item");
  wchar_t* path = nullptr;
  Require(SUCCEEDED(item2->GetDisplayName(SIGDN_FILESYSPATH, &path)), "an item's path");
  const UniqueTaskText owner(path);
  OutputDebugStringW(L"bench (1) | a line about the request and the item\r\n");
  const HBITMAP bitmap = BareDecode(imagePath);
  OutputDebugStringW(L"bench (1) | a line about the thumbnail of the item\r\n");
  return bitmap;
}

void BareStartServices() {
  OutputDebugStringW(L"bench (1) | a line about the services\r\n");
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                     reinterpret_cast<LPCWSTR>(&BareStartServices), &module);
  std::thread([] {
    CoInitializeEx(nullptr, COINIT_DISABLE_OLE1DDE);
    DWORD cookie = 0;
    CoRegisterClassObject(CLSID_ShellLink, nullptr, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE,
                          &cookie);
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    DWORD index = 0;
    CoWaitForMultipleHandles(COWAIT_DISPATCH_CALLS, INFINITE, 1, &event, &index);
  }).detach();
}

void BareGuid() {
  GUID guid;
  Require(SUCCEEDED(CoCreateGuid(&guid)), "a GUID");
  wchar_t* text = nullptr;
  Require(SUCCEEDED(StringFromCLSID(guid, &text)), "a GUID's text");
  CoTaskMemFree(text);
}

}  // namespace nimbra_bench
