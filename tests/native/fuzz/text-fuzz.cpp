// Text in both directions against the reference, from buffers that end where the text ends.

#include <memory>

#include "common/text.h"
#include "feed.h"
#include "reference-text.h"
#include "windows-stand-in.h"

namespace {

using corvdrive::cloud_filter::Utf8ToWide;
using corvdrive::cloud_filter::WideToUtf8;
using nimbra_native::ReferenceToUtf16;
using nimbra_native::ReferenceToUtf8;
using nimbra_native::Require;
using nimbra_native::Units;

// A copy on the heap, so that reading past the terminator is seen.
template <typename Char, typename Text>
std::unique_ptr<Char[]> ExactCopy(const Text& text) {
  auto copy = std::make_unique<Char[]>(text.size() + 1);
  std::copy(text.begin(), text.end(), copy.get());
  return copy;
}

void CheckFromUtf8(const std::string& bytes) {
  const std::wstring wide = Utf8ToWide(ExactCopy<char>(bytes).get());
  Require(Units(wide) == ReferenceToUtf16(bytes), "UTF-8 becomes the reference's UTF-16");
  Require(wide.find(L'\0') == std::wstring::npos, "converted text holds no NUL");
  Require(Utf8ToWide(bytes) == wide, "both overloads give the same");
  const std::string again = WideToUtf8(wide);
  Require(Utf8ToWide(again) == wide, "what was converted once stays the same");
  // U+FFFD in the text may have been there before.
  if (wide.find(L'\xFFFD') == std::wstring::npos) {
    Require(again == bytes.substr(0, std::min(bytes.find('\0'), bytes.size())),
            "well-formed text comes back");
  }
}

void CheckFromUtf16(const std::u16string& units) {
  const std::string utf8 = WideToUtf8(ExactCopy<wchar_t>(units).get());
  Require(utf8 == ReferenceToUtf8(units), "UTF-16 becomes the reference's UTF-8");
  const std::u16string there = Units(Utf8ToWide(utf8));
  const std::u16string text = units.substr(0, std::min(units.find(u'\0'), units.size()));
  Require(there.size() == text.size(), "every unit keeps its place");
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isSurrogate = (text[i] & 0xF800) == 0xD800;
    Require(there[i] == text[i] || (isSurrogate && there[i] == 0xFFFD),
            "only lone surrogates are replaced");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nimbra_native::Feed feed(data, size);
  const auto mode = feed.Take<std::uint8_t>();
  nimbra_native::Windows().swallowsTerminator = (mode & 4U) != 0;
  const std::string bytes = (mode & 2U) != 0 ? feed.TakeStretched(32767) : feed.TakeRest();
  if ((mode & 1U) == 0) {
    CheckFromUtf8(bytes);
  } else {
    std::u16string units(bytes.size() / 2, u'\0');
    if (!units.empty()) std::memcpy(units.data(), bytes.data(), units.size() * 2);
    CheckFromUtf16(units);
  }
  return 0;
}
