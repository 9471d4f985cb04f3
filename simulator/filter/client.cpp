#include "client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <fstream>

#include "frames.h"

namespace cloud_filter {

bool Client::Open(const std::filesystem::path& endpoint) {
  std::ifstream file(endpoint);
  std::uint16_t port = 0;
  std::string token;
  if (!(file >> port >> token)) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  socket_.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return false;
  }
  const int on = 1;
  setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  wire::Writer hello;
  hello.Put(wire::kProtocolVersion).PutBytes(token);
  auto result = hr::kOk;
  std::string answer;
  return Request(wire::Op::kHello, hello.Bytes(), result, answer) && result == hr::kOk;
}

bool Client::Send(wire::Op op, std::string_view payload) {
  return SendFrame(socket_.Get(), {0, static_cast<std::uint16_t>(op), 0, 0, ++sequence_}, payload);
}

bool Client::Receive(wire::FrameHeader& header, std::string& payload) {
  if (!ReceiveAll(socket_.Get(), &header, sizeof header)) return false;
  if (header.payloadLength > wire::kMaxPayload) return false;
  payload.resize(header.payloadLength);
  return ReceiveAll(socket_.Get(), payload.data(), payload.size());
}

bool Client::Request(wire::Op op, std::string_view payload, Hresult& result, std::string& answer) {
  wire::FrameHeader header{};
  if (!Send(op, payload) || !Receive(header, answer)) return false;
  result = header.result;
  return header.sequence == sequence_ && header.op == static_cast<std::uint16_t>(op);
}

}  // namespace cloud_filter
