#ifndef NIMBRA_SIMULATOR_FILTER_FRAMES_H_
#define NIMBRA_SIMULATOR_FILTER_FRAMES_H_

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "protocol/wire.h"

namespace cloud_filter {

inline bool SendAll(int socket, const void* bytes, std::size_t size) {
  const auto* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const auto sent = send(socket, at, size, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    at += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

inline bool ReceiveAll(int socket, void* bytes, std::size_t size) {
  auto* at = static_cast<char*>(bytes);
  while (size > 0) {
    const auto got = recv(socket, at, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    at += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

inline bool SendFrame(int socket, wire::FrameHeader header, std::string_view payload) {
  header.payloadLength = static_cast<std::uint32_t>(payload.size());
  // In two parts, a short one would wake its receiver twice.
  constexpr std::size_t kShort = 4096;
  if (payload.size() <= kShort) {
    std::array<char, sizeof header + kShort> frame;
    std::memcpy(frame.data(), &header, sizeof header);
    payload.copy(frame.data() + sizeof header, payload.size());
    return SendAll(socket, frame.data(), sizeof header + payload.size());
  }
  return SendAll(socket, &header, sizeof header) && SendAll(socket, payload.data(), payload.size());
}

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_FRAMES_H_
