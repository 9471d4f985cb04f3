#ifndef NIMBRA_TESTS_SUPPORT_IMPORT_DOUBLE_H_
#define NIMBRA_TESTS_SUPPORT_IMPORT_DOUBLE_H_

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "tests/support/import-hooks.h"
#include "tests/support/test-scope.h"

namespace nimbra_test {

// A text usable as a template argument.
template <std::size_t N>
struct FixedText {
  char text[N]{};
  // Implicit on purpose: a literal is written directly as the template argument.
  // NOLINTNEXTLINE(google-explicit-constructor)
  constexpr FixedText(const char (&source)[N]) { std::copy_n(source, N, text); }
};

template <FixedText Name, typename Function>
class ImportDouble;

// Stands in for an operating system function that the test program (and so the library linked into
// it) imports, for the object's lifetime: records the arguments, fails chosen calls and passes the
// others on, or hands all of them to a handler. One object per function at a time.
//   ImportDouble<"GetFileSizeEx", decltype(&::GetFileSizeEx)> size;
//   size.FailCall(1, FALSE, ERROR_INVALID_HANDLE);
template <FixedText Name, typename Result, typename... Arguments>
class ImportDouble<Name, Result(WINAPI*)(Arguments...)> {
 public:
  using Function = Result(WINAPI*)(Arguments...);
  using StoredResult = std::conditional_t<std::is_void_v<Result>, std::monostate, Result>;
  // Gets the real function first.
  using Handler = std::function<Result(Function, Arguments...)>;

  ImportDouble() : ImportDouble(Handler()) {}
  explicit ImportDouble(Handler handler) : handler_(std::move(handler)) {
    current_.store(this);
    hook_.emplace(Name.text, reinterpret_cast<void*>(&ImportDouble::Enter));
    original_.store(reinterpret_cast<Function>(hook_->Original()));
  }
  ~ImportDouble() {
    hook_.reset();
    current_.store(nullptr);
  }
  ImportDouble(const ImportDouble&) = delete;
  ImportDouble& operator=(const ImportDouble&) = delete;

  // Lets the n-th call from now on (1 = the next one) give `result` with that last error instead of
  // running.
  void FailCall(int n, StoredResult result, DWORD lastError) requires(!std::is_void_v<Result>) {
    std::lock_guard lock(mutex_);
    failures_.push_back({count_ + n, result, lastError});
  }

  // The arguments of every call so far. Pointers among them may be dead by now.
  std::vector<std::tuple<Arguments...>> Calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  int Count() const {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  struct Failure {
    int call;
    StoredResult result;
    DWORD lastError;
  };

  static Result WINAPI Enter(Arguments... arguments) {
    // A caller may have read the slot while the double was there and arrive when it is gone.
    ImportDouble* self = current_.load();
    return self != nullptr ? self->Run(arguments...) : original_.load()(arguments...);
  }

  Result Run(Arguments... arguments) {
    const DWORD lastError = GetLastError();
    std::optional<Failure> failure;
    {
      TestScope scope;
      std::lock_guard lock(mutex_);
      ++count_;
      calls_.emplace_back(arguments...);
      for (const Failure& candidate : failures_) {
        if (candidate.call == count_) {
          failure = candidate;
        }
      }
    }
    if constexpr (!std::is_void_v<Result>) {
      if (failure) {
        SetLastError(failure->lastError);
        return failure->result;
      }
    }
    SetLastError(lastError);
    if (handler_) {
      TestScope scope;
      return handler_(original_.load(), arguments...);
    }
    return original_.load()(arguments...);
  }

  static inline std::atomic<ImportDouble*> current_{nullptr};
  static inline std::atomic<Function> original_{nullptr};
  mutable std::mutex mutex_;
  int count_ = 0;
  std::vector<std::tuple<Arguments...>> calls_;
  std::vector<Failure> failures_;
  Handler handler_;
  std::optional<ScopedImportHook> hook_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_IMPORT_DOUBLE_H_
