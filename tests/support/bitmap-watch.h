#ifndef NIMBRA_TESTS_SUPPORT_BITMAP_WATCH_H_
#define NIMBRA_TESTS_SUPPORT_BITMAP_WATCH_H_

#include <windows.h>

#include <mutex>
#include <vector>

#include "tests/support/image-files.h"
#include "tests/support/import-double.h"

namespace nimbra_test {

// Watches the bitmaps that the program makes and deletes.
class BitmapWatch {
 public:
  struct Section {
    HDC context;
    BITMAPINFOHEADER header;
    UINT usage;
    HANDLE file;
    DWORD offset;
    HBITMAP bitmap;
    void* bits;
  };

  BitmapWatch();

  // Lets every section be refused from now on.
  void RefuseSections() { refuses_ = true; }

  std::vector<Section> Sections() const;
  // Sections made and not deleted.
  int Alive() const;
  // What was deleted, in order.
  std::vector<HGDIOBJ> Deleted() const;

 private:
  HBITMAP Make(HDC context, const BITMAPINFO* info, UINT usage, void** bits, HANDLE file,
               DWORD offset, decltype(&::CreateDIBSection) original);

  mutable std::mutex mutex_;
  bool refuses_ = false;
  std::vector<Section> sections_;
  std::vector<HGDIOBJ> deleted_;
  ImportDouble<"CreateDIBSection", decltype(&::CreateDIBSection)> create_;
  ImportDouble<"DeleteObject", decltype(&::DeleteObject)> delete_;
};

// Deletes a bitmap at its end.
class BitmapOwner {
 public:
  BitmapOwner() = default;
  explicit BitmapOwner(HBITMAP bitmap) : bitmap_(bitmap) {}
  ~BitmapOwner() { Delete(); }
  BitmapOwner(const BitmapOwner&) = delete;
  BitmapOwner& operator=(const BitmapOwner&) = delete;

  void Delete();
  HBITMAP Get() const { return bitmap_; }

 private:
  HBITMAP bitmap_ = nullptr;
};

// The pixels of a 32-bit section, from the first row in its memory on; an empty picture for
// anything else.
Picture PixelsOf(HBITMAP bitmap);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_BITMAP_WATCH_H_
