#ifndef NIMBRA_TESTS_CONFORMANCE_PROVIDER_H_
#define NIMBRA_TESTS_CONFORMANCE_PROVIDER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/cloud-files.h"

namespace conformance {

// A callback as it came, copied while its record was valid.
struct Event {
  CF_CALLBACK_TYPE type = CF_CALLBACK_TYPE_NONE;
  CF_CALLBACK_INFO info{};  // its pointers are dead; the copies are below
  CF_CALLBACK_PARAMETERS parameters{};
  bool hasProcess = false;
  CF_PROCESS_INFO process{};
  std::wstring imagePath;
  std::wstring commandLine;
  std::wstring path;
  std::wstring otherPath;  // of a rename
  std::wstring volumeDosName;
  std::string rootIdentity;
  std::string fileIdentity;
};

// The byte at a position of the file with this identity, on the server.
[[nodiscard]] char ServerByte(const std::string& identity, std::int64_t position);
[[nodiscard]] std::string ServerBytes(const std::string& identity, std::int64_t offset,
                                      std::int64_t length);

// A provider that keeps what it is told and, unless told otherwise, serves the data it is asked for
// and agrees to everything else.
class Provider {
 public:
  using Handler = std::function<void(const Event&)>;

  Provider() = default;
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;
  ~Provider();

  // Registers for all types of callback but those of data validation and population.
  [[nodiscard]] HRESULT Connect(const std::wstring& root,
                                CF_CONNECT_FLAGS flags = CF_CONNECT_FLAG_NONE);
  HRESULT Disconnect();
  [[nodiscard]] CF_CONNECTION_KEY Key() const { return key_; }

  // Called in place of the usual answer.
  void OnFetch(Handler handler);

  // The nth event of the type (counted from 0), waited for; nothing when it does not come in time.
  [[nodiscard]] std::optional<Event> WaitFor(
      CF_CALLBACK_TYPE type, std::size_t nth = 0,
      std::chrono::milliseconds limit = std::chrono::seconds(10));
  [[nodiscard]] std::vector<Event> Events(CF_CALLBACK_TYPE type);
  // How many callbacks run or ran at the same time at most.
  [[nodiscard]] int MostAtOnce();

  [[nodiscard]] HRESULT Transfer(const Event& event, std::int64_t offset, const std::string& data);
  [[nodiscard]] HRESULT Serve(const Event& event);
  [[nodiscard]] HRESULT Fail(const Event& event, NTSTATUS status);

 private:
  void Receive(const Event& event);
  void AnswerAsUsual(const Event& event);

  template <CF_CALLBACK_TYPE type>
  static void CALLBACK Callback(const CF_CALLBACK_INFO* info,
                                const CF_CALLBACK_PARAMETERS* parameters);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
  Handler onFetch_;
  int running_ = 0;
  int mostAtOnce_ = 0;
  bool connected_ = false;
  CF_CONNECTION_KEY key_{};
};

// The record that addresses the answer to a callback.
[[nodiscard]] CF_OPERATION_INFO AnswerTo(const Event& event, CF_OPERATION_TYPE type);

[[nodiscard]] LARGE_INTEGER Large(std::int64_t value);

// A set of parameters for CfExecute, with the size that belongs to its arm.
template <class Arm>
[[nodiscard]] CF_OPERATION_PARAMETERS Sized(const Arm& /*arm*/) {
  CF_OPERATION_PARAMETERS parameters{};
  parameters.ParamSize =
      static_cast<ULONG>(offsetof(CF_OPERATION_PARAMETERS, TransferData) + sizeof(Arm));
  return parameters;
}

}  // namespace conformance

#endif  // NIMBRA_TESTS_CONFORMANCE_PROVIDER_H_
