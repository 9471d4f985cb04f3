#ifndef NIMBRA_BENCH_HARNESS_LEAST_TRANSLATOR_H_
#define NIMBRA_BENCH_HARNESS_LEAST_TRANSLATOR_H_

#include "common/cloud-files.h"
#include "nimbra/nimbra.h"

namespace nimbra_bench {

// The least that turning a platform's event into a client's record takes: one block of memory for
// the record and all its texts, each converted once by Windows.
void TranslateLeast(CF_CALLBACK_TYPE type, const CF_CALLBACK_INFO& info,
                    const CF_CALLBACK_PARAMETERS& parameters, CORVWinCFCallback callback);

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_LEAST_TRANSLATOR_H_
