#ifndef NIMBRA_BENCH_HARNESS_STREAM_SHAPES_H_
#define NIMBRA_BENCH_HARNESS_STREAM_SHAPES_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nimbra/nimbra.h"

namespace nimbra_bench {

// One way to hand a local file's data to the platform.
struct StreamShape {
  std::string name;
  std::function<void(const std::wstring& path)> stream;
  // How often the shape itself copies each byte in memory.
  int copies = 0;
};

// The least: one buffer of 4 MiB, made before, into which is read and from which is handed over.
StreamShape BareShape();
// What other programs do: pieces of other sizes, and ways with copies.
std::vector<StreamShape> OtherShapes();
// The library's own transfer.
StreamShape LibraryShape(CORVWinCFSyncRootHandle root, CORVWinCFPlaceholderHandle placeholder);

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_STREAM_SHAPES_H_
