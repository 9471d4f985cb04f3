#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <future>

#include "filter-fixture.h"
#include "frames.h"

namespace cloud_filter::test {
namespace {

// Clients that do not keep to the protocol.
class Protocol : public FilterTest {
 protected:
  [[nodiscard]] std::pair<std::uint16_t, std::string> Endpoint() const {
    std::ifstream file(daemon->Endpoint());
    std::uint16_t port = 0;
    std::string token;
    file >> port >> token;
    return {port, token};
  }
  UniqueFd Connect() {
    UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(Endpoint().first);
    EXPECT_EQ(connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const timeval limit{8, 0};
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return socket;
  }
  // Whether the daemon ends the connection without having said anything.
  static bool IsDropped(const UniqueFd& socket) {
    char byte = 0;
    const auto got = recv(socket.Get(), &byte, 1, 0);
    return got == 0 || (got < 0 && errno == ECONNRESET);
  }
  static std::string Hello(const std::string& token, std::uint32_t version = 1) {
    wire::Writer hello;
    return hello.Put(version).PutBytes(token).Take();
  }
  static bool Send(const UniqueFd& socket, wire::Op op, const std::string& payload) {
    return SendFrame(socket.Get(), {0, static_cast<std::uint16_t>(op), 0, 0, 1}, payload);
  }
};

TEST_F(Protocol, TheEndpointFileIsForItsUserOnly) {
  struct stat facts {};
  ASSERT_EQ(stat(daemon->Endpoint().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777U, 0600U);
  ASSERT_EQ(stat(daemon->State().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777U, 0700U);
  EXPECT_EQ(Endpoint().second.size(), 64U);
}

TEST_F(Protocol, TheEndpointFileGoesWithTheDaemonAndTheTokenChanges) {
  const auto token = Endpoint().second;
  api.reset();
  ASSERT_EQ(daemon->Stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(daemon->Endpoint()));
  StartDaemon();
  EXPECT_NE(Endpoint().second, token);
}

TEST_F(Protocol, HelloTellsThePlatformsVersion) {
  auto socket = Connect();
  ASSERT_TRUE(Send(socket, wire::Op::kHello, Hello(Endpoint().second)));
  wire::FrameHeader header{};
  ASSERT_TRUE(ReceiveAll(socket.Get(), &header, sizeof header));
  EXPECT_EQ(header.result, 0);
  EXPECT_EQ(header.sequence, 1U);
  std::string payload(header.payloadLength, '\0');
  ASSERT_TRUE(ReceiveAll(socket.Get(), payload.data(), payload.size()));
  wire::Reader in(payload);
  EXPECT_GE(in.Get<std::uint32_t>(), 19041U);
  static_cast<void>(in.Get<std::uint32_t>());
  EXPECT_EQ(in.Get<std::uint32_t>(), 0x600U);
  EXPECT_TRUE(in.AtEnd());
}

TEST_F(Protocol, AWrongTokenIsDroppedWithoutAWord) {
  for (const auto& token : {std::string(64, '0'), std::string(), Endpoint().second + "0",
                            Endpoint().second.substr(1)}) {
    auto socket = Connect();
    ASSERT_TRUE(Send(socket, wire::Op::kHello, Hello(token)));
    EXPECT_TRUE(IsDropped(socket));
  }
}

TEST_F(Protocol, AnotherVersionIsDropped) {
  auto socket = Connect();
  ASSERT_TRUE(Send(socket, wire::Op::kHello, Hello(Endpoint().second, 2)));
  EXPECT_TRUE(IsDropped(socket));
}

TEST_F(Protocol, ARequestBeforeHelloIsDropped) {
  auto socket = Connect();
  ASSERT_TRUE(Send(socket, wire::Op::kStatus, ""));
  EXPECT_TRUE(IsDropped(socket));
}

TEST_F(Protocol, GarbageIsDropped) {
  auto socket = Connect();
  const std::string garbage(100, '\xFF');
  SendAll(socket.Get(), garbage.data(), garbage.size());
  EXPECT_TRUE(IsDropped(socket));
}

TEST_F(Protocol, SilenceIsDroppedAfterFiveSeconds) {
  const auto start = std::chrono::steady_clock::now();
  auto socket = Connect();
  EXPECT_TRUE(IsDropped(socket));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::seconds(4));
  EXPECT_LT(waited, std::chrono::seconds(8));
}

TEST_F(Protocol, AFrameBeyondTheLimitIsDropped) {
  auto socket = Connect();
  ASSERT_TRUE(Send(socket, wire::Op::kHello, Hello(Endpoint().second)));
  char answer[28];
  ASSERT_TRUE(ReceiveAll(socket.Get(), answer, sizeof answer));
  const wire::FrameHeader header{wire::kMaxPayload + 1,
                                 static_cast<std::uint16_t>(wire::Op::kTransferData), 0, 0, 2};
  ASSERT_TRUE(SendAll(socket.Get(), &header, sizeof header));
  EXPECT_TRUE(IsDropped(socket));
}

TEST_F(Protocol, APayloadThatIsCutShortOrTooLongIsAnInvalidParameter) {
  MakeRoot();
  CreateFile("a", 10'000);
  for (std::uint16_t op = 2; op <= 31; ++op) {
    if (op == static_cast<std::uint16_t>(wire::Op::kConnect)) continue;
    for (const std::size_t length : {0U, 1U, 3U, 7U, 11U}) {
      wire::Writer payload;
      for (std::size_t i = 0; i < length; ++i) payload.Put(std::uint8_t{0xFF});
      EXPECT_RESULT(api->Request(static_cast<wire::Op>(op), payload), hr::kInvalidParameter)
          << "request " << op << " with " << length << " bytes";
    }
  }
  wire::Writer tooLong;
  wire::Put(tooLong, wire::ItemRef{Path("a"), 0});
  tooLong.Put(std::uint8_t{0});
  EXPECT_RESULT(api->Request(wire::Op::kGetPlaceholderInfo, tooLong), hr::kInvalidParameter);
  // Its connection still serves.
  EXPECT_EQ(InfoOf("a").identity, "identity of a");
}

TEST_F(Protocol, AnUnknownRequestIsNotSupported) {
  EXPECT_RESULT(api->Request(static_cast<wire::Op>(40), {}), hr::kNotSupported);
  EXPECT_RESULT(api->Request(wire::Op::kAlive, {}), hr::kNotSupported);
}

TEST_F(Protocol, ManyClientsAtOnceAreServed) {
  MakeRoot();
  CreateFile("a", 10'000);
  std::vector<std::future<int>> clients;
  for (int i = 0; i < 40; ++i) {
    clients.push_back(std::async(std::launch::async, [this] {
      int failures = 0;
      for (int round = 0; round < 20; ++round) {
        ApiClient client(daemon->Endpoint());
        wire::PlaceholderInfo info;
        if (client.GetInfo(Path("a"), info) != hr::kOk) ++failures;
      }
      return failures;
    }));
  }
  for (auto& client : clients) EXPECT_EQ(client.get(), 0);
}

TEST_F(Protocol, NothingIsSentAfterADisconnectIsAnswered) {
  MakeRoot();
  for (int round = 0; round < 20; ++round) {
    ConnectProvider();
    const auto name = "f" + std::to_string(round);
    CreateFile(name, 100);
    auto hydrated = std::async(std::launch::async,
                               [&] { return ApiClient(daemon->Endpoint()).Hydrate(Path(name)); });
    if (round % 2 == 0) provider->WaitFor(callback::kFetchData);
    ASSERT_RESULT(provider->Disconnect(), hr::kOk);
    hydrated.get();
    EXPECT_RESULT(api->Hydrate(Path(name)), hr::kProviderNotRunning);
    EXPECT_LE(provider->CountOf(callback::kFetchData), 1U);
    provider.reset();
  }
}

}  // namespace
}  // namespace cloud_filter::test
