#include "tests/support/image-files.h"

#include <cstdlib>
#include <utility>

namespace nimbra_test {
namespace {

// Appends numbers of a fixed width.
class Bytes {
 public:
  Bytes& U8(std::uint32_t value) {
    bytes_.push_back(static_cast<char>(value & 0xFF));
    return *this;
  }
  Bytes& Little16(std::uint32_t value) { return U8(value).U8(value >> 8); }
  Bytes& Little32(std::uint32_t value) { return Little16(value).Little16(value >> 16); }
  Bytes& Big16(std::uint32_t value) { return U8(value >> 8).U8(value); }
  Bytes& Big32(std::uint32_t value) { return Big16(value >> 16).Big16(value); }
  Bytes& Text(std::string_view text) {
    bytes_.append(text);
    return *this;
  }
  Bytes& Fill(std::size_t count, char value) {
    bytes_.append(count, value);
    return *this;
  }
  std::size_t Size() const { return bytes_.size(); }
  std::string Take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

std::uint32_t Red(std::uint32_t pixel) { return (pixel >> 16) & 0xFF; }
std::uint32_t Green(std::uint32_t pixel) { return (pixel >> 8) & 0xFF; }
std::uint32_t Blue(std::uint32_t pixel) { return pixel & 0xFF; }
std::uint32_t Alpha(std::uint32_t pixel) { return pixel >> 24; }

std::uint32_t At(const Picture& picture, std::uint32_t x, std::uint32_t y) {
  return picture.pixels[std::size_t{y} * picture.width + x];
}

// One row of colour numbers, the first one in the highest bits.
std::string PackedRow(const PalettedPicture& picture, std::uint32_t y, int bits) {
  std::string row((std::size_t{picture.width} * static_cast<std::size_t>(bits) + 7) / 8, '\0');
  for (std::uint32_t x = 0; x < picture.width; ++x) {
    const std::size_t at = std::size_t{x} * static_cast<std::size_t>(bits);
    const int shift = 8 - bits - static_cast<int>(at % 8);
    const int index = picture.indices[std::size_t{y} * picture.width + x] << shift;
    row[at / 8] = static_cast<char>(row[at / 8] | index);
  }
  return row;
}

// ---- BMP

constexpr std::uint32_t kFileHeader = 14;

std::string BmpOf(std::uint32_t width, std::uint32_t height, int bits, std::string_view masks,
                  const std::vector<std::uint32_t>& palette, std::string_view rows) {
  const auto header = static_cast<std::uint32_t>(40 + masks.size());
  const auto offset = static_cast<std::uint32_t>(kFileHeader + header + palette.size() * 4);
  constexpr std::uint32_t kBitFields = 3;
  Bytes file;
  file.Text("BM").Little32(offset + static_cast<std::uint32_t>(rows.size())).Little32(0);
  file.Little32(offset).Little32(header).Little32(width).Little32(height).Little16(1);
  file.Little16(static_cast<std::uint32_t>(bits)).Little32(masks.empty() ? 0 : kBitFields);
  file.Little32(static_cast<std::uint32_t>(rows.size())).Little32(2835).Little32(2835);
  file.Little32(static_cast<std::uint32_t>(palette.size())).Little32(0).Text(masks);
  for (const std::uint32_t colour : palette) {
    file.Little32(colour & 0xFFFFFF);
  }
  return file.Text(rows).Take();
}

// Rows stand from the bottom up and are filled to a multiple of four bytes.
template <typename Row>
std::string BmpRows(std::uint32_t height, Row row) {
  std::string rows;
  for (std::uint32_t y = height; y-- > 0;) {
    const std::string bytes = row(y);
    rows.append(bytes).append((4 - bytes.size() % 4) % 4, '\0');
  }
  return rows;
}

std::string BmpRow(const Picture& picture, std::uint32_t y, int bits) {
  Bytes row;
  for (std::uint32_t x = 0; x < picture.width; ++x) {
    const std::uint32_t pixel = At(picture, x, y);
    if (bits == 16) {
      row.Little16((Red(pixel) >> 3 << 10) | (Green(pixel) >> 3 << 5) | (Blue(pixel) >> 3));
    } else if (bits == 24) {
      row.U8(pixel).U8(pixel >> 8).U8(pixel >> 16);
    } else {
      row.Little32(pixel);
    }
  }
  return row.Take();
}

// ---- PNG

std::uint32_t Crc(std::string_view bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
  }
  return ~crc;
}

// A zlib stream of stored blocks.
std::string Stored(std::string_view data) {
  constexpr std::size_t kLargestBlock = 65535;
  std::uint32_t low = 1, high = 0;
  for (const char byte : data) {
    low = (low + static_cast<unsigned char>(byte)) % 65521;
    high = (high + low) % 65521;
  }
  Bytes stream;
  stream.U8(0x78).U8(0x01);
  do {
    const std::string_view block = data.substr(0, kLargestBlock);
    data.remove_prefix(block.size());
    const auto size = static_cast<std::uint32_t>(block.size());
    stream.U8(data.empty() ? 1 : 0).Little16(size).Little16(~size).Text(block);
  } while (!data.empty());
  return stream.Big32(high << 16 | low).Take();
}

std::string Chunk(std::string_view type, std::string_view data) {
  const std::string body = std::string(type) + std::string(data);
  return Bytes().Big32(static_cast<std::uint32_t>(data.size())).Text(body).Big32(Crc(body)).Take();
}

enum PngColour { kGrey = 0, kRgb = 2, kPalette = 3, kRgba = 6 };

std::string PngOf(std::uint32_t width, std::uint32_t height, int bits, PngColour colour,
                  std::string_view paletteChunks, std::string_view rows) {
  Bytes header;
  header.Big32(width).Big32(height).U8(static_cast<std::uint32_t>(bits)).U8(colour);
  header.U8(0).U8(0).U8(0);
  return Bytes()
      .Text("\x89PNG\r\n\x1A\n")
      .Text(Chunk("IHDR", header.Take()))
      .Text(paletteChunks)
      .Text(Chunk("IDAT", Stored(rows)))
      .Text(Chunk("IEND", ""))
      .Take();
}

// Every row begins with the number of its filter: none.
template <typename Pixel>
std::string PngRows(const Picture& picture, Pixel pixel) {
  Bytes rows;
  for (std::uint32_t y = 0; y < picture.height; ++y) {
    rows.U8(0);
    for (std::uint32_t x = 0; x < picture.width; ++x) {
      pixel(rows, At(picture, x, y));
    }
  }
  return rows.Take();
}

// ---- GIF

// Codes of 9 bits, the first one in the lowest bits, in sub-blocks. The table is cleared before it
// would grow to codes of 10 bits, so that nothing is ever compressed.
class GifCodes {
 public:
  void Put(std::uint32_t code) {
    bits_ |= code << count_;
    count_ += 9;
    while (count_ >= 8) Flush();
  }
  std::string Blocks() {
    if (count_ > 0) Flush();
    Bytes blocks;
    for (std::string_view rest = bytes_; !rest.empty();) {
      const std::string_view block = rest.substr(0, 255);
      blocks.U8(static_cast<std::uint32_t>(block.size())).Text(block);
      rest.remove_prefix(block.size());
    }
    return blocks.U8(0).Take();
  }

