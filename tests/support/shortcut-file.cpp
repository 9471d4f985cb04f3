#include "tests/support/shortcut-file.h"

#include <windows.h>
// windows.h first.
#include <shlobj.h>
#include <wrl/client.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "tests/support/temp-folder.h"

namespace nimbra_test {
namespace {

using Microsoft::WRL::ComPtr;

void Check(HRESULT result, const char* what) {
  if (FAILED(result)) {
    throw std::runtime_error(std::string("shortcut: ") + what);
  }
}

struct OpenLink {
  ComPtr<IShellLinkW> link;
  ComPtr<IPersistFile> file;

  OpenLink() {
    Check(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER,
                           IID_PPV_ARGS(link.GetAddressOf())),
          "no object");
    Check(link.As(&file), "no file");
  }
};

// The bits of a link file's header that say what follows.
constexpr std::uint32_t kHasItemList = 0x1;
constexpr std::uint32_t kHasLinkInfo = 0x2;
constexpr std::uint32_t kHasDescription = 0x4;
constexpr std::uint32_t kHasRelativePath = 0x8;
constexpr std::uint32_t kHasWorkingFolder = 0x10;
constexpr std::uint32_t kHasArguments = 0x20;
constexpr std::uint32_t kHasIcon = 0x40;
constexpr std::uint32_t kIsUnicode = 0x80;

constexpr std::size_t kHeaderSize = 0x4C;

std::string FromCodePage(const char* text) {
  wchar_t wide[1024];
  if (MultiByteToWideChar(CP_ACP, 0, text, -1, wide, 1024) == 0) {
    throw std::runtime_error("shortcut: a text in another code page");
  }
  return Narrow(wide);
}

// Reads the parts of a link file one after the other.
class LinkParser {
 public:
  explicit LinkParser(std::string_view bytes) : bytes_(bytes) {}

  Shortcut Parse() {
    if (Number<std::uint32_t>(0) != kHeaderSize ||
        std::memcmp(Part(4, 16).data(), kShellLinkClass, 16) != 0) {
      throw std::runtime_error("shortcut: no link file");
    }
    const auto flags = Number<std::uint32_t>(20);
    if ((flags & kIsUnicode) == 0) {
      throw std::runtime_error("shortcut: texts in a code page");
    }
    Shortcut shortcut;
    shortcut.iconIndex = Number<std::int32_t>(56);
    at_ = kHeaderSize;
    if ((flags & kHasItemList) != 0) {
      at_ += 2u + Number<std::uint16_t>(at_);
    }
    if ((flags & kHasLinkInfo) != 0) {
      shortcut.target = LinkInfoPath();
      at_ += Number<std::uint32_t>(at_);
    }
    std::string relativePath;
    const std::pair<std::uint32_t, std::string*> texts[] = {
        {kHasDescription, &shortcut.description},
        {kHasRelativePath, &relativePath},
        {kHasWorkingFolder, &shortcut.workingFolder},
        {kHasArguments, &shortcut.arguments},
        {kHasIcon, &shortcut.icon},
    };
    for (const auto& [flag, text] : texts) {
      if ((flags & flag) != 0) {
        *text = CountedText();
      }
    }
    return shortcut;
  }

 private:
  static constexpr unsigned char kShellLinkClass[16] = {0x01, 0x14, 0x02, 0x00, 0x00, 0x00,
                                                        0x00, 0x00, 0xC0, 0x00, 0x00, 0x00,
                                                        0x00, 0x00, 0x00, 0x46};

  std::string_view Part(std::size_t offset, std::size_t size) const {
    if (offset + size > bytes_.size()) {
      throw std::runtime_error("shortcut: the file is cut");
    }
    return bytes_.substr(offset, size);
  }

  template <typename Integer>
  Integer Number(std::size_t offset) const {
    Integer number = 0;
    std::memcpy(&number, Part(offset, sizeof number).data(), sizeof number);
    return number;
  }

  std::string LinkInfoPath() const {
    const auto headerSize = Number<std::uint32_t>(at_ + 4);
    if (headerSize >= 0x24) {
      const auto* units =
          reinterpret_cast<const wchar_t*>(Part(at_ + Number<std::uint32_t>(at_ + 28), 2).data());
      return Narrow(units);
    }
    return FromCodePage(Part(at_ + Number<std::uint32_t>(at_ + 16), 1).data());
  }

  std::string CountedText() {
    const auto length = Number<std::uint16_t>(at_);
    std::wstring text(length, L'\0');
    const std::string_view units = Part(at_ + 2, length * sizeof(wchar_t));
    std::memcpy(text.data(), units.data(), units.size());
    at_ += 2 + units.size();
    // Wine counts a terminator that Windows leaves out.
    if (text.ends_with(L'\0')) {
      text.pop_back();
    }
    return Narrow(text);
  }

  std::string_view bytes_;
  std::size_t at_ = 0;
};

}  // namespace

void PrintTo(const Shortcut& shortcut, std::ostream* out) {
  *out << "to '" << shortcut.target << "', '" << shortcut.description << "', icon '"
       << shortcut.icon << "' " << shortcut.iconIndex << ", arguments '" << shortcut.arguments
       << "', in '" << shortcut.workingFolder << "'";
}

Shortcut ReadShortcut(const std::string& path) {
  const OpenLink opened;
  Check(opened.file->Load(Wide(path).c_str(), STGM_READ), "cannot be loaded");
  wchar_t text[1024] = {};
  Shortcut shortcut;
  WIN32_FIND_DATAW data;
  Check(opened.link->GetPath(text, 1024, &data, 0), "no target");
  shortcut.target = Narrow(text);
  Check(opened.link->GetDescription(text, 1024), "no description");
  shortcut.description = Narrow(text);
  Check(opened.link->GetIconLocation(text, 1024, &shortcut.iconIndex), "no icon");
  shortcut.icon = Narrow(text);
  Check(opened.link->GetArguments(text, 1024), "no arguments");
  shortcut.arguments = Narrow(text);
  Check(opened.link->GetWorkingDirectory(text, 1024), "no working folder");
  shortcut.workingFolder = Narrow(text);
  return shortcut;
}

Shortcut ParseShortcut(std::string_view bytes) { return LinkParser(bytes).Parse(); }

void WriteShortcut(const std::string& path, const std::string& target) {
  const OpenLink opened;
  Check(opened.link->SetPath(Wide(target).c_str()), "target refused");
  Check(opened.file->Save(Wide(path).c_str(), TRUE), "cannot be saved");
}

}  // namespace nimbra_test
