#ifndef NIMBRA_SIMULATOR_FILTER_CLIENT_H_
#define NIMBRA_SIMULATOR_FILTER_CLIENT_H_

#include <filesystem>
#include <string>
#include <string_view>

#include "codes.h"
#include "protocol/wire.h"
#include "unique-fd.h"

namespace cloud_filter {

// A connection to a running daemon.
class Client {
 public:
  // False when no daemon answers at the endpoint.
  bool Open(const std::filesystem::path& endpoint);
  // False when the connection broke.
  bool Request(wire::Op op, std::string_view payload, Hresult& result, std::string& answer);
  // Sends without waiting for an answer.
  bool Send(wire::Op op, std::string_view payload);
  bool Receive(wire::FrameHeader& header, std::string& payload);
  void Close() { socket_.Reset(); }
  [[nodiscard]] int Socket() const { return socket_.Get(); }

 private:
  UniqueFd socket_;
  std::uint32_t sequence_ = 0;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_CLIENT_H_
