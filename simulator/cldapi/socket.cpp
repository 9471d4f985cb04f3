#include "socket.h"

#include <algorithm>
#include <climits>
#include <vector>

namespace cldapi {
namespace {

bool StartWinsock() {
  static const bool started = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return started;
}

std::vector<WSABUF> BuffersOf(std::span<const std::string_view> parts) {
  std::vector<WSABUF> buffers;
  for (const auto part : parts) {
    // WinSock does not write to what it sends.
    if (!part.empty()) {
      buffers.push_back({static_cast<ULONG>(part.size()), const_cast<CHAR*>(part.data())});
    }
  }
  return buffers;
}

// Takes away what has been sent.
void Advance(std::span<WSABUF>& buffers, DWORD sent) {
  while (!buffers.empty() && sent >= buffers.front().len) {
    sent -= buffers.front().len;
    buffers = buffers.subspan(1);
  }
  if (sent > 0) {
    buffers.front().buf += sent;
    buffers.front().len -= sent;
  }
}

}  // namespace

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    Close();
    socket_ = std::exchange(other.socket_, INVALID_SOCKET);
  }
  return *this;
}

bool Socket::Connect(std::uint16_t port) {
  Close();
  if (!StartWinsock()) return false;
  socket_ = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (socket_ == INVALID_SOCKET) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    Close();
    return false;
  }
  const BOOL noDelay = TRUE;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay),
             sizeof noDelay);
  return true;
}

bool Socket::Send(std::span<const std::string_view> parts) {
  std::vector<WSABUF> all = BuffersOf(parts);
  std::span<WSABUF> rest(all);
  while (!rest.empty()) {
    DWORD sent = 0;
    if (WSASend(socket_, rest.data(), static_cast<DWORD>(rest.size()), &sent, 0, nullptr,
                nullptr) != 0) {
      return false;
    }
    Advance(rest, sent);
  }
  return true;
}

bool Socket::Receive(void* into, std::size_t length) {
  auto* at = static_cast<char*>(into);
  while (length > 0) {
    const int wanted = static_cast<int>(std::min<std::size_t>(length, INT_MAX));
    const int got = recv(socket_, at, wanted, 0);
    if (got <= 0) return false;
    at += got;
    length -= static_cast<std::size_t>(got);
  }
  return true;
}

bool Socket::IsReadable() const {
  fd_set readable;
  FD_ZERO(&readable);
  readable.fd_array[readable.fd_count++] = socket_;
  timeval atOnce{};
  return select(0, &readable, nullptr, nullptr, &atOnce) != 0;
}

void Socket::Shutdown() noexcept {
  if (socket_ != INVALID_SOCKET) shutdown(socket_, SD_BOTH);
}

void Socket::Close() noexcept {
  if (socket_ != INVALID_SOCKET) closesocket(std::exchange(socket_, INVALID_SOCKET));
}

}  // namespace cldapi
