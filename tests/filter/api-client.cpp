#include "api-client.h"

#include <stdexcept>

namespace cloud_filter::test {

using wire::Op;
using wire::Reader;
using wire::Writer;

namespace {

Writer ForItem(const std::string& path) {
  Writer payload;
  wire::Put(payload, wire::ItemRef{path, 0});
  return payload;
}

Writer ForTarget(const wire::Target& target) {
  Writer payload;
  wire::Put(payload, target);
  return payload;
}

void PutOptional(Writer& payload, const std::optional<wire::Metadata>& metadata) {
  payload.Put(static_cast<std::uint8_t>(metadata ? 1 : 0));
  if (metadata) wire::Put(payload, *metadata);
}

}  // namespace

ApiClient::ApiClient(const std::filesystem::path& endpoint) {
  if (!client_.Open(endpoint)) throw std::runtime_error("no daemon at " + endpoint.string());
}

Hresult ApiClient::Request(Op op, const Writer& payload) {
  auto result = hr::kOk;
  if (!client_.Request(op, payload.Bytes(), result, answer_)) {
    throw std::runtime_error("the daemon closed the connection");
  }
  return result;
}

Hresult ApiClient::Register(const std::string& path, const RootOptions& options) {
  Writer payload;
  payload.PutBytes(path).PutBytes(options.providerName).PutBytes(options.providerVersion);
  payload.PutBytes(options.identity).PutBytes(options.rootFileIdentity);
  payload.PutBytes(std::string(16, '\0'));
  wire::Put(payload, options.policies);
  payload.Put(options.flags);
  return Request(Op::kRegisterRoot, payload);
}

Hresult ApiClient::Unregister(const std::string& path) {
  Writer payload;
  payload.PutBytes(path);
  return Request(Op::kUnregisterRoot, payload);
}

Hresult ApiClient::Disconnect(std::int64_t connection) {
  Writer payload;
  payload.Put(connection);
  return Request(Op::kDisconnect, payload);
}

Hresult ApiClient::GetRootInfo(const std::string& path, wire::RootInfo& info) {
  const auto result = Request(Op::kGetRootInfo, ForItem(path));
  Reader in(answer_);
  if (result == hr::kOk) wire::Get(in, info);
  return result;
}

Hresult ApiClient::SetProviderStatus(std::int64_t connection, std::uint32_t status) {
  Writer payload;
  payload.Put(connection).Put(status);
  return Request(Op::kSetProviderStatus, payload);
}

Hresult ApiClient::QueryProviderStatus(std::int64_t connection, std::uint32_t& status) {
  Writer payload;
  payload.Put(connection);
  const auto result = Request(Op::kQueryProviderStatus, payload);
  if (result == hr::kOk) status = Reader(answer_).Get<std::uint32_t>();
  return result;
}

Hresult ApiClient::Create(const std::string& folder, const std::vector<wire::CreateEntry>& entries,
                          std::uint32_t flags) {
  Writer payload;
  payload.PutBytes(folder).Put(flags).Put(static_cast<std::uint32_t>(entries.size()));
  for (const auto& entry : entries) wire::Put(payload, entry);
  const auto result = Request(Op::kCreatePlaceholders, payload);
  Reader in(answer_);
  processed = in.Get<std::uint32_t>();
  rows.assign(entries.size(), {});
  for (auto& row : rows) {
    row.result = in.Get<std::int32_t>();
    row.usn = in.Get<std::int64_t>();
  }
  return result;
}

Hresult ApiClient::UsnRequest(Op op, const Writer& payload) {
  const auto result = Request(op, payload);
  usn = result == hr::kOk ? Reader(answer_).Get<std::int64_t>() : 0;
  return result;
}

Hresult ApiClient::Convert(const std::string& path, const std::string& identity,
                           std::uint32_t flags) {
  return UsnRequest(Op::kConvert, ForItem(path).PutBytes(identity).Put(flags));
}

Hresult ApiClient::Update(const std::string& path, const UpdateOptions& options) {
  auto payload = ForItem(path);
  PutOptional(payload, options.metadata);
  payload.PutBytes(options.identity).Put(static_cast<std::uint32_t>(options.ranges.size()));
  for (const auto& [offset, length] : options.ranges) payload.Put(offset).Put(length);
  payload.Put(options.flags).Put(options.usn);
  return UsnRequest(Op::kUpdate, payload);
}

Hresult ApiClient::Revert(const std::string& path, std::uint32_t flags) {
  return Request(Op::kRevert, ForItem(path).Put(flags));
}

Hresult ApiClient::ItemRequest(Op op, const std::string& path, std::int64_t offset,
                               std::int64_t length, std::uint32_t flags) {
  return Request(op, ForItem(path).Put(offset).Put(length).Put(flags));
}

Hresult ApiClient::Hydrate(const std::string& path, std::int64_t offset, std::int64_t length,
                           std::uint32_t flags) {
  return ItemRequest(Op::kHydrate, path, offset, length, flags);
}

Hresult ApiClient::Dehydrate(const std::string& path, std::int64_t offset, std::int64_t length,
                             std::uint32_t flags) {
  return ItemRequest(Op::kDehydrate, path, offset, length, flags);
}

Hresult ApiClient::SetPin(const std::string& path, PinState pin, std::uint32_t flags) {
  return Request(Op::kSetPinState, ForItem(path).Put(static_cast<std::uint32_t>(pin)).Put(flags));
}

Hresult ApiClient::SetInSync(const std::string& path, bool inSync, std::int64_t expectedUsn) {
  return UsnRequest(
      Op::kSetInSync,
      ForItem(path).Put(std::uint32_t{inSync ? 1U : 0U}).Put(std::uint32_t{0}).Put(expectedUsn));
}

Hresult ApiClient::GetInfo(const std::string& path, wire::PlaceholderInfo& info,
                           std::int64_t fileId) {
  Writer payload;
  wire::Put(payload, wire::ItemRef{path, fileId});
  const auto result = Request(Op::kGetPlaceholderInfo, payload);
  Reader in(answer_);
  if (result == hr::kOk) wire::Get(in, info);
  return result;
}

Hresult ApiClient::RangesRequest(Op op, const Writer& payload, Ranges& ranges) {
  const auto result = Request(op, payload);
  Reader in(answer_);
  ranges.clear();
  if (result != hr::kOk) return result;
  for (auto count = in.Get<std::uint32_t>(); count > 0; --count) {
    const auto offset = in.Get<std::int64_t>();
    ranges.emplace_back(offset, in.Get<std::int64_t>());
  }
  return result;
}

Hresult ApiClient::GetRanges(const std::string& path, std::uint32_t rangeClass, std::int64_t offset,
                             std::int64_t length, Ranges& ranges) {
  return RangesRequest(Op::kGetRangeInfo, ForItem(path).Put(rangeClass).Put(offset).Put(length),
                       ranges);
}

Hresult ApiClient::GetRangesByKey(const wire::Target& target, std::int64_t fileId,
                                  std::uint32_t rangeClass, std::int64_t offset,
                                  std::int64_t length, Ranges& ranges) {
  Writer payload;
  payload.Put(target.connectionKey).Put(target.transferKey).Put(fileId).Put(rangeClass);
  payload.Put(offset).Put(length);
  return RangesRequest(Op::kGetRangeInfoByKey, payload, ranges);
}

Hresult ApiClient::GetState(const std::string& path, ItemStateAnswer& answer) {
  const auto result = Request(Op::kGetItemState, ForItem(path));
  Reader in(answer_);
  answer.attributes = in.Get<std::uint32_t>();
  answer.reparseTag = in.Get<std::uint32_t>();
  answer.state = in.Get<std::uint32_t>();
  return result;
}

Hresult ApiClient::GetTransferKey(const std::string& path, std::int64_t& key) {
  const auto result = Request(Op::kGetTransferKey, ForItem(path));
  key = result == hr::kOk ? Reader(answer_).Get<std::int64_t>() : 0;
  return result;
}

Hresult ApiClient::ReleaseTransferKey(std::int64_t key) {
  Writer payload;
  payload.Put(key);
  return Request(Op::kReleaseTransferKey, payload);
}

Hresult ApiClient::Transfer(const wire::Target& target, std::int64_t offset,
                            const std::string& data) {
  return Request(Op::kTransferData, ForTarget(target)
                                        .Put(std::uint32_t{0})
                                        .Put(offset)
                                        .Put(static_cast<std::int64_t>(data.size()))
                                        .PutBytes(data));
}

Hresult ApiClient::FailTransfer(const wire::Target& target, std::int64_t offset,
                                std::int64_t length, std::uint32_t status) {
  return Request(Op::kTransferData,
                 ForTarget(target).Put(status).Put(offset).Put(length).PutBytes({}));
}

Hresult ApiClient::Retrieve(const wire::Target& target, std::int64_t offset, std::int64_t length,
                            std::string& data) {
  const auto result = Request(Op::kRetrieveData, ForTarget(target).Put(offset).Put(length));
  data = result == hr::kOk ? Reader(answer_).GetString() : std::string();
  return result;
}

Hresult ApiClient::AckData(const wire::Target& target, std::int64_t offset, std::int64_t length,
                           std::uint32_t status) {
  return Request(Op::kAckData, ForTarget(target).Put(status).Put(offset).Put(length));
}

Hresult ApiClient::Restart(const wire::Target& target,
                           const std::optional<wire::Metadata>& metadata,
                           const std::optional<std::string>& identity, std::uint32_t flags) {
  auto payload = ForTarget(target).Put(flags);
  PutOptional(payload, metadata);
  payload.Put(static_cast<std::uint8_t>(identity ? 1 : 0));
  if (identity) payload.PutBytes(*identity);
  return Request(Op::kRestartHydration, payload);
}

Hresult ApiClient::Acknowledge(Op op, const wire::Target& target, std::uint32_t status) {
  auto payload = ForTarget(target).Put(status);
  if (op == Op::kAckDehydrate) payload.Put(std::uint8_t{0});
  return Request(op, payload);
}

Hresult ApiClient::ReportProgress(const wire::Target& target, std::int64_t total,
                                  std::int64_t completed) {
  return Request(Op::kReportProgress, ForTarget(target).Put(total).Put(completed));
}

std::string ApiClient::Status() {
  Request(Op::kStatus, {});
  return Reader(answer_).GetString();
}

}  // namespace cloud_filter::test
