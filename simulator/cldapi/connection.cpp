#include "connection.h"

#include <windows.h>

#include <chrono>
#include <unordered_map>
#include <utility>

#include "protocol/wire.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

// The filter takes a provider that is silent for seconds to be frozen.
constexpr std::chrono::seconds kPulse{1};

struct Connections {
  std::mutex mutex;
  std::unordered_map<LONGLONG, std::shared_ptr<Connection>> byKey;
};

Connections& All() {
  static auto& connections = *new Connections;  // outlives everything: see module.h
  return connections;
}

}  // namespace

Connection::Connection(ConnectedRoot root, const CallbackTable& callbacks, Channel channel)
    : root_(std::move(root)), callbacks_(callbacks), channel_(std::move(channel)) {}

void Connection::Start() {
  receiver_ = std::thread([self = shared_from_this()] { self->Receive(); });
  pulse_ = std::thread([self = shared_from_this()] { self->KeepAlive(); });
}

void Connection::Stop() {
  End();
  channel_.Shutdown();
  for (auto* thread : {&receiver_, &pulse_}) {
    if (thread->joinable()) thread->join();
  }
  pool_.Stop();
}

void Connection::Receive() {
  while (const auto frame = channel_.ReceiveFrame()) Dispatch(*frame);
  const std::scoped_lock lock(mutex_);
  if (!ended_) {
    OutputDebugStringW(
        L"cldapi: the cloud filter has gone; a connected sync root gets no more callbacks\r\n");
  }
  ended_ = true;
  changed_.notify_all();
}

void Connection::Dispatch(const Frame& frame) {
  if (frame.header.op != static_cast<std::uint16_t>(wire::Op::kCallback)) return;
  wire::Reader reader(frame.payload);
  wire::CallbackEvent event;
  Get(reader, event);
  if (!reader.Good() || event.type >= callbacks_.size() || callbacks_[event.type] == nullptr)
    return;
  // The task holds the connection, which its callback may disconnect.
  pool_.Post([self = shared_from_this(), event = std::move(event)] { self->Run(event); });
}

void Connection::Run(const wire::CallbackEvent& event) const {
  const CallbackRecord record(root_, event);
  callbacks_[event.type](record.Info(), record.Parameters());
}

// Does nothing else, so that it falls silent only when the whole process stands still.
void Connection::KeepAlive() {
  std::unique_lock lock(mutex_);
  while (!changed_.wait_for(lock, kPulse, [this] { return ended_; })) {
    lock.unlock();
    const bool sent = channel_.SendFrame(wire::Op::kAlive, {});
    lock.lock();
    if (!sent) return;
  }
}

void Connection::End() {
  const std::scoped_lock lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

void AddConnection(CF_CONNECTION_KEY key, std::shared_ptr<Connection> connection) {
  {
    const std::scoped_lock lock(All().mutex);
    std::swap(All().byKey[key.Internal], connection);
  }
  // A daemon that was started again gives its numbers again.
  if (connection) connection->Stop();
}

bool IsConnected(CF_CONNECTION_KEY key) {
  const std::scoped_lock lock(All().mutex);
  return All().byKey.contains(key.Internal);
}

std::shared_ptr<Connection> RemoveConnection(CF_CONNECTION_KEY key) {
  const std::scoped_lock lock(All().mutex);
  const auto node = All().byKey.extract(key.Internal);
  return node.empty() ? nullptr : std::move(node.mapped());
}

}  // namespace cldapi
