#ifndef NIMBRA_SIMULATOR_CLDAPI_SOCKET_H_
#define NIMBRA_SIMULATOR_CLDAPI_SOCKET_H_

#include <winsock2.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

namespace cldapi {

// A blocking connection to this machine. WinSock is started with the first one.
class Socket {
 public:
  Socket() = default;
  Socket(Socket&& other) noexcept : socket_(std::exchange(other.socket_, INVALID_SOCKET)) {}
  Socket& operator=(Socket&& other) noexcept;
  ~Socket() { Close(); }

  [[nodiscard]] bool Connect(std::uint16_t port);
  // Sends the parts one after the other, without joining them first.
  [[nodiscard]] bool Send(std::span<const std::string_view> parts);
  [[nodiscard]] bool Receive(void* into, std::size_t length);
  // Whether there is something to read, the end of the connection included.
  [[nodiscard]] bool IsReadable() const;
  // Ends what other threads wait for here.
  void Shutdown() noexcept;

 private:
  void Close() noexcept;

  SOCKET socket_ = INVALID_SOCKET;
};

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_SOCKET_H_
