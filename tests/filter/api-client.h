#ifndef NIMBRA_TESTS_FILTER_API_CLIENT_H_
#define NIMBRA_TESTS_FILTER_API_CLIENT_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client.h"
#include "codes.h"
#include "protocol/wire.h"

namespace cloud_filter::test {

struct RootOptions {
  std::string providerName = "Provider";
  std::string providerVersion = "1.0";
  std::string identity = "root identity";
  std::string rootFileIdentity;
  wire::Policies policies = {policy::kHydrationFull, 0, policy::kPopulationAlwaysFull, 0, 0, 0, 0};
  std::uint32_t flags = 0;
};

struct CreateRow {
  Hresult result = 0;
  std::int64_t usn = 0;
};

struct ItemStateAnswer {
  std::uint32_t attributes = 0;
  std::uint32_t reparseTag = 0;
  std::uint32_t state = 0;
};

struct UpdateOptions {
  std::optional<wire::Metadata> metadata;
  std::string identity;
  std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
  std::uint32_t flags = 0;
  std::int64_t usn = 0;
};

using Ranges = std::vector<std::pair<std::int64_t, std::int64_t>>;  // offset, length

// The requests of the protocol as functions. A connection that breaks throws.
class ApiClient {
 public:
  explicit ApiClient(const std::filesystem::path& endpoint);

  Hresult Register(const std::string& path, const RootOptions& options = {});
  Hresult Unregister(const std::string& path);
  Hresult Disconnect(std::int64_t connection);
  Hresult GetRootInfo(const std::string& path, wire::RootInfo& info);
  Hresult SetProviderStatus(std::int64_t connection, std::uint32_t status);
  Hresult QueryProviderStatus(std::int64_t connection, std::uint32_t& status);

  Hresult Create(const std::string& folder, const std::vector<wire::CreateEntry>& entries,
                 std::uint32_t flags = 0);
  // Of the latest create.
  std::uint32_t processed = 0;
  std::vector<CreateRow> rows;

  Hresult Convert(const std::string& path, const std::string& identity, std::uint32_t flags);
  Hresult Update(const std::string& path, const UpdateOptions& options);
  Hresult Revert(const std::string& path, std::uint32_t flags = 0);
  Hresult Hydrate(const std::string& path, std::int64_t offset = 0, std::int64_t length = -1,
                  std::uint32_t flags = 0);
  Hresult Dehydrate(const std::string& path, std::int64_t offset = 0, std::int64_t length = -1,
                    std::uint32_t flags = 0);
  Hresult SetPin(const std::string& path, PinState pin, std::uint32_t flags = 0);
  Hresult SetInSync(const std::string& path, bool inSync, std::int64_t usn = 0);
  std::int64_t usn = 0;  // of the latest convert, update or SetInSync

  Hresult GetInfo(const std::string& path, wire::PlaceholderInfo& info, std::int64_t fileId = 0);
  Hresult GetRanges(const std::string& path, std::uint32_t rangeClass, std::int64_t offset,
                    std::int64_t length, Ranges& ranges);
  Hresult GetState(const std::string& path, ItemStateAnswer& answer);

  Hresult GetTransferKey(const std::string& path, std::int64_t& key);
  Hresult ReleaseTransferKey(std::int64_t key);
  Hresult Transfer(const wire::Target& target, std::int64_t offset, const std::string& data);
  Hresult FailTransfer(const wire::Target& target, std::int64_t offset, std::int64_t length,
                       std::uint32_t status);
  Hresult Retrieve(const wire::Target& target, std::int64_t offset, std::int64_t length,
                   std::string& data);
  Hresult AckData(const wire::Target& target, std::int64_t offset, std::int64_t length,
                  std::uint32_t status = 0);
  Hresult Restart(const wire::Target& target, const std::optional<wire::Metadata>& metadata,
                  const std::optional<std::string>& identity, std::uint32_t flags = 0);
  Hresult Acknowledge(wire::Op op, const wire::Target& target, std::uint32_t status = 0);
  Hresult ReportProgress(const wire::Target& target, std::int64_t total, std::int64_t completed);
  Hresult GetRangesByKey(const wire::Target& target, std::int64_t fileId, std::uint32_t rangeClass,
                         std::int64_t offset, std::int64_t length, Ranges& ranges);
  std::string Status();

  Hresult Request(wire::Op op, const wire::Writer& payload);
  // Of the latest request.
  [[nodiscard]] const std::string& Answer() const { return answer_; }
  [[nodiscard]] Client& Raw() { return client_; }

 private:
  Hresult ItemRequest(wire::Op op, const std::string& path, std::int64_t offset,
                      std::int64_t length, std::uint32_t flags);
  Hresult UsnRequest(wire::Op op, const wire::Writer& payload);
  Hresult RangesRequest(wire::Op op, const wire::Writer& payload, Ranges& ranges);

  Client client_;
  std::string answer_;
};

}  // namespace cloud_filter::test

#endif  // NIMBRA_TESTS_FILTER_API_CLIENT_H_