 private:
  void Flush() {
    bytes_.push_back(static_cast<char>(bits_ & 0xFF));
    bits_ >>= 8;
    count_ -= 8;
  }

  std::string bytes_;
  std::uint32_t bits_ = 0;
  int count_ = 0;
};

std::string GifPixels(const std::vector<std::uint8_t>& indices) {
  constexpr std::uint32_t kClear = 256, kEnd = 257;
  constexpr std::size_t kRun = 200;
  GifCodes codes;
  for (std::size_t i = 0; i < indices.size(); ++i) {
    if (i % kRun == 0) codes.Put(kClear);
    codes.Put(indices[i]);
  }
  codes.Put(kEnd);
  return Bytes().U8(8).Text(codes.Blocks()).Take();
}

Bytes GifStart(std::uint32_t width, std::uint32_t height, std::vector<std::uint32_t> palette) {
  palette.resize(256);
  Bytes file;
  file.Text("GIF89a").Little16(width).Little16(height).U8(0xF7).U8(0).U8(0);
  for (const std::uint32_t colour : palette) {
    file.U8(Red(colour)).U8(Green(colour)).U8(Blue(colour));
  }
  return file;
}

void PutGifFrame(Bytes& file, std::uint32_t width, std::uint32_t height,
                 const std::vector<std::uint8_t>& indices) {
  // A tenth of a second, then the next one on top.
  file.Text("\x21\xF9").U8(4).U8(4).Little16(10).U8(0).U8(0);
  file.U8(0x2C).Little16(0).Little16(0).Little16(width).Little16(height).U8(0);
  file.Text(GifPixels(indices));
}

// ---- TIFF

constexpr std::uint32_t kTiffTags = 10;

struct TiffPage {
  std::uint32_t width;
  std::uint32_t height;
  std::string pixels;
};

void PutTag(Bytes& file, std::uint32_t tag, bool isLong, std::uint32_t count, std::uint32_t value) {
  file.Little16(tag).Little16(isLong ? 4 : 3).Little32(count).Little32(value);
}

// A directory, the sizes of the samples, and the one strip.
void PutTiffPage(Bytes& file, const TiffPage& page, bool isLast) {
  const auto directory = static_cast<std::uint32_t>(file.Size());
  const std::uint32_t sampleSizes = directory + 2 + kTiffTags * 12 + 4;
  const std::uint32_t strip = sampleSizes + 8;
  const auto size = static_cast<std::uint32_t>(page.pixels.size());
  file.Little16(kTiffTags);
  PutTag(file, 256, true, 1, page.width);
  PutTag(file, 257, true, 1, page.height);
  PutTag(file, 258, false, 3, sampleSizes);
  PutTag(file, 259, false, 1, 1);
  PutTag(file, 262, false, 1, 2);
  PutTag(file, 273, true, 1, strip);
  PutTag(file, 277, false, 1, 3);
  PutTag(file, 278, true, 1, page.height);
  PutTag(file, 279, true, 1, size);
  PutTag(file, 284, false, 1, 1);
  const std::uint32_t end = strip + size + size % 2;
  file.Little32(isLast ? 0 : end).Little16(8).Little16(8).Little16(8).Little16(0);
  file.Text(page.pixels).Fill(size % 2, '\0');
}

std::string TiffOf(const std::vector<TiffPage>& pages) {
  Bytes file;
  file.Text("II").Little16(42).Little32(8);
  for (const TiffPage& page : pages) {
    PutTiffPage(file, page, &page == &pages.back());
  }
  return file.Take();
}

// ---- JPEG

// Codes, the first one in the highest bits; 0xFF is followed by a zero.
class JpegCodes {
 public:
  void Put(std::uint32_t value, int count) {
    for (int bit = count; bit-- > 0;) {
      byte_ = byte_ << 1 | (value >> bit & 1);
      if (++count_ == 8) Flush();
    }
  }
  std::string Take() {
    while (count_ != 0) Put(1, 1);
    return bytes_.Take();
  }

