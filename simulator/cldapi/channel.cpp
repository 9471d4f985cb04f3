#include "channel.h"

#include <array>
#include <utility>

#include "endpoint.h"

namespace cldapi {

namespace wire = cloud_filter::wire;

std::optional<Channel> Channel::Open() {
  const auto endpoint = ReadEndpoint();
  if (!endpoint) return std::nullopt;
  Channel channel;
  if (!channel.socket_.Connect(endpoint->port)) {
    ReportUnreachable(L"nobody listens at the port in its endpoint file");
    return std::nullopt;
  }
  if (!channel.Greet(endpoint->token)) {
    ReportUnreachable(L"it did not accept this process");
    return std::nullopt;
  }
  return channel;
}

bool Channel::Greet(const std::string& token) {
  wire::Writer hello;
  hello.Put(wire::kProtocolVersion).PutBytes(token);
  const auto answer = Call(wire::Op::kHello, hello.Bytes());
  if (!answer || answer->header.result < 0) return false;
  wire::Reader reader(answer->payload);
  platform_.build = reader.Get<std::uint32_t>();
  platform_.revision = reader.Get<std::uint32_t>();
  platform_.integration = reader.Get<std::uint32_t>();
  return reader.Good();
}

std::optional<Frame> Channel::Call(wire::Op op, std::string_view fields, std::string_view tail) {
  if (!SendFrame(op, fields, tail)) return std::nullopt;
  auto answer = ReceiveFrame();
  const bool matches = answer && answer->header.op == static_cast<std::uint16_t>(op) &&
                       answer->header.sequence == sequence_;
  return matches ? std::move(answer) : std::nullopt;
}

bool Channel::SendFrame(wire::Op op, std::string_view fields, std::string_view tail) {
  if (fields.size() + tail.size() > wire::kMaxPayload) return false;
  wire::FrameHeader header{};
  header.payloadLength = static_cast<std::uint32_t>(fields.size() + tail.size());
  header.op = static_cast<std::uint16_t>(op);
  header.sequence = ++sequence_;
  const std::string_view head(reinterpret_cast<const char*>(&header), sizeof header);
  return socket_.Send(std::array{head, fields, tail});
}

std::optional<Frame> Channel::ReceiveFrame() {
  Frame frame;
  if (!socket_.Receive(&frame.header, sizeof frame.header)) return std::nullopt;
  if (frame.header.payloadLength > wire::kMaxPayload) return std::nullopt;
  frame.payload.resize(frame.header.payloadLength);
  if (!socket_.Receive(frame.payload.data(), frame.payload.size())) return std::nullopt;
  return frame;
}

}  // namespace cldapi
