#include "api-dispatcher.h"

#include <cstdio>
#include <exception>
#include <new>

#include "status-report.h"

namespace cloud_filter {
namespace {

using wire::Op;
using wire::Reader;
using wire::Writer;

constexpr std::uint32_t kMaxRanges = 65'536;

template <class T>
T Part(Reader& in) {
  T value;
  wire::Get(in, value);
  return value;
}

// A request that does not say what it should is refused before anything is done.
Reply Malformed() { return {hr::kInvalidParameter, {}}; }

// Calls `act` when the payload was well formed; packs what `pack` writes when that succeeds.
template <class Act, class Pack>
Reply Perform(const Reader& in, Act act, Pack pack) {
  if (!in.AtEnd()) return Malformed();
  Reply reply{act(), {}};
  if (reply.result != hr::kOk) return reply;
  Writer out;
  pack(out);
  reply.payload = out.Take();
  return reply;
}

template <class Act>
Reply Perform(const Reader& in, Act act) {
  return Perform(in, act, [](Writer&) {});
}

void PutRanges(Writer& out, const std::vector<Range>& ranges) {
  out.Put(static_cast<std::uint32_t>(ranges.size()));
  for (const auto& range : ranges) out.Put(range.begin).Put(range.Length());
}

std::optional<wire::Metadata> OptionalMetadata(Reader& in) {
  if (in.Get<std::uint8_t>() == 0) return std::nullopt;
  return Part<wire::Metadata>(in);
}

std::optional<std::string> OptionalBytes(Reader& in) {
  if (in.Get<std::uint8_t>() == 0) return std::nullopt;
  return in.GetString();
}

}  // namespace

Reply ApiDispatcher::Answer(Op op, std::string_view payload, const CallerGone& gone) {
  try {
    Reader in(payload);
    return Dispatch(op, in, gone);
  } catch (const StoreError& error) {
    std::fprintf(stderr, "cloud-filterd: a request failed: %s\n", error.what());
    return {hr::kMetadataCorrupt, {}};
  } catch (const std::exception& error) {
    std::fprintf(stderr, "cloud-filterd: a request failed: %s\n", error.what());
    return {hr::kGeneralFailure, {}};
  }
}

Reply ApiDispatcher::Connect(std::string_view payload, const std::shared_ptr<CallbackSink>& sink,
                             std::int64_t& connectionKey) {
  Reader in(payload);
  const auto path = in.GetString();
  const auto mask = in.Get<std::uint32_t>();
  const auto flags = in.Get<std::uint32_t>();
  const auto provider = Part<wire::ProviderProcess>(in);
  Connected connected;
  return Perform(
      in, [&] { return roots_.Connect(path, mask, flags, provider, sink, connected); },
      [&](Writer& out) {
        connectionKey = connected.key;
        out.Put(connected.key).PutBytes(connected.rootPath).PutBytes(connected.rootIdentity);
        out.Put(connected.rootFileId);
      });
}

Reply ApiDispatcher::Dispatch(Op op, Reader& in, const CallerGone& gone) {
  switch (op) {
    case Op::kRegisterRoot:
    case Op::kUnregisterRoot:
    case Op::kDisconnect:
    case Op::kGetRootInfo:
    case Op::kSetProviderStatus:
    case Op::kQueryProviderStatus:
    case Op::kReportSyncStatus:
      return DispatchRoot(op, in);
    case Op::kGetTransferKey:
    case Op::kReleaseTransferKey:
    case Op::kTransferData:
    case Op::kRetrieveData:
    case Op::kAckData:
    case Op::kRestartHydration:
    case Op::kAckDehydrate:
    case Op::kAckDelete:
    case Op::kAckRename:
    case Op::kReportProgress:
      return DispatchExecute(op, in);
    case Op::kCreatePlaceholders:
    case Op::kConvert:
    case Op::kUpdate:
    case Op::kRevert:
    case Op::kHydrate:
    case Op::kDehydrate:
    case Op::kSetPinState:
    case Op::kSetInSync:
      return DispatchPlaceholder(op, in, gone);
    case Op::kGetPlaceholderInfo:
    case Op::kGetRangeInfo:
    case Op::kGetRangeInfoByKey:
    case Op::kGetItemState:
    case Op::kStatus:
      return DispatchQuery(op, in);
    default:
      return {hr::kNotSupported, {}};
  }
}

Reply ApiDispatcher::DispatchRoot(Op op, Reader& in) {
  switch (op) {
    case Op::kRegisterRoot: {
      Registration registration;
      registration.path = in.GetString();
      registration.providerName = in.GetString();
      registration.providerVersion = in.GetString();
      registration.identity = in.GetString();
      registration.rootFileIdentity = in.GetString();
      registration.providerId = in.GetString();
      registration.policies = Part<wire::Policies>(in);
      registration.flags = in.Get<std::uint32_t>();
      return Perform(in, [&] { return roots_.Register(registration); });
    }
    case Op::kUnregisterRoot: {
      const auto path = in.GetString();
      return Perform(in, [&] { return roots_.Unregister(path); });
    }
    case Op::kDisconnect: {
      const auto key = in.Get<std::int64_t>();
      return Perform(in, [&] { return roots_.Disconnect(key); });
    }
    case Op::kGetRootInfo: {
      const auto ref = Part<wire::ItemRef>(in);
      wire::RootInfo info;
      return Perform(
          in, [&] { return roots_.GetRootInfo(ref, info); },
          [&](Writer& out) { wire::Put(out, info); });
    }
    case Op::kSetProviderStatus: {
      const auto key = in.Get<std::int64_t>();
      const auto status = in.Get<std::uint32_t>();
      return Perform(in, [&] { return roots_.SetProviderStatus(key, status); });
    }
    case Op::kQueryProviderStatus: {
      const auto key = in.Get<std::int64_t>();
      std::uint32_t status = 0;
      return Perform(
          in, [&] { return roots_.QueryProviderStatus(key, status); },
          [&](Writer& out) { out.Put(status); });
    }
    default: {  // kReportSyncStatus
      const auto path = in.GetString();
      const auto present = in.Get<std::uint8_t>() != 0;
      const auto code = present ? in.Get<std::uint32_t>() : 0;
      const auto description = present ? in.GetString() : std::string();
      if (present) static_cast<void>(in.GetString());  // the device's id
      return Perform(in, [&] {
        return roots_.ReportSyncStatus(path, present ? &code : nullptr, description);
      });
    }
  }
}

Reply ApiDispatcher::DispatchExecute(Op op, Reader& in) {
  if (op == Op::kGetTransferKey) {
    const auto ref = Part<wire::ItemRef>(in);
    std::int64_t key = 0;
    return Perform(
        in, [&] { return execute_.GetTransferKey(ref, key); }, [&](Writer& out) { out.Put(key); });
  }
  if (op == Op::kReleaseTransferKey) {
    const auto key = in.Get<std::int64_t>();
    return Perform(in, [&] { return execute_.ReleaseTransferKey(key); });
  }
  if (op == Op::kRestartHydration) return Restart(in);
  const auto target = Part<wire::Target>(in);
  switch (op) {
    case Op::kTransferData: {
      const auto status = in.Get<std::uint32_t>();
      const auto offset = in.Get<std::int64_t>();
      const auto length = in.Get<std::int64_t>();
      const auto data = in.GetBytes();
      return Perform(in,
                     [&] { return execute_.TransferData(target, status, offset, length, data); });
    }
    case Op::kRetrieveData: {
      const auto offset = in.Get<std::int64_t>();
      const auto length = in.Get<std::int64_t>();
      std::string data;
      return Perform(
          in, [&] { return execute_.RetrieveData(target, offset, length, data); },
          [&](Writer& out) { out.PutBytes(data); });
    }
    case Op::kAckData: {
      const auto status = in.Get<std::uint32_t>();
      const auto offset = in.Get<std::int64_t>();
      const auto length = in.Get<std::int64_t>();
      return Perform(in, [&] { return execute_.AckData(target, status, offset, length); });
    }
    case Op::kReportProgress: {
      const auto total = in.Get<std::int64_t>();
      const auto completed = in.Get<std::int64_t>();
      return Perform(in, [&] { return execute_.ReportProgress(target, total, completed); });
    }
    default: {
      const auto status = in.Get<std::uint32_t>();
      auto identity = op == Op::kAckDehydrate ? OptionalBytes(in) : std::nullopt;
      const auto type = op == Op::kAckDehydrate ? callback::kDehydrate
                        : op == Op::kAckDelete  ? callback::kDelete
                                                : callback::kRename;
      return Perform(in, [&] { return execute_.Acknowledge(type, target, status, identity); });
    }
  }
}

Reply ApiDispatcher::Restart(Reader& in) {
  const auto target = Part<wire::Target>(in);
  const auto flags = in.Get<std::uint32_t>();
  const auto metadata = OptionalMetadata(in);
  const auto identity = OptionalBytes(in);
  return Perform(in, [&] { return execute_.RestartHydration(target, flags, metadata, identity); });
}

Reply ApiDispatcher::CreatePlaceholders(Reader& in) {
  const auto folder = in.GetString();
  const auto flags = in.Get<std::uint32_t>();
  const auto count = in.Get<std::uint32_t>();
  std::vector<wire::CreateEntry> entries;
  for (std::uint32_t i = 0; i < count && in.Good(); ++i) {
    entries.push_back(Part<wire::CreateEntry>(in));
  }
  if (!in.AtEnd()) return Malformed();
  std::uint32_t processed = 0;
  std::vector<CreateResult> results;
  Reply reply;
  reply.result = placeholders_.Create(folder, flags, entries, processed, results);
  Writer out;
  out.Put(processed);
  for (const auto& row : results) out.Put(row.result).Put(row.usn);
  reply.payload = out.Take();
  return reply;
}

Reply ApiDispatcher::Update(Reader& in) {
  const auto ref = Part<wire::ItemRef>(in);
  cloud_filter::Update update;
  update.metadata = OptionalMetadata(in);
  update.identity = in.GetString();
  const auto count = in.Get<std::uint32_t>();
  if (count > kMaxRanges) return Malformed();
  for (std::uint32_t i = 0; i < count && in.Good(); ++i) {
    const auto start = in.Get<std::int64_t>();
    update.dehydrate.push_back({start, in.Get<std::int64_t>()});
  }
  update.flags = in.Get<std::uint32_t>();
  update.usn = in.Get<std::int64_t>();
  std::int64_t usn = 0;
  return Perform(
      in, [&] { return placeholders_.UpdateItem(ref, update, usn); },
      [&](Writer& out) { out.Put(usn); });
}

Reply ApiDispatcher::DispatchPlaceholder(Op op, Reader& in, const CallerGone& gone) {
  if (op == Op::kCreatePlaceholders) return CreatePlaceholders(in);
  if (op == Op::kUpdate) return Update(in);
  const auto ref = Part<wire::ItemRef>(in);
  std::int64_t usn = 0;
  const auto putUsn = [&](Writer& out) { out.Put(usn); };
  switch (op) {
    case Op::kConvert: {
      const auto identity = in.GetString();
      const auto flags = in.Get<std::uint32_t>();
      return Perform(
          in, [&] { return placeholders_.Convert(ref, identity, flags, usn, gone); }, putUsn);
    }
    case Op::kRevert: {
      const auto flags = in.Get<std::uint32_t>();
      return Perform(in, [&] { return placeholders_.Revert(ref, flags, gone); });
    }
    case Op::kHydrate:
    case Op::kDehydrate: {
      const auto offset = in.Get<std::int64_t>();
      const auto length = in.Get<std::int64_t>();
      const auto flags = in.Get<std::uint32_t>();
      return Perform(in, [&] {
        return op == Op::kHydrate ? placeholders_.Hydrate(ref, offset, length, flags, gone)
                                  : placeholders_.Dehydrate(ref, offset, length, flags, gone);
      });
    }
    case Op::kSetPinState: {
      const auto pin = in.Get<std::uint32_t>();
      const auto flags = in.Get<std::uint32_t>();
      return Perform(in, [&] { return placeholders_.SetPinState(ref, pin, flags); });
    }
    default: {  // kSetInSync
      const auto inSync = in.Get<std::uint32_t>();
      const auto flags = in.Get<std::uint32_t>();
      usn = in.Get<std::int64_t>();
      return Perform(
          in, [&] { return placeholders_.SetInSync(ref, inSync, flags, usn); }, putUsn);
    }
  }
}

Reply ApiDispatcher::DispatchQuery(Op op, Reader& in) {
  if (op == Op::kStatus) {
    std::string report;
    return Perform(
        in,
        [&] {
          report = StatusReport(core_);
          return hr::kOk;
        },
        [&](Writer& out) { out.PutBytes(report); });
  }
  std::vector<Range> ranges;
  const auto putRanges = [&](Writer& out) { PutRanges(out, ranges); };
  if (op == Op::kGetRangeInfoByKey) {
    const auto connection = in.Get<std::int64_t>();
    const auto key = in.Get<std::int64_t>();
    const auto fileId = in.Get<std::int64_t>();
    const auto rangeClass = in.Get<std::uint32_t>();
    const auto offset = in.Get<std::int64_t>();
    const auto length = in.Get<std::int64_t>();
    return Perform(
        in,
        [&] {
          return execute_.GetRangesByKey(connection, key, fileId, rangeClass, offset, length,
                                         ranges);
        },
        putRanges);
  }
  const auto ref = Part<wire::ItemRef>(in);
  if (op == Op::kGetRangeInfo) {
    const auto rangeClass = in.Get<std::uint32_t>();
    const auto offset = in.Get<std::int64_t>();
    const auto length = in.Get<std::int64_t>();
    return Perform(
        in, [&] { return placeholders_.GetRanges(ref, rangeClass, offset, length, ranges); },
        putRanges);
  }
  if (op == Op::kGetItemState) {
    ItemState itemState;
    return Perform(
        in, [&] { return placeholders_.GetState(ref, itemState); },
        [&](Writer& out) {
          out.Put(itemState.attributes).Put(itemState.reparseTag).Put(itemState.state);
        });
  }
  wire::PlaceholderInfo info;
  return Perform(
      in, [&] { return placeholders_.GetInfo(ref, info); },
      [&](Writer& out) { wire::Put(out, info); });
}

}  // namespace cloud_filter
