#ifndef NIMBRA_TESTS_FILTER_FILTER_FIXTURE_H_
#define NIMBRA_TESTS_FILTER_FILTER_FIXTURE_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api-client.h"
#include "daemon-process.h"
#include "fake-provider.h"
#include "program.h"

// Compares results as people read them.
#define EXPECT_RESULT(actual, expected) \
  EXPECT_EQ(::cloud_filter::test::Hex(actual), ::cloud_filter::test::Hex(expected))
#define ASSERT_RESULT(actual, expected) \
  ASSERT_EQ(::cloud_filter::test::Hex(actual), ::cloud_filter::test::Hex(expected))

namespace cloud_filter::test {

std::string Hex(Hresult result);

// Bytes that tell their file and place: no page is like another.
std::string ContentOf(const std::string& name, std::size_t size);

wire::CreateEntry FileEntry(const std::string& name, std::int64_t size,
                            std::uint32_t flags = flag::kCreateInSync);
wire::CreateEntry FolderEntry(const std::string& name,
                              std::uint32_t flags = flag::kCreateInSync | flag::kCreatePopulated);

// The whole file, or nothing when it cannot be read.
std::optional<std::string> ReadWhole(const std::filesystem::path& file);
// The error of opening or reading one byte; 0 when that works.
int ErrorOfReading(const std::filesystem::path& file);
// Waits for a condition that others bring about.
bool Eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(5));

// A daemon and an empty folder of one test, without mounts. Checks that nothing is left behind.
class FilterTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  virtual std::vector<std::string> DaemonOptions() { return {"--no-mount"}; }

  void StartDaemon();
  void RestartDaemon();
  // Registers `root`; connects a provider when told to.
  void MakeRoot(const RootOptions& options = {});
  void ConnectProvider(const ProviderOptions& options = {});
  void CreateFile(const std::string& name, std::int64_t size,
                  std::uint32_t flags = flag::kCreateInSync);
  [[nodiscard]] std::string Path(const std::string& name) const { return root / name; }
  wire::PlaceholderInfo InfoOf(const std::string& name);
  [[nodiscard]] std::vector<std::string> MountsBelow() const;

  std::filesystem::path folder;
  std::filesystem::path root;
  std::unique_ptr<DaemonProcess> daemon;
  std::unique_ptr<ApiClient> api;
  std::unique_ptr<FakeProvider> provider;
};

// As above, with the root mounted. Fails where nothing can be mounted, unless NIMBRA_NO_FUSE=1 says
// that this is known; then it is skipped.
class MountedTest : public FilterTest {
 protected:
  void SetUp() override;
  std::vector<std::string> DaemonOptions() override { return {}; }
};

}  // namespace cloud_filter::test

#endif  // NIMBRA_TESTS_FILTER_FILTER_FIXTURE_H_
