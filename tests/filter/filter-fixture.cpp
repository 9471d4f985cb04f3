#include "filter-fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "unique-fd.h"

namespace cloud_filter::test {

std::string Hex(Hresult result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(result));
  return text;
}

std::string ContentOf(const std::string& name, std::size_t size) {
  std::string content(size, '\0');
  std::uint64_t state = std::hash<std::string>()(name) | 1;
  for (auto& byte : content) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    byte = static_cast<char>(state >> 56U);
  }
  return content;
}

wire::CreateEntry FileEntry(const std::string& name, std::int64_t size, std::uint32_t flags) {
  wire::CreateEntry entry;
  entry.relativeName = name;
  entry.metadata.attributes = 0x80;
  entry.metadata.fileSize = size;
  entry.identity = "identity of " + name;
  entry.flags = flags;
  return entry;
}

wire::CreateEntry FolderEntry(const std::string& name, std::uint32_t flags) {
  wire::CreateEntry entry;
  entry.relativeName = name;
  entry.metadata.attributes = attribute::kDirectory;
  entry.identity = "identity of " + name;
  entry.flags = flags;
  return entry;
}

std::optional<std::string> ReadWhole(const std::filesystem::path& file) {
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  std::string content;
  std::vector<char> buffer(256 << 10);
  while (true) {
    const auto got = read(fd.Get(), buffer.data(), buffer.size());
    if (got < 0) return std::nullopt;
    if (got == 0) return content;
    content.append(buffer.data(), static_cast<std::size_t>(got));
  }
}

int ErrorOfReading(const std::filesystem::path& file) {
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return errno;
  char byte = 0;
  return read(fd.Get(), &byte, 1) < 0 ? errno : 0;
}

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

void FilterTest::SetUp() {
  char name[] = "/tmp/cloud-filter-test-XXXXXX";
  folder = mkdtemp(name);
  root = folder / "root";
  std::filesystem::create_directory(root);
  daemon = std::make_unique<DaemonProcess>(folder / "state");
  StartDaemon();
}

void FilterTest::TearDown() {
  provider.reset();
  api.reset();
  if (daemon != nullptr && daemon->Runs()) {
    EXPECT_EQ(daemon->Stop(), 0) << daemon->Log();
  }
  EXPECT_EQ(MountsBelow(), std::vector<std::string>());
  for (const auto& mount : MountsBelow()) RunProgram({"fusermount3", "-u", "-z", mount});
  if (HasFailure() && daemon != nullptr) std::fputs(daemon->Log().c_str(), stderr);
  if (!folder.empty()) std::filesystem::remove_all(folder);
}

void FilterTest::StartDaemon() {
  ASSERT_TRUE(daemon->Start(DaemonOptions())) << daemon->Log();
  api = std::make_unique<ApiClient>(daemon->Endpoint());
}

void FilterTest::RestartDaemon() {
  provider.reset();
  api.reset();
  if (daemon->Runs()) {
    ASSERT_EQ(daemon->Stop(), 0);
  }
  StartDaemon();
}

void FilterTest::MakeRoot(const RootOptions& options) {
  ASSERT_RESULT(api->Register(root, options), hr::kOk);
}

void FilterTest::ConnectProvider(const ProviderOptions& options) {
  provider = std::make_unique<FakeProvider>(daemon->Endpoint());
  ASSERT_RESULT(provider->Connect(root, options), hr::kOk);
}

void FilterTest::CreateFile(const std::string& name, std::int64_t size, std::uint32_t flags) {
  ASSERT_RESULT(api->Create(root, {FileEntry(name, size, flags)}), hr::kOk);
}

wire::PlaceholderInfo FilterTest::InfoOf(const std::string& name) {
  wire::PlaceholderInfo info;
  EXPECT_RESULT(api->GetInfo(Path(name), info), hr::kOk);
  return info;
}

std::vector<std::string> FilterTest::MountsBelow() const {
  std::vector<std::string> found;
  std::ifstream mounts("/proc/self/mounts");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string device;
    std::string point;
    fields >> device >> point;
    if (!folder.empty() && point.starts_with(folder.string())) found.push_back(point);
  }
  return found;
}

void MountedTest::SetUp() {
  const UniqueFd device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
  if (!device) {
    const char* known = std::getenv("NIMBRA_NO_FUSE");
    if (known != nullptr && std::strcmp(known, "1") == 0) GTEST_SKIP() << "NIMBRA_NO_FUSE=1";
    FAIL() << "/dev/fuse cannot be opened (" << std::strerror(errno)
           << "); set NIMBRA_NO_FUSE=1 where that is known";
  }
  FilterTest::SetUp();
}

}  // namespace cloud_filter::test
