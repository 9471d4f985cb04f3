#ifndef NIMBRA_SIMULATOR_CLDAPI_CHANNEL_H_
#define NIMBRA_SIMULATOR_CLDAPI_CHANNEL_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "protocol/wire.h"
#include "socket.h"

namespace cldapi {

struct Platform {
  std::uint32_t build = 0;
  std::uint32_t revision = 0;
  std::uint32_t integration = 0;
};

struct Frame {
  cloud_filter::wire::FrameHeader header{};
  std::string payload;
};

// A connection on which the daemon has accepted this process. For one caller at a time.
class Channel {
 public:
  // Nothing, and a line in the debug log, when the daemon cannot be reached or refuses.
  [[nodiscard]] static std::optional<Channel> Open();

  // Sends a request whose payload is `fields` and then `tail`, and waits for the answer, whose
  // HRESULT is in its header. Nothing when the connection broke.
  [[nodiscard]] std::optional<Frame> Call(cloud_filter::wire::Op op, std::string_view fields,
                                          std::string_view tail = {});
  [[nodiscard]] bool SendFrame(cloud_filter::wire::Op op, std::string_view fields,
                               std::string_view tail = {});
  [[nodiscard]] std::optional<Frame> ReceiveFrame();

  // False when the daemon has gone or says what nobody asked for.
  [[nodiscard]] bool IsQuiet() const { return !socket_.IsReadable(); }
  [[nodiscard]] const Platform& ServedPlatform() const noexcept { return platform_; }
  void Shutdown() noexcept { socket_.Shutdown(); }

 private:
  [[nodiscard]] bool Greet(const std::string& token);

  Socket socket_;
  Platform platform_;
  std::uint32_t sequence_ = 0;
};

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_CHANNEL_H_
