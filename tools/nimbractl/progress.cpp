#include "progress.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "basics.h"
#include "console.h"
#include "items.h"

namespace nimbractl {

ProgressBar::ProgressBar(std::int64_t totalBytes, std::int64_t totalFiles, bool isShown)
    : totalBytes_(totalBytes), totalFiles_(totalFiles) {
  if (isShown) thread_ = std::jthread([this](const std::stop_token& stop) { Run(stop); });
}

ProgressBar::~ProgressBar() {
  if (!thread_.joinable()) return;
  thread_.request_stop();
  thread_.join();
  const std::lock_guard lock(mutex_);
  Draw();
  Erase();
}

void ProgressBar::Begin(const std::wstring& path, std::int64_t size) {
  const std::lock_guard lock(mutex_);
  current_ = path;
  currentSize_ = size;
}

void ProgressBar::End() {
  const std::lock_guard lock(mutex_);
  current_.clear();
  doneBytes_ += currentSize_;
  ++doneFiles_;
}

void ProgressBar::Fail() {
  const std::lock_guard lock(mutex_);
  current_.clear();
  Erase();
}

void ProgressBar::Run(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    Draw();
    changed_.wait_for(lock, stop, std::chrono::milliseconds(100), [] { return false; });
  }
}

void ProgressBar::Draw() {
  auto bytes = doneBytes_;
  if (!current_.empty()) bytes += std::min(currentSize_, BytesOnDisk(current_).value_or(0));
  const double part =
      totalBytes_ == 0 ? 1 : static_cast<double>(bytes) / static_cast<double>(totalBytes_);
  constexpr std::size_t kCells = 20;
  const auto filled = std::min(kCells, static_cast<std::size_t>(part * kCells));
  char percent[16];
  std::snprintf(percent, sizeof percent, "] %3d %%  ", static_cast<int>(part * 100));
  std::string text = "[";
  text.append(filled, '#').append(kCells - filled, '.').append(percent);
  text += BytesText(bytes) + " of " + BytesText(totalBytes_) + ", " + std::to_string(doneFiles_) +
          " of " + Count(totalFiles_, "file");
  const auto length = text.size();
  if (length < width_) text.append(width_ - length, ' ');
  width_ = length;
  Write(Stream::kError, "\r" + text);
}

void ProgressBar::Erase() {
  std::string text = "\r";
  text.append(width_, ' ').append("\r");
  if (width_ > 0) Write(Stream::kError, text);
  width_ = 0;
}

}  // namespace nimbractl
