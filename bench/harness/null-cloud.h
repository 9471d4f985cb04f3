#ifndef NIMBRA_BENCH_HARNESS_NULL_CLOUD_H_
#define NIMBRA_BENCH_HARNESS_NULL_CLOUD_H_

#include <cstdint>

#include "common/cldapi-table.h"

namespace nimbra_bench {

// Stands in for the platform for the object's lifetime: every function succeeds at once and writes
// nothing. One object at a time.
class NullCloud {
 public:
  NullCloud();
  ~NullCloud();
  NullCloud(const NullCloud&) = delete;
  NullCloud& operator=(const NullCloud&) = delete;

  // How long each transfer of data keeps its thread busy: what a kernel would cost.
  static void SetTransferCost(double microseconds);

  // What was transferred since the last time.
  struct Transfers {
    std::int64_t count = 0;
    std::int64_t bytes = 0;
  };
  static Transfers TakeTransfers();

  // The callback of the latest connection for events of that type, and its context.
  static CF_CALLBACK Callback(CF_CALLBACK_TYPE type);
  static void* CallbackContext();

 private:
  corvdrive::cloud_filter::CldApi table_{};
  const corvdrive::cloud_filter::CldApi* previous_;
};

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_NULL_CLOUD_H_
