#ifndef NIMBRA_TESTS_E2E_LOG_CAPTURE_H_
#define NIMBRA_TESTS_E2E_LOG_CAPTURE_H_

namespace e2e {

// From here on every line that this process sends to the debugger is an event "log" as well.
void CaptureDebugOutput();

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_LOG_CAPTURE_H_
