#ifndef NIMBRA_SIMULATOR_CLDAPI_CALLBACK_RECORD_H_
#define NIMBRA_SIMULATOR_CLDAPI_CALLBACK_RECORD_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "common/cloud-files.h"
#include "protocol/wire.h"

namespace cldapi {

// What all callbacks of a connected sync root have in common.
struct ConnectedRoot {
  CF_CONNECTION_KEY key{};
  void* context = nullptr;
  CF_CONNECT_FLAGS flags = CF_CONNECT_FLAG_NONE;
  std::string unixPath;
  std::wstring pathOnVolume;  // begins with a backslash; empty for the volume's root
  std::wstring volumeDosName;
  std::wstring volumeGuidName;
  DWORD volumeSerialNumber = 0;
  std::int64_t fileId = 0;
  std::string identity;
};

// Memory that is spoilt when its time is over: a callback that keeps a pointer into its record
// beyond its return reads rubbish.
class PoisonedMemory {
 public:
  PoisonedMemory() = default;
  PoisonedMemory(const PoisonedMemory&) = delete;
  PoisonedMemory& operator=(const PoisonedMemory&) = delete;
  ~PoisonedMemory();

  template <class Record>
  requires std::is_trivial_v<Record>
  [[nodiscard]] Record* Make() { return static_cast<Record*>(Allocate(sizeof(Record))); }
  [[nodiscard]] PCWSTR Text(std::wstring_view text);
  // Null for no bytes.
  [[nodiscard]] LPCVOID Bytes(std::string_view bytes);

 private:
  struct Block {
    std::unique_ptr<std::byte[]> memory;
    std::size_t size;
  };

  [[nodiscard]] void* Allocate(std::size_t size);

  std::vector<Block> blocks_;
};

// The record that a callback gets, made from the filter's event.
class CallbackRecord {
 public:
  CallbackRecord(const ConnectedRoot& root, const cloud_filter::wire::CallbackEvent& event);

  [[nodiscard]] const CF_CALLBACK_INFO* Info() const noexcept { return info_; }
  [[nodiscard]] const CF_CALLBACK_PARAMETERS* Parameters() const noexcept { return parameters_; }

 private:
  void FillInfo(const ConnectedRoot& root, const cloud_filter::wire::CallbackEvent& event);
  void FillParameters(const ConnectedRoot& root, const cloud_filter::wire::CallbackEvent& event);
  [[nodiscard]] CF_PROCESS_INFO* MakeProcessInfo(const cloud_filter::wire::CallbackEvent& event);

  PoisonedMemory memory_;
  CF_CALLBACK_INFO* info_;
  CF_CALLBACK_PARAMETERS* parameters_;
};

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_CALLBACK_RECORD_H_
