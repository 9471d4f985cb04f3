#include "basics.h"

#include <cstdio>
#include <map>
#include <mutex>
#include <system_error>

namespace mirror {

fs::path Path(std::string_view utf8) { return std::u8string(utf8.begin(), utf8.end()); }

std::string Utf8(const fs::path& path) {
  const auto text = path.u8string();
  return {text.begin(), text.end()};
}

void Print(const std::string& text, bool stays) {
  static std::mutex mutex;
  static int width = 0;  // of what is to be overwritten
  const std::lock_guard lock(mutex);
  std::printf("%s%-*s%s", width > 0 ? "\r" : "", width, text.c_str(), stays ? "\n" : "");
  std::fflush(stdout);
  width = stays ? 0 : static_cast<int>(text.size());
}

std::string ResultText(nimbra::Result result) {
  char code[16];
  std::snprintf(code, sizeof code, " (0x%08X: ", static_cast<unsigned>(result.Code()));
  return code + std::system_category().message(result.Code() & 0xFFFF) + ")";
}

void Require(nimbra::Result result, const std::string& what) {
  static const std::map<unsigned, const char*> advice{
      {0x80040151, "registering writes to the machine's registry: run it once as administrator"},
      {0x80070005, "choose a folder that you may write to"},
      {0x8007017A, "another program serves this sync root: stop it first"},
      {0x80070186, "it may lie inside a sync root: name the root itself"}};
  if (result) return;
  const auto known = advice.find(static_cast<unsigned>(result.Code()));
  throw Failure(what + ResultText(result),
                known != advice.end() ? known->second : "the debugger output may say more");
}

}  // namespace mirror
