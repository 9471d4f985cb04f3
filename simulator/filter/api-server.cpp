#include "api-server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <stdexcept>
#include <vector>

#include "frames.h"

namespace cloud_filter {
namespace {

constexpr int kHelloSeconds = 5;
constexpr std::uint32_t kMaxHello = 4096;
constexpr std::size_t kMaxSessions = 4096;
constexpr std::chrono::seconds kCloseGrace{2};
// What CfGetPlatformInfo shall say: a current system with all that this filter offers.
constexpr std::uint32_t kBuild = 19045;
constexpr std::uint32_t kRevision = 1;
constexpr std::uint32_t kIntegration = 0x600;

// Takes the same time however much of the token is right.
bool SameToken(std::string_view given, std::string_view token) {
  unsigned difference = given.size() == token.size() ? 0 : 1;
  for (std::size_t i = 0; i < token.size(); ++i) {
    const auto letter = i < given.size() ? given[i] : '\0';
    difference |= static_cast<unsigned char>(letter ^ token[i]);
  }
  return difference == 0;
}

// Sends the callbacks of a connection from a thread of its own, so that a slow client holds up
// nobody.
class Channel : public CallbackSink {
 public:
  explicit Channel(int socket) : socket_(socket) {}
  ~Channel() override { Channel::Close(); }

  void Start() {
    const std::lock_guard lock(mutex_);
    if (!closed_) writer_ = std::thread([this] { Write(); });
  }

  void Send(const wire::CallbackEvent& event) override {
    wire::Writer payload;
    wire::Put(payload, event);
    const std::lock_guard lock(mutex_);
    if (closed_) return;
    queue_.push_back(payload.Take());
    changed_.notify_all();
  }

  void Close() override {
    std::unique_lock lock(mutex_);
    closed_ = true;
    queue_.clear();
    changed_.notify_all();
    // A frame on its way is finished, unless the client does not take it.
    if (!changed_.wait_for(lock, kCloseGrace, [this] { return !writing_; })) {
      shutdown(socket_, SHUT_RDWR);
    }
    auto writer = std::move(writer_);
    lock.unlock();
    if (writer.joinable()) writer.join();
  }

 private:
  void Write() {
    std::unique_lock lock(mutex_);
    std::uint32_t sequence = 0;
    while (true) {
      changed_.wait(lock, [this] { return closed_ || !queue_.empty(); });
      if (closed_) return;
      const auto payload = std::move(queue_.front());
      queue_.pop_front();
      writing_ = true;
      lock.unlock();
      SendFrame(socket_, {0, static_cast<std::uint16_t>(wire::Op::kCallback), 0, 0, ++sequence},
                payload);
      lock.lock();
      writing_ = false;
      changed_.notify_all();
    }
  }

  const int socket_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> queue_;
  bool closed_ = false;
  bool writing_ = false;
  std::thread writer_;
};

}  // namespace

std::string MakeToken() {
  unsigned char bytes[32];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    throw std::runtime_error("the system gives no random numbers");
  }
  std::string token;
  for (const auto byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    token += digits;
  }
  return token;
}

