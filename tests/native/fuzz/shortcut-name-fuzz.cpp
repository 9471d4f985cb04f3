// What shortcuts are called, against the rule applied from the other end.

#include "feed.h"
#include "win-cf/shortcut-name.h"

namespace {

using corvdrive::cloud_filter::ShortcutBaseName;
using corvdrive::cloud_filter::ShortcutPath;
using nimbra_native::Require;

std::string Model(const std::string& share, const std::string& path) {
  if (path.size() == 1 && path[0] == '/') return share == "home" ? "My Drive" : share;
  std::string name;
  for (const char c : path) {
    if (c == '/') {
      name.clear();
    } else {
      name += c;
    }
  }
  return name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nimbra_native::Feed feed(data, size);
  const auto mode = feed.Take<std::uint8_t>();
  const int number = feed.Take<std::uint16_t>();
  const std::string share = (mode & 1U) != 0 ? "home" : feed.TakeBytes(feed.Take<std::uint8_t>());
  const std::string path = (mode & 2U) != 0 ? "/" : feed.TakeRest();
  Require(ShortcutBaseName(share, path) == Model(share, path), "the name is the model's");

  const std::wstring folder = L"C:\\folder";
  const std::wstring base = L"name";
  const std::wstring whole = ShortcutPath(folder, base, number);
  const std::wstring start = folder + L"\\" + base;
  Require(whole.starts_with(start) && whole.ends_with(L".lnk"), "folder, name and ending");
  const std::wstring middle = whole.substr(start.size(), whole.size() - start.size() - 4);
  if (number == 0) {
    Require(middle.empty(), "the first has no number");
    return 0;
  }
  Require(middle.size() > 2 && middle.front() == L'(' && middle.back() == L')', "in parentheses");
  int read = 0;
  for (const wchar_t c : middle.substr(1, middle.size() - 2)) {
    Require(c >= L'0' && c <= L'9', "digits");
    read = read * 10 + (c - L'0');
  }
  Require(read == number && middle[1] != L'0', "the number, without leading zeros");
  return 0;
}
