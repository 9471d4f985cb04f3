#ifndef NIMBRA_BENCH_HARNESS_STREAM_SHAPES_H_
#define NIMBRA_BENCH_HARNESS_STREAM_SHAPES_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nimbra/nimbra.h"

namespace nimbra_bench {

// A file to stream, named both ways.
struct LocalFile {
  std::wstring path;
  std::string utf8Path;
};

// One way to hand a local file's data to the platform. Its buffers are made once and kept from file
// to file, unless its name says otherwise.
struct StreamShape {
  std::string name;
  std::function<void(const LocalFile& file)> stream;
  // How often the shape itself copies each byte in memory.
  int copies = 0;
  // Shows where time goes, and is nobody's way.
  bool isExplanation = false;
};

// The least: one buffer of 4 MiB, made before, into which is read and from which is handed over.
StreamShape BareShape();
// What other programs do: pieces of other sizes, and ways with copies.
std::vector<StreamShape> OtherShapes();
// The library's own transfer.
StreamShape LibraryShape(CORVWinCFSyncRootHandle root, CORVWinCFPlaceholderHandle placeholder);

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_STREAM_SHAPES_H_