class ApiServer::Session {
 public:
  Session(UniqueFd socket, ApiServer& server)
      : socket_(std::move(socket)), server_(server), thread_([this] { Run(); }) {}
  ~Session() {
    shutdown(socket_.Get(), SHUT_RDWR);
    thread_.join();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  [[nodiscard]] bool Ended() const { return ended_; }

 private:
  void Run() {
    if (Greet()) Serve();
    // The other side is to notice even before this object goes.
    shutdown(socket_.Get(), SHUT_RDWR);
    ended_ = true;
  }

  // Reads a frame whose payload is no longer than `limit`.
  bool Receive(std::uint32_t limit) {
    if (!ReceiveAll(socket_.Get(), &header_, sizeof header_)) return false;
    if (header_.payloadLength > limit || header_.unused != 0) return false;
    if (buffer_.size() < header_.payloadLength) buffer_.resize(header_.payloadLength);
    return ReceiveAll(socket_.Get(), buffer_.data(), header_.payloadLength);
  }

  [[nodiscard]] std::string_view Payload() const { return {buffer_.data(), header_.payloadLength}; }

  bool Respond(Hresult result, std::string_view payload) {
    auto answer = header_;
    answer.result = result;
    return SendFrame(socket_.Get(), answer, payload);
  }

  // A stranger learns nothing, not even that it was wrong.
  bool Greet() {
    const timeval limit{kHelloSeconds, 0};
    setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (!Receive(kMaxHello) || header_.op != static_cast<std::uint16_t>(wire::Op::kHello)) {
      return false;
    }
    wire::Reader in(Payload());
    const auto version = in.Get<std::uint32_t>();
    const auto token = in.GetBytes();
    if (!in.AtEnd() || version != wire::kProtocolVersion || !SameToken(token, server_.token_)) {
      return false;
    }
    const timeval forever{0, 0};
    setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &forever, sizeof forever);
    wire::Writer out;
    out.Put(kBuild).Put(kRevision).Put(kIntegration);
    return Respond(hr::kOk, out.Bytes());
  }

  void Serve() {
    while (Receive(wire::kMaxPayload)) {
      const auto op = static_cast<wire::Op>(header_.op);
      if (op == wire::Op::kConnect) {
        if (!ServeConnect()) return;
        continue;
      }
      const auto gone = [this] {
        char byte = 0;
        return recv(socket_.Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
      };
      const auto reply = server_.dispatcher_.Answer(op, Payload(), gone);
      if (!Respond(reply.result, reply.payload)) return;
    }
  }

  // True when the connection was refused and stays an ordinary one.
  bool ServeConnect() {
    auto channel = std::make_shared<Channel>(socket_.Get());
    std::int64_t key = 0;
    const auto reply = server_.dispatcher_.Connect(Payload(), channel, key);
    if (reply.result != hr::kOk) return Respond(reply.result, reply.payload);
    // Callbacks wait in the channel until the answer is out.
    auto& roots = server_.dispatcher_.Roots();
    if (Respond(reply.result, reply.payload)) {
      channel->Start();
      while (Receive(kMaxHello) && header_.op == static_cast<std::uint16_t>(wire::Op::kAlive)) {
        roots.ProviderHeard(key);
      }
    }
    roots.ProviderDied(key);
    channel->Close();
    return false;
  }

  UniqueFd socket_;
  ApiServer& server_;
  wire::FrameHeader header_{};
  std::vector<char> buffer_;
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

ApiServer::ApiServer(ApiDispatcher& dispatcher, std::string token)
    : dispatcher_(dispatcher), token_(std::move(token)), stop_(eventfd(0, EFD_CLOEXEC)) {}

ApiServer::~ApiServer() { Stop(); }

int ApiServer::Start() {
  listener_.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (!listener_ || bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listener_.Get(), SOMAXCONN) != 0 ||
      getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return errno;
  }
  port_ = ntohs(address.sin_port);
  accepting_ = std::thread([this] { Accept(); });
  return 0;
}

void ApiServer::Accept() {
  pollfd waits[] = {{listener_.Get(), POLLIN, 0}, {stop_.Get(), POLLIN, 0}};
  while (true) {
    if (poll(waits, 2, -1) < 0 && errno != EINTR) return;
    if ((waits[1].revents & POLLIN) != 0) return;
    UniqueFd socket(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    Sweep();
    if (!socket || sessions_.size() >= kMaxSessions) continue;
    const int on = 1;
    setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    try {
      sessions_.push_back(std::make_unique<Session>(std::move(socket), *this));
    } catch (const std::exception& error) {
      // The socket is closed by now; those who are served already go on.
      std::fprintf(stderr, "cloud-filterd: a client was turned away: %s\n", error.what());
    }
  }
}

void ApiServer::Sweep() {
  std::erase_if(sessions_, [](const auto& session) { return session->Ended(); });
}

void ApiServer::Stop() {
  eventfd_write(stop_.Get(), 1);
  if (accepting_.joinable()) accepting_.join();
  sessions_.clear();
}

}  // namespace cloud_filter
