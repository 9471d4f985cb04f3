#include "common/debug-log.h"

#include <cstddef>
#include <new>
#include <numeric>

#include "common/small-buffer.h"
#include "common/text.h"

namespace corvdrive::cloud_filter {

void EmitDebugLog(std::string_view line) { OutputDebugStringW(WideText(line).Get()); }

void WriteLogLine(std::initializer_list<LogPiece> pieces) {
  const DWORD lastError = GetLastError();
  const auto size = std::accumulate(
      pieces.begin(), pieces.end(), std::size_t{0},
      [](std::size_t sum, const LogPiece& piece) { return sum + piece.Text().size(); });
  SmallBuffer<char, 512> memory;
  char* const line = memory.Reserve(size);
  if (line == nullptr) {
    // Rather no line than one that is cut.
    throw std::bad_alloc();
  }
  char* end = line;
  for (const LogPiece& piece : pieces) {
    end += piece.Text().copy(end, piece.Text().size());
  }
  EmitDebugLog({line, size});
  SetLastError(lastError);
}

}  // namespace corvdrive::cloud_filter
