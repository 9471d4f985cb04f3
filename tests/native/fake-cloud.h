#ifndef NIMBRA_TESTS_NATIVE_FAKE_CLOUD_H_
#define NIMBRA_TESTS_NATIVE_FAKE_CLOUD_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/cldapi-table.h"

namespace nimbra_native {

struct ExecuteCall {
  CF_OPERATION_INFO info;
  CF_OPERATION_PARAMETERS parameters;
  // Bytes beyond the end of what is transferred, up to `FakeCloud::bufferSize`, that are not zero.
  std::size_t dirtyTail = 0;
};

struct CreateCall {
  std::u16string directory;
  std::u16string name;
  std::string identity;
  CF_FS_METADATA metadata;
};

// A platform that records. While an object lives, the library calls it; there is one at a time.
// What it does not know fails as it does without cldapi.dll.
class FakeCloud {
 public:
  FakeCloud();
  ~FakeCloud();
  FakeCloud(const FakeCloud&) = delete;
  FakeCloud& operator=(const FakeCloud&) = delete;

  std::vector<ExecuteCall> executed;
  std::vector<CreateCall> created;
  std::vector<std::pair<std::int64_t, std::int64_t>> hydrated;
  int transferKeys = 0;
  // What a query for a placeholder's information leaves in the buffer, as far as it fits; empty:
  // the query fails.
  std::string placeholderInfo;
  // The size of the buffers that transfers come from; 0: not looked at.
  std::size_t bufferSize = 0;
  // Gathers what is transferred.
  std::string transferred;

 private:
  corvdrive::cloud_filter::CldApi table_;
};

}  // namespace nimbra_native

#endif
