#include "tests/dll/loaded-library.h"

#include <regex>

#include "tests/dll/options.h"
#include "tests/support/temp-folder.h"

namespace nimbra_test {

LoadedLibrary::LoadedLibrary() : module_(LoadLibraryW(TestOptions().library.c_str())) {
  if (module_ == nullptr) {
    throw std::runtime_error("cannot load \"" + Narrow(TestOptions().library) + "\": error " +
                             std::to_string(GetLastError()));
  }
}

LoadedLibrary::~LoadedLibrary() { Free(); }

void LoadedLibrary::Free() {
  if (const HMODULE module = std::exchange(module_, nullptr)) {
    FreeLibrary(module);
  }
}

bool LoadedLibrary::IsLoaded() { return GetModuleHandleW(L"Nimbra.dll") != nullptr; }

ImageLog* ImageLog::current_ = nullptr;

ImageLog::ImageLog(HMODULE image)
    : hook_(image, "OutputDebugStringW", reinterpret_cast<void*>(&ImageLog::Take)) {
  current_ = this;
}

ImageLog::~ImageLog() { current_ = nullptr; }

std::vector<std::string> ImageLog::Lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> ImageLog::Messages() const {
  static const std::regex kFrame(R"(lib\\cloud-filter\\[-a-z\\]+ \([1-9][0-9]*\) \| )");
  std::vector<std::string> messages;
  for (const std::string& line : Lines()) {
    std::smatch frame;
    const bool framed =
        std::regex_search(line, frame, kFrame, std::regex_constants::match_continuous) &&
        line.ends_with("\r\n");
    messages.push_back(framed
                           ? line.substr(static_cast<std::size_t>(frame.length()),
                                         line.size() - 2 - static_cast<std::size_t>(frame.length()))
                           : "not a log line: " + line);
  }
  return messages;
}

void ImageLog::Clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

void WINAPI ImageLog::Take(LPCWSTR text) {
  if (current_ != nullptr) {
    std::lock_guard lock(current_->mutex_);
    current_->lines_.push_back(Narrow(text));
  }
}

}  // namespace nimbra_test
