#include "tests/support/bitmap-watch.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace nimbra_test {

BitmapWatch::BitmapWatch()
    : create_([this](auto original, HDC context, const BITMAPINFO* info, UINT usage, void** bits,
                     HANDLE file, DWORD offset) {
        return Make(context, info, usage, bits, file, offset, original);
      }),
      delete_([this](auto original, HGDIOBJ object) {
        {
          const std::lock_guard lock(mutex_);
          deleted_.push_back(object);
        }
        return original(object);
      }) {}

HBITMAP BitmapWatch::Make(HDC context, const BITMAPINFO* info, UINT usage, void** bits, HANDLE file,
                          DWORD offset, decltype(&::CreateDIBSection) original) {
  Section section{context, info->bmiHeader, usage, file, offset, nullptr, nullptr};
  if (!refuses_) {
    section.bitmap = original(context, info, usage, &section.bits, file, offset);
    *bits = section.bits;
  }
  const std::lock_guard lock(mutex_);
  sections_.push_back(section);
  return section.bitmap;
}

std::vector<BitmapWatch::Section> BitmapWatch::Sections() const {
  const std::lock_guard lock(mutex_);
  return sections_;
}

int BitmapWatch::Alive() const {
  const std::lock_guard lock(mutex_);
  const auto made = std::count_if(sections_.begin(), sections_.end(),
                                  [](const Section& section) { return section.bitmap != nullptr; });
  return static_cast<int>(made) - static_cast<int>(deleted_.size());
}

std::vector<HGDIOBJ> BitmapWatch::Deleted() const {
  const std::lock_guard lock(mutex_);
  return deleted_;
}

void BitmapOwner::Delete() {
  if (bitmap_ != nullptr) {
    DeleteObject(std::exchange(bitmap_, nullptr));
  }
}

Picture PixelsOf(HBITMAP bitmap) {
  DIBSECTION section{};
  if (GetObjectW(bitmap, sizeof(section), &section) != sizeof(section) ||
      section.dsBm.bmBitsPixel != 32 || section.dsBm.bmBits == nullptr) {
    return {};
  }
  Picture picture;
  picture.width = static_cast<std::uint32_t>(section.dsBm.bmWidth);
  picture.height = static_cast<std::uint32_t>(section.dsBm.bmHeight);
  picture.pixels.resize(std::size_t{picture.width} * picture.height);
  std::memcpy(picture.pixels.data(), section.dsBm.bmBits, picture.pixels.size() * 4);
  return picture;
}

}  // namespace nimbra_test
