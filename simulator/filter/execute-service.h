#ifndef NIMBRA_SIMULATOR_FILTER_EXECUTE_SERVICE_H_
#define NIMBRA_SIMULATOR_FILTER_EXECUTE_SERVICE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core.h"

namespace cloud_filter {

// What providers answer and report: the operations of CfExecute, transfer keys and progress.
class ExecuteService {
 public:
  explicit ExecuteService(Core& core) : core_(core) {}

  Hresult GetTransferKey(const wire::ItemRef& ref, std::int64_t& key);
  Hresult ReleaseTransferKey(std::int64_t key);

  Hresult TransferData(const wire::Target& target, std::uint32_t status, std::int64_t offset,
                       std::int64_t length, std::string_view data);
  Hresult RetrieveData(const wire::Target& target, std::int64_t offset, std::int64_t length,
                       std::string& data);
  Hresult AckData(const wire::Target& target, std::uint32_t status, std::int64_t offset,
                  std::int64_t length);
  Hresult RestartHydration(const wire::Target& target, std::uint32_t flags,
                           const std::optional<wire::Metadata>& metadata,
                           const std::optional<std::string>& identity);
  // Answers to a question of the given callback type.
  Hresult Acknowledge(std::uint32_t callbackType, const wire::Target& target, std::uint32_t status,
                      std::optional<std::string> identity);
  Hresult ReportProgress(const wire::Target& target, std::int64_t total, std::int64_t completed);
  Hresult GetRangesByKey(std::int64_t connectionKey, std::int64_t transferKey, std::int64_t fileId,
                         std::uint32_t rangeClass, std::int64_t offset, std::int64_t length,
                         std::vector<Range>& ranges);

 private:
  struct Addressed {
    ItemPtr item;
    std::shared_ptr<Connection> connection;
  };
  Hresult Address(const wire::Target& target, Addressed& addressed);
  Hresult FailTransfer(Guard& guard, const Addressed& addressed, const wire::Target& target,
                       Range range, std::uint32_t status);
  Hresult Store(const Addressed& addressed, Range range, std::string_view data);
  Hresult Restart(const Addressed& addressed, std::uint32_t flags,
                  const std::optional<wire::Metadata>& metadata,
                  const std::optional<std::string>& identity);

  Core& core_;
};

// The runs of a class within [offset, offset + length); a length of -1 means to the end.
Hresult RangesOf(const Item& item, std::uint32_t rangeClass, std::int64_t offset,
                 std::int64_t length, std::vector<Range>& ranges);

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_EXECUTE_SERVICE_H_
