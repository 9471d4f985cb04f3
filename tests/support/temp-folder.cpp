#include "tests/support/temp-folder.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

namespace nimbra_test {
namespace {

// Lets paths be longer than MAX_PATH.
std::wstring Extended(const std::wstring& path) { return L"\\\\?\\" + path; }

void Remove(const std::wstring& folder) {
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW(Extended(folder + L"\\*").c_str(), &found);
  if (search != INVALID_HANDLE_VALUE) {
    do {
      const std::wstring name = found.cFileName;
      if (name == L"." || name == L"..") {
        continue;
      }
      const std::wstring path = folder + L"\\" + name;
      SetFileAttributesW(Extended(path).c_str(), FILE_ATTRIBUTE_NORMAL);
      const bool isFolder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
      const bool isLink = (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
      if (isFolder && !isLink) {
        Remove(path);
      } else if (isFolder) {
        RemoveDirectoryW(Extended(path).c_str());
      } else {
        DeleteFileW(Extended(path).c_str());
      }
    } while (FindNextFileW(search, &found));
    FindClose(search);
  }
  RemoveDirectoryW(Extended(folder).c_str());
}

class OutputFile {
 public:
  explicit OutputFile(const std::wstring& path)
      : handle_(CreateFileW(Extended(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr)) {
    if (handle_ == INVALID_HANDLE_VALUE) {
      throw std::runtime_error("a test file cannot be created");
    }
  }
  ~OutputFile() { CloseHandle(handle_); }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void Write(std::string_view content) {
    DWORD written = 0;
    if (!WriteFile(handle_, content.data(), static_cast<DWORD>(content.size()), &written,
                   nullptr) ||
        written != content.size()) {
      throw std::runtime_error("a test file cannot be written");
    }
  }

 private:
  HANDLE handle_;
};

std::size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) {
    return 1;
  }
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

void AppendUtf8(std::string& text, unsigned long codePoint) {
  const auto byte = [&](unsigned long bits) { text += static_cast<char>(bits); };
  if (codePoint < 0x80) {
    byte(codePoint);
  } else if (codePoint < 0x800) {
    byte(0xC0 | (codePoint >> 6));
    byte(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    byte(0xE0 | (codePoint >> 12));
    byte(0x80 | ((codePoint >> 6) & 0x3F));
    byte(0x80 | (codePoint & 0x3F));
  } else {
    byte(0xF0 | (codePoint >> 18));
    byte(0x80 | ((codePoint >> 12) & 0x3F));
    byte(0x80 | ((codePoint >> 6) & 0x3F));
    byte(0x80 | (codePoint & 0x3F));
  }
}

bool IsHighSurrogate(wchar_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(wchar_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

}  // namespace

// Written out rather than asked of Windows, so that tests which watch the conversion functions see
// only the library's calls. The tests' own texts are well formed.
std::wstring Wide(std::string_view utf8) {
  std::wstring text;
  for (std::size_t at = 0; at < utf8.size();) {
    const auto lead = static_cast<unsigned char>(utf8[at]);
    const std::size_t length = SequenceLength(lead);
    unsigned long codePoint = length == 1 ? lead : lead & (0xFFu >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
      codePoint = (codePoint << 6) | (static_cast<unsigned char>(utf8.at(at + i)) & 0x3Fu);
    }
    if (codePoint >= 0x10000) {
      text += static_cast<wchar_t>(0xD800 + ((codePoint - 0x10000) >> 10));
      text += static_cast<wchar_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
    } else {
      text += static_cast<wchar_t>(codePoint);
    }
    at += length;
  }
  return text;
}

std::string Narrow(std::wstring_view text) {
  std::string utf8;
  for (std::size_t at = 0; at < text.size(); ++at) {
    unsigned long codePoint = text[at];
    if (IsHighSurrogate(text[at]) && at + 1 < text.size() && IsLowSurrogate(text[at + 1])) {
      codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (text[at + 1] - 0xDC00u);
      ++at;
    }
    AppendUtf8(utf8, codePoint);
  }
  return utf8;
}

TempFolder::TempFolder() {
  static std::atomic<unsigned> number{0};
  wchar_t base[MAX_PATH + 1];
  const DWORD length = GetTempPathW(MAX_PATH + 1, base);
  // A program of the same number that was killed may have left one behind.
  do {
    // The long form, as what asks the system for the path again gets it.
    path_ = std::wstring(base, length) + L"nimbra-test-" + std::to_wstring(GetCurrentProcessId()) +
            L"-" + std::to_wstring(++number);
    if (CreateDirectoryW(path_.c_str(), nullptr)) {
      return;
    }
  } while (GetLastError() == ERROR_ALREADY_EXISTS);
  throw std::runtime_error("the test's folder cannot be created");
}

TempFolder::~TempFolder() { Remove(path_); }

std::string TempFolder::Utf8() const { return Narrow(path_); }

std::string TempFolder::Item(std::string_view utf8Name) const {
  return Utf8() + "\\" + std::string(utf8Name);
}

std::string TempFolder::ItemWithSlashes(std::string_view utf8Name) const {
  std::string path = Item(utf8Name);
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

std::string TempFolder::WriteFile(std::string_view utf8Name, std::string_view content) const {
  std::string path = Item(utf8Name);
  OutputFile(Wide(path)).Write(content);
  return path;
}

std::string TempFolder::WriteLargeFile(std::string_view utf8Name, std::int64_t size) const {
  std::string path = Item(utf8Name);
  OutputFile file(Wide(path));
  // A pattern whose period divides neither pages nor chunks, so that a misplaced range shows.
  std::string pattern(std::size_t{1021} * 256, '\0');
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = static_cast<char>(i % 1021 % 251 + 1);
  }
  for (std::int64_t left = size; left > 0;) {
    const auto part = std::min<std::int64_t>(left, static_cast<std::int64_t>(pattern.size()));
    file.Write(std::string_view(pattern).substr(0, static_cast<std::size_t>(part)));
    left -= part;
  }
  return path;
}

std::string TempFolder::MakeFolder(std::string_view utf8Name) const {
  std::string path = Item(utf8Name);
  if (!CreateDirectoryW(Extended(Wide(path)).c_str(), nullptr)) {
    throw std::runtime_error("a test folder cannot be created");
  }
  return path;
}

}  // namespace nimbra_test
