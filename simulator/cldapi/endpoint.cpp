#include "endpoint.h"

#include <windows.h>

#include <charconv>
#include <string_view>

#include "owned-handle.h"
#include "paths.h"
#include "protocol/wire.h"
#include "text.h"
#include "wine-host.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

std::wstring Variable(const wchar_t* name) {
  std::wstring value(GetEnvironmentVariableW(name, nullptr, 0), L'\0');
  if (value.empty()) return value;
  value.resize(GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
  return value;
}

// Wine hides HOME from programs and gives them WINEHOMEDIR, the same folder as an NT path.
std::wstring HomeFolder() {
  const std::wstring home = Variable(L"WINEHOMEDIR");
  constexpr std::wstring_view kNtPrefix = L"\\??\\";
  return home.starts_with(kNtPrefix) ? L"\\\\?\\" + home.substr(kNtPrefix.size()) : home;
}

std::wstring EndpointPath() {
  const std::wstring unixPath = Variable(ToWide(wire::kEndpointVariable).c_str());
  if (!unixPath.empty()) return L"\\\\?\\unix" + WithBackslashes(unixPath);
  return HomeFolder() + L"\\" + WithBackslashes(ToWide(wire::kDefaultEndpoint));
}

std::optional<Endpoint> Parse(std::string_view text) {
  Endpoint endpoint;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), endpoint.port);
  if (error != std::errc{} || endpoint.port == 0) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
  const auto end = text.find('\n');
  if (!text.starts_with(' ') || end == std::string_view::npos) return std::nullopt;
  endpoint.token = text.substr(1, end - 1);
  return endpoint;
}

}  // namespace

void ReportUnreachable(const wchar_t* why) {
  const std::wstring line = L"cldapi: the cloud filter cannot be reached: " + std::wstring(why) +
                            L" (" + EndpointPath() + L"); is cloud-filterd running?\r\n";
  OutputDebugStringW(line.c_str());
}

std::optional<Endpoint> ReadEndpoint() {
  const OwnedHandle file(CreateFileW(EndpointPath().c_str(), GENERIC_READ,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, 0, nullptr));
  char text[512];
  DWORD length = 0;
  if (!file.IsValid() || !ReadFile(file.Get(), text, sizeof text, &length, nullptr)) {
    ReportUnreachable(L"its endpoint file cannot be read");
    return std::nullopt;
  }
  auto endpoint = Parse({text, length});
  if (!endpoint) ReportUnreachable(L"its endpoint file has no port and token");
  return endpoint;
}

}  // namespace cldapi
