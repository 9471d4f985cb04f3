#ifndef NIMBRA_SIMULATOR_CLDAPI_INFO_BUFFER_H_
#define NIMBRA_SIMULATOR_CLDAPI_INFO_BUFFER_H_

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "result.h"

namespace cldapi {

// The buffer into which a query writes its answer.
class InfoBuffer {
 public:
  InfoBuffer(PVOID buffer, DWORD length, PDWORD returned) noexcept
      : buffer_(buffer), length_(length), returned_(returned) {}

  [[nodiscard]] bool IsUsable() const noexcept { return buffer_ != nullptr || length_ == 0; }
  [[nodiscard]] DWORD Length() const noexcept { return length_; }

  // Documented: what fits is written, and kMoreData says that something did not. The length
  // reported is that of the whole answer (guessed).
  [[nodiscard]] HRESULT Answer(std::string_view answer) const noexcept {
    const HRESULT result = Write(answer);
    if (returned_ != nullptr) *returned_ = static_cast<DWORD>(answer.size());
    return result;
  }

  // The same for a list of equal records: only whole ones are written, and the length reported is
  // that of those.
  [[nodiscard]] HRESULT AnswerRecords(std::string_view records, std::size_t size) const noexcept {
    const std::size_t fitting = std::min<std::size_t>(records.size(), length_ / size * size);
    const HRESULT result = Write(records.substr(0, fitting));
    if (returned_ != nullptr) *returned_ = static_cast<DWORD>(fitting);
    return fitting < records.size() ? result::kMoreData : result;
  }

 private:
  HRESULT Write(std::string_view answer) const noexcept {
    const auto written = std::min<std::size_t>(answer.size(), length_);
    if (written > 0) std::memcpy(buffer_, answer.data(), written);
    return written < answer.size() ? result::kMoreData : S_OK;
  }

  PVOID buffer_;
  DWORD length_;
  PDWORD returned_;
};

// The bytes of a record with a blob at its end that begins at `blobOffset`, inside the record's
// nominal size.
template <class Record>
[[nodiscard]] std::string WithBlob(const Record& record, std::size_t blobOffset,
                                   std::string_view blob) {
  std::string bytes(reinterpret_cast<const char*>(&record), blobOffset);
  return bytes.append(blob);
}

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_INFO_BUFFER_H_
