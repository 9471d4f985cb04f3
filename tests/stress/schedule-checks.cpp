// What must have come of a schedule.

#include <algorithm>

#include "tests/stress/schedule-facts.h"
#include "tests/stress/schedule.h"

namespace nimbra_stress {
namespace {

using nimbra_test::ExecuteCall;

std::int32_t StatusOf(std::uint32_t clientStatus) {
  const std::uint32_t statuses[] = {0, 0xC000CF12, 0xC000007F, 0xC000CF16, 0xC000CF12};
  return static_cast<std::int32_t>(statuses[std::min<std::uint32_t>(clientStatus, 4)]);
}

}  // namespace

void Schedule::CheckSendings() {
  std::map<std::int64_t, std::vector<ExecuteCall>> arrived;
  for (const auto& call : cloud_.CallsOf<ExecuteCall>()) {
    if (call.info.Type == CF_OPERATION_TYPE_TRANSFER_DATA && call.offset < kOwnOffset) {
      arrived[call.offset].push_back(call);
    }
  }
  for (const auto& sending : sendings_) {
    const auto& calls = arrived[sending->number * kPage];
    const auto name = "transfer " + std::to_string(sending->number);
    Expect(calls.size() == (sending->called ? 1U : 0U),
           name + " arrives exactly once, not " + std::to_string(calls.size()) + " times");
    if (calls.size() != 1) {
      continue;
    }
    const auto& call = calls.front();
    const bool good = sending->status == 0;
    ++(good ? counts.transfers : counts.failedTransfers);
    Expect(!good || call.data == sending->data, name + " arrives unchanged");
    Expect(call.length == static_cast<std::int64_t>(sending->data.size()),
           name + " has its length");
    Expect(call.status == StatusOf(sending->status), name + " has its status");
    Expect(call.info.ConnectionKey.Internal == sending->request->root->key &&
               call.info.TransferKey.QuadPart == sending->request->number + 1,
           name + " goes to the request that it answers");
    Expect(decided_[call.offset] == sending->result, name + " gives the platform's own result");
  }
}

void Schedule::CheckOwnAnswers() {
  std::map<std::int64_t, int> own;
  for (const auto& call : cloud_.CallsOf<ExecuteCall>()) {
    if (call.info.Type == CF_OPERATION_TYPE_TRANSFER_DATA && call.offset >= kOwnOffset) {
      ++own[call.info.TransferKey.QuadPart];
      Expect(call.status == StatusOf(1) && call.length == kPage &&
                 call.offset == kOwnOffset + (call.info.TransferKey.QuadPart - 1) * kPage,
             "the library's own answer fails what was asked for");
      ++counts.ownAnswers;
    }
  }
  for (const auto& request : requests_) {
    Expect(own[request->number + 1] == (request->readable ? 0 : request->fetches),
           "the library itself answers what nobody can read, once, and nothing else");
    Expect(request->callbacks == (request->readable ? request->events : 0),
           "each event reaches the client exactly once");
  }
}

void Schedule::CheckOthers() {
  std::map<std::int64_t, int> arrived;
  for (const auto& call : cloud_.CallsOf<ExecuteCall>()) {
    if (call.info.Type != CF_OPERATION_TYPE_TRANSFER_DATA) {
      ++arrived[call.info.TransferKey.QuadPart];
    }
  }
  for (const auto& [number, count] : acknowledged_) {
    Expect(arrived[number + 1] == count, "each acknowledgement arrives exactly once");
    counts.acknowledgements += count;
  }
  const auto reports = cloud_.CallsOf<nimbra_test::ReportProviderProgressCall>();
  Expect(reports.size() == static_cast<std::size_t>(reports_), "each report arrives once");
  counts.reports += reports_;
}

}  // namespace nimbra_stress
