#include "background.h"

#include <windows.h>

#include <cstdio>
#include <memory>
#include <utility>

namespace e2e {
namespace {

using Task = std::function<void()>;

void CALLBACK RunTask(PTP_CALLBACK_INSTANCE, void* context) {
  const std::unique_ptr<Task> task(static_cast<Task*>(context));
  (*task)();
}

}  // namespace

// The system's pool, not a std::thread that is detached at once: with MinGW's threads library such
// a thread is now and then lost before it runs.
void RunInBackground(Task task) {
  auto owned = std::make_unique<Task>(std::move(task));
  if (!TrySubmitThreadpoolCallback(RunTask, owned.get(), nullptr)) {
    std::fprintf(stderr, "no thread for a task: error %lu\n", GetLastError());
    ExitProcess(2);
  }
  static_cast<void>(owned.release());
}

}  // namespace e2e
