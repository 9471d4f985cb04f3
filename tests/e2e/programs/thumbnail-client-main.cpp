// Asks for thumbnails as the shell does, from a process that knows nothing of the library.
//
//   e2e-thumbnail-client.exe ITEM IMAGE [SIZE]
//
// writes the thumbnail of the file or folder ITEM (a DOS path) to IMAGE, a PNG file, says
// "<width>x<height>" and ends with 0. Otherwise it says on standard error what failed and ends with
// 1. Under Wine the prefix needs the proxy, once: wine regsvr32 /s thumbnail-proxy.dll
//
// Without arguments it does at a test's word what the test asks for.

#include <windows.h>

#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "apartment.h"
#include "command-loop.h"
#include "file-access.h"
#include "picture.h"
#include "thumbnail-request.h"

namespace e2e {
namespace {

constexpr UINT kUsualSize = 256;

Fields Describe(const Thumbnail& thumbnail) {
  Fields fields;
  fields.Set("result", thumbnail.result).Set("step", thumbnail.step);
  fields.Set("alpha", thumbnail.alpha).Set("bitmap", thumbnail.picture.has_value());
  if (thumbnail.picture) {
    fields.Set("width", thumbnail.picture->width).Set("height", thumbnail.picture->height);
    fields.Set("crc32", Crc32(thumbnail.picture->pixels));
  }
  return fields;
}

DWORD ApartmentKind(const Fields& command) {
  return command.Number("sta", 0) != 0 ? COINIT_APARTMENTTHREADED : COINIT_MULTITHREADED;
}

Fields GetThumbnail(const Fields& command) {
  const Apartment apartment(ApartmentKind(command));
  auto thumbnail =
      RequestThumbnail(command.Text("path"), static_cast<UINT>(command.Number("size", kUsualSize)));
  auto answer = Describe(thumbnail);
  if (thumbnail.picture && command.Has("out")) {
    answer.Set("written", WritePng(*thumbnail.picture, command.Text("out")));
  }
  return answer;
}

std::vector<std::string> Lines(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// All items' thumbnails on several threads at once, each of which starts with another item. Answers
// with the different things that were seen: a line each of item, result, size and checksum.
Fields GetMany(const Fields& command) {
  const auto paths = Lines(command.Text("paths"));
  const auto count = static_cast<std::size_t>(command.Number("threads"));
  const Apartment preparing;
  PrepareProxies(paths.at(0));
  std::mutex mutex;
  std::set<std::string> seen;
  // Not a std::latch: under Wine its waiters are now and then not woken.
  std::atomic<std::size_t> missing = count;
  const auto run = [&](std::size_t first) {
    const Apartment apartment;
    --missing;
    while (missing > 0) std::this_thread::yield();
    for (std::size_t number = 0; number < paths.size(); ++number) {
      const auto index = (first + number) % paths.size();
      const auto thumbnail = RequestThumbnail(paths[index], kUsualSize);
      const auto line = std::to_string(index) + Describe(thumbnail).Encode();
      const std::lock_guard lock(mutex);
      seen.insert(line);
    }
  };
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < count; ++thread) threads.emplace_back(run, thread);
  for (auto& thread : threads) thread.join();
  std::string lines;
  for (const auto& line : seen) lines += line + '\n';
  return Fields().Set("seen", lines);
}

Fields HasInterface(const Fields& command) {
  const Apartment apartment;
  return Fields().Set("result", QueryProvider(command.Text("interface")));
}

int Fail(const char* step, HRESULT result) {
  std::fprintf(stderr, "%s: 0x%08lX\n", step, static_cast<unsigned long>(result));
  return EXIT_FAILURE;
}

int WriteThumbnail(const std::string& item, const std::string& image, UINT size) {
  auto thumbnail = RequestThumbnail(item, size);
  if (FAILED(thumbnail.result)) return Fail(thumbnail.step, thumbnail.result);
  if (!thumbnail.picture) {
    std::fputs("there is no thumbnail\n", stderr);
    return EXIT_FAILURE;
  }
  const auto written = WritePng(*thumbnail.picture, image);
  if (FAILED(written)) return Fail("writing the image", written);
  std::printf("%ux%u\n", thumbnail.picture->width, thumbnail.picture->height);
  return EXIT_SUCCESS;
}

int Usage() {
  std::fputs("usage: e2e-thumbnail-client ITEM IMAGE [SIZE]\n", stderr);
  return 2;
}

int RunFromCommandLine(std::span<char*> arguments) {
  UINT size = kUsualSize;
  if (arguments.size() < 2 || arguments.size() > 3) return Usage();
  if (arguments.size() == 3) {
    const std::string_view text = arguments[2];
    if (std::from_chars(text.data(), text.data() + text.size(), size).ec != std::errc()) {
      return Usage();
    }
  }
  return WriteThumbnail(arguments[0], arguments[1], size);
}

}  // namespace
}  // namespace e2e

int main(int count, char* arguments[]) {
  const e2e::Apartment apartment;
  if (count > 1) return e2e::RunFromCommandLine(std::span(arguments + 1, arguments + count));
  e2e::CommandLoop loop;
  loop.Add("thumbnail", e2e::GetThumbnail);
  loop.Add("many", e2e::GetMany);
  loop.Add("hasInterface", e2e::HasInterface);
  loop.Run();
}
