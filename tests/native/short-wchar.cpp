#include <algorithm>
#include <cstring>
#include <cwchar>
#include <string>

// The names stand for those that short-wchar.h puts in their place.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

std::size_t wcslen(const wchar_t* text) noexcept {
  const wchar_t* end = text;
  while (*end != 0) ++end;
  return static_cast<std::size_t>(end - text);
}

wchar_t* wmemchr(const wchar_t* text, wchar_t wanted, std::size_t count) noexcept {
  const wchar_t* const found = std::find(text, text + count, wanted);
  return found == text + count ? nullptr : const_cast<wchar_t*>(found);
}

int wmemcmp(const wchar_t* left, const wchar_t* right, std::size_t count) noexcept {
  const auto [l, r] = std::mismatch(left, left + count, right);
  if (l == left + count) return 0;
  return *l < *r ? -1 : 1;
}

wchar_t* wmemcpy(wchar_t* to, const wchar_t* from, std::size_t count) noexcept {
  std::memcpy(to, from, count * sizeof(wchar_t));
  return to;
}

wchar_t* wmemmove(wchar_t* to, const wchar_t* from, std::size_t count) noexcept {
  std::memmove(to, from, count * sizeof(wchar_t));
  return to;
}

wchar_t* wmemset(wchar_t* to, wchar_t value, std::size_t count) noexcept {
  std::fill_n(to, count, value);
  return to;
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

// The standard library comes with this class compiled for 32-bit characters; the program's own
// takes its place.
template class std::basic_string<wchar_t>;
