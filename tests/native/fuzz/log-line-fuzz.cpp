// The framing of a log line: one call, everything in its place, the last error kept.

#include "common/debug-log.h"
#include "feed.h"
#include "reference-text.h"
#include "windows-stand-in.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using nimbra_native::Require;
  nimbra_native::Feed feed(data, size);
  nimbra_native::Windows() = {};
  const auto line = feed.Take<std::int32_t>();
  const auto error = feed.Take<HRESULT>();
  const auto count = feed.Take<std::int64_t>();
  const auto lastError = feed.Take<DWORD>();
  const std::string source = feed.TakeText(255);
  const std::string text = feed.TakeBool() ? feed.TakeStretched(32767) : feed.TakeRest();

  SetLastError(lastError);
  corvdrive::cloud_filter::Log(source.c_str(), line, "Failed, path: ", text, " ", error, " ",
                               count);
  Require(GetLastError() == lastError, "the last error survives");

  const std::string whole = source + " (" + std::to_string(line) + ") | Failed, path: " + text +
                            " " + std::to_string(error) + " " + std::to_string(count) + "\r\n";
  const auto& lines = nimbra_native::Windows().debugLines;
  Require(lines.size() == 1, "one line is one call");
  Require(lines.front() == nimbra_native::ReferenceToUtf16(whole), "the line is complete");
  return 0;
}
