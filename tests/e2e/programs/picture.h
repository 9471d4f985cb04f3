#ifndef NIMBRA_TESTS_E2E_PICTURE_H_
#define NIMBRA_TESTS_E2E_PICTURE_H_

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

namespace e2e {

// Pixels of four bytes, blue first and alpha last, row by row from the top.
struct Picture {
  UINT width = 0;
  UINT height = 0;
  std::vector<std::byte> pixels;
};

// What a bitmap shows. It may come from another process, and then has no bits to look at.
HRESULT ReadBitmap(HBITMAP bitmap, Picture& picture);

// Writes a PNG file with alpha.
HRESULT WritePng(Picture& picture, const std::string& path);

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_PICTURE_H_
