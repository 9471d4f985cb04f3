#ifndef NIMBRA_SIMULATOR_CLDAPI_FILTER_H_
#define NIMBRA_SIMULATOR_CLDAPI_FILTER_H_

#include <windows.h>

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "channel.h"
#include "protocol/wire.h"
#include "result.h"

namespace cldapi {

// The cloud filter as callers see it: requests from any thread, each on a connection of its own
// while it lasts. After the daemon has gone, the next request looks for its successor.
class Filter {
 public:
  // The filter's result; kFilterNotRunning when there was none. `answer` is set by either.
  [[nodiscard]] HRESULT Request(cloud_filter::wire::Op op, const cloud_filter::wire::Writer& fields,
                                std::string* answer = nullptr, std::string_view tail = {});

  [[nodiscard]] HRESULT GetPlatform(Platform& platform);

 private:
  [[nodiscard]] std::optional<Channel> Take();
  void GiveBack(Channel channel);

  static constexpr std::size_t kMostIdle = 16;
  std::mutex mutex_;
  std::vector<Channel> idle_;
};

Filter& TheFilter();

// Requests an answer of the composite type `Answer`.
template <class Answer>
[[nodiscard]] HRESULT RequestAnswer(cloud_filter::wire::Op op,
                                    const cloud_filter::wire::Writer& fields, Answer& answer) {
  std::string payload;
  const HRESULT result = TheFilter().Request(op, fields, &payload);
  if (FAILED(result)) return result;
  cloud_filter::wire::Reader reader(payload);
  Get(reader, answer);
  return reader.Good() ? result : result::kInvalidData;
}

// Requests a single number.
template <class Number>
[[nodiscard]] HRESULT RequestNumber(cloud_filter::wire::Op op,
                                    const cloud_filter::wire::Writer& fields, Number& number) {
  std::string payload;
  const HRESULT result = TheFilter().Request(op, fields, &payload);
  if (FAILED(result)) return result;
  cloud_filter::wire::Reader reader(payload);
  number = reader.Get<Number>();
  return reader.Good() ? result : result::kInvalidData;
}

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_FILTER_H_