 private:
  void Flush() {
    bytes_.U8(byte_);
    if (byte_ == 0xFF) bytes_.U8(0);
    byte_ = 0;
    count_ = 0;
  }

  Bytes bytes_;
  std::uint32_t byte_ = 0;
  int count_ = 0;
};

// A block's first coefficient, as the difference to the one before: the number of its bits has a
// code of four bits, and "no more coefficients" is the one bit 0.
std::string JpegScan(const std::vector<std::uint8_t>& blocks) {
  JpegCodes codes;
  int before = 0;
  for (const std::uint8_t block : blocks) {
    const int coefficient = (block - 128) * 8;
    const int difference = coefficient - before;
    before = coefficient;
    int bits = 0;
    while (std::abs(difference) >> bits != 0) ++bits;
    codes.Put(static_cast<std::uint32_t>(bits), 4);
    const int value = difference < 0 ? difference - 1 : difference;
    codes.Put(static_cast<std::uint32_t>(value) & ((1U << bits) - 1), bits);
    codes.Put(0, 1);
  }
  return codes.Take();
}

}  // namespace

Picture PalettedPicture::Colours() const {
  return MakePicture(width, height, [this](std::uint32_t x, std::uint32_t y) {
    return palette[indices[std::size_t{y} * width + x]];
  });
}

PalettedPicture MakePaletted(std::uint32_t width, std::uint32_t height, std::size_t colours) {
  PalettedPicture picture{width, height, {}, {}};
  for (std::size_t i = 0; i < colours; ++i) {
    // 97 has an inverse modulo 256, so the colours differ.
    const auto red = static_cast<std::uint32_t>(i * 97 % 256);
    picture.palette.push_back(0xFF000000 | red << 16 | (red ^ 0x5A) << 8 | (255 - red));
  }
  for (std::size_t i = 0; i < std::size_t{width} * height; ++i) {
    picture.indices.push_back(static_cast<std::uint8_t>((i + i / width) % colours));
  }
  return picture;
}

std::string BmpFile(const Picture& picture, int bits) {
  const auto row = [&](std::uint32_t y) { return BmpRow(picture, y, bits); };
  return BmpOf(picture.width, picture.height, bits, "", {}, BmpRows(picture.height, row));
}

std::string BmpFileWithAlpha(const Picture& picture) {
  Bytes masks;
  masks.Little32(0xFF0000).Little32(0xFF00).Little32(0xFF).Little32(0xFF000000);
  // The default colour space, and no end points or gammas.
  masks.Text("BGRs").Fill(48, '\0');
  const auto row = [&](std::uint32_t y) { return BmpRow(picture, y, 32); };
  return BmpOf(picture.width, picture.height, 32, masks.Take(), {}, BmpRows(picture.height, row));
}

std::string BmpFile(const PalettedPicture& picture, int bits) {
  const auto row = [&](std::uint32_t y) { return PackedRow(picture, y, bits); };
  return BmpOf(picture.width, picture.height, bits, "", picture.palette,
               BmpRows(picture.height, row));
}

std::string PngFile(const Picture& picture, int bits) {
  const std::string rows = PngRows(picture, [bits](Bytes& out, std::uint32_t pixel) {
    for (const std::uint32_t colour : {Red(pixel), Green(pixel), Blue(pixel)}) {
      out.U8(colour);
      // Twice the same byte is the same share of the largest value.
      if (bits == 16) out.U8(colour);
    }
  });
  return PngOf(picture.width, picture.height, bits, kRgb, "", rows);
}

std::string PngFileWithAlpha(const Picture& picture) {
  const std::string rows = PngRows(picture, [](Bytes& out, std::uint32_t pixel) {
    out.U8(Red(pixel)).U8(Green(pixel)).U8(Blue(pixel)).U8(Alpha(pixel));
  });
  return PngOf(picture.width, picture.height, 8, kRgba, "", rows);
}

std::string PngFile(const PalettedPicture& picture, int bits) {
  Bytes colours, alphas, rows;
  for (const std::uint32_t colour : picture.palette) {
    colours.U8(Red(colour)).U8(Green(colour)).U8(Blue(colour));
    alphas.U8(Alpha(colour));
  }
  for (std::uint32_t y = 0; y < picture.height; ++y) {
    rows.U8(0).Text(PackedRow(picture, y, bits));
  }
  return PngOf(picture.width, picture.height, bits, kPalette,
               Chunk("PLTE", colours.Take()) + Chunk("tRNS", alphas.Take()), rows.Take());
}

std::string GreyPngFile(const Picture& picture) {
  const std::string rows =
      PngRows(picture, [](Bytes& out, std::uint32_t pixel) { out.U8(Blue(pixel)); });
  return PngOf(picture.width, picture.height, 8, kGrey, "", rows);
}

std::string GifFile(const std::vector<PalettedPicture>& frames) {
  const PalettedPicture& first = frames.front();
  Bytes file = GifStart(first.width, first.height, first.palette);
  for (const PalettedPicture& frame : frames) {
    PutGifFrame(file, frame.width, frame.height, frame.indices);
  }
  return file.Text(";").Take();
}

std::string TiffFile(const std::vector<Picture>& pages) {
  std::vector<TiffPage> plain;
  for (const Picture& page : pages) {
    Bytes pixels;
    for (const std::uint32_t pixel : page.pixels) {
      pixels.U8(Red(pixel)).U8(Green(pixel)).U8(Blue(pixel));
    }
    plain.push_back({page.width, page.height, pixels.Take()});
  }
  return TiffOf(plain);
}

std::string GreyJpegFile(std::uint32_t blocksAcross, std::uint32_t blocksDown,
                         const std::vector<std::uint8_t>& blocks) {
  Bytes file;
  file.Big16(0xFFD8);
  file.Big16(0xFFE0).Big16(16).Text(std::string_view("JFIF\0", 5)).Big16(0x0101).U8(0);
  file.Big16(1).Big16(1).Big16(0);
  file.Big16(0xFFDB).Big16(67).U8(0).Fill(64, 1);
  file.Big16(0xFFC0).Big16(11).U8(8).Big16(blocksDown * 8).Big16(blocksAcross * 8).U8(1);
  file.U8(1).U8(0x11).U8(0);
  // The table of first coefficients: twelve codes of four bits; that of the others: one of one bit.
  file.Big16(0xFFC4).Big16(31).U8(0x00).Fill(3, 0).U8(12).Fill(12, 0);
  for (std::uint32_t symbol = 0; symbol < 12; ++symbol) file.U8(symbol);
  file.Big16(0xFFC4).Big16(20).U8(0x10).U8(1).Fill(15, 0).U8(0);
  file.Big16(0xFFDA).Big16(8).U8(1).U8(1).U8(0x00).U8(0).U8(63).U8(0);
  return file.Text(JpegScan(blocks)).Big16(0xFFD9).Take();
}

Picture GreyJpegPixels(std::uint32_t blocksAcross, std::uint32_t blocksDown,
                       const std::vector<std::uint8_t>& blocks) {
  return MakePicture(blocksAcross * 8, blocksDown * 8, [&](std::uint32_t x, std::uint32_t y) {
    const std::uint32_t grey = blocks[std::size_t{y / 8} * blocksAcross + x / 8];
    return 0xFF000000 | grey << 16 | grey << 8 | grey;
  });
}

std::string BmpFileOfDeclaredSize(std::uint32_t width, std::uint32_t height) {
  return BmpOf(width, height, 24, "", {}, std::string(64, '\x55'));
}

std::string PngFileOfDeclaredSize(std::uint32_t width, std::uint32_t height) {
  return PngOf(width, height, 8, kRgba, "", std::string(64, '\0'));
}

std::string GifFileOfDeclaredSize(std::uint16_t width, std::uint16_t height) {
  Bytes file = GifStart(width, height, {0xFFFFFF});
  PutGifFrame(file, width, height, std::vector<std::uint8_t>(64));
  return file.Text(";").Take();
}

std::string TiffFileOfDeclaredSize(std::uint32_t width, std::uint32_t height) {
  return TiffOf({{width, height, std::string(64, '\x55')}});
}

}  // namespace nimbra_test
