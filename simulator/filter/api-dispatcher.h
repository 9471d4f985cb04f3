#ifndef NIMBRA_SIMULATOR_FILTER_API_DISPATCHER_H_
#define NIMBRA_SIMULATOR_FILTER_API_DISPATCHER_H_

#include <functional>
#include <string>
#include <string_view>

#include "core.h"
#include "execute-service.h"
#include "placeholder-service.h"
#include "root-service.h"

namespace cloud_filter {

struct Reply {
  Hresult result = hr::kOk;
  std::string payload;
};

// Unpacks requests, calls the service that answers them, and packs the answers.
class ApiDispatcher {
 public:
  using CallerGone = PlaceholderService::CallerGone;

  explicit ApiDispatcher(Core& core)
      : core_(core), roots_(core), placeholders_(core), execute_(core) {}

  // Every request but Hello and Connect. Nothing is thrown.
  Reply Answer(wire::Op op, std::string_view payload, const CallerGone& gone);
  Reply Connect(std::string_view payload, const std::shared_ptr<CallbackSink>& sink,
                std::int64_t& connectionKey);
  [[nodiscard]] RootService& Roots() { return roots_; }

 private:
  Reply Dispatch(wire::Op op, wire::Reader& in, const CallerGone& gone);
  Reply DispatchRoot(wire::Op op, wire::Reader& in);
  Reply DispatchExecute(wire::Op op, wire::Reader& in);
  Reply DispatchPlaceholder(wire::Op op, wire::Reader& in, const CallerGone& gone);
  Reply DispatchQuery(wire::Op op, wire::Reader& in);
  Reply CreatePlaceholders(wire::Reader& in);
  Reply Update(wire::Reader& in);
  Reply Restart(wire::Reader& in);

  Core& core_;
  RootService roots_;
  PlaceholderService placeholders_;
  ExecuteService execute_;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_API_DISPATCHER_H_
