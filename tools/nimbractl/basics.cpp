#include "basics.h"

#include <windows.h>

#include <array>
#include <cstdio>

namespace nimbractl {

std::string Utf8(std::wstring_view text) {
  const auto size = static_cast<int>(text.size());
  std::string utf8(text.size() * 3, '\0');
  const auto length = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, utf8.data(),
                                          static_cast<int>(utf8.size()), nullptr, nullptr);
  utf8.resize(static_cast<std::size_t>(length));
  return utf8;
}

std::wstring Wide(std::string_view utf8) {
  const auto size = static_cast<int>(utf8.size());
  std::wstring text(utf8.size(), L'\0');
  const auto length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, text.data(), size);
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::string BytesText(std::int64_t bytes) {
  constexpr std::array kUnits{"kB", "MB", "GB", "TB"};
  if (bytes < 1000) return Count(bytes, "byte");
  auto number = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  for (; number >= 999.95 && unit + 1 < kUnits.size(); ++unit) number /= 1000;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", number, kUnits.at(unit));
  return text;
}

std::string YesNo(std::optional<bool> value) {
  if (!value) return "-";
  return *value ? "yes" : "no";
}

std::string Count(std::int64_t number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

}  // namespace nimbractl
