#ifndef NIMBRA_TESTS_E2E_BACKGROUND_H_
#define NIMBRA_TESTS_E2E_BACKGROUND_H_

#include <functional>

namespace e2e {

// Runs the task on another thread, without waiting for it. It may take as long as it likes.
void RunInBackground(std::function<void()> task);

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_BACKGROUND_H_
