#include "tests/support/registry-watch.h"

#include <algorithm>
#include <utility>

namespace nimbra_test {
namespace {

std::optional<std::wstring> Text(LPCWSTR text) {
  return text != nullptr ? std::optional<std::wstring>(text) : std::nullopt;
}

const HKEY kGarbageKey = reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(0xBADBADBAD));

}  // namespace

RegistryWatch::RegistryWatch()
    : create_([this](auto original, HKEY root, LPCWSTR subkey, DWORD reserved, LPWSTR className,
                     DWORD options, REGSAM access, auto security, PHKEY opened,
                     LPDWORD disposition) -> LSTATUS {
        RegistryCall call{RegistryFunction::CreateKey, root, Text(subkey), ERROR_SUCCESS};
        call.reserved = reserved;
        call.hasClass = className != nullptr;
        call.options = options;
        call.access = access;
        call.hasSecurity = security != nullptr;
        call.asksDisposition = disposition != nullptr;
        if (const auto failure = TakeFailure(RegistryFunction::CreateKey)) {
          *opened = kGarbageKey;
          call.result = *failure;
          return Record(std::move(call));
        }
        call.result = original(root, subkey, reserved, className, options, access, security, opened,
                               disposition);
        call.opened = call.result == ERROR_SUCCESS ? *opened : nullptr;
        return Record(std::move(call));
      }),
      set_([this](auto original, HKEY key, LPCWSTR name, DWORD reserved, DWORD type,
                  const BYTE* data, DWORD size) -> LSTATUS {
        RegistryCall call{RegistryFunction::SetValue, key, Text(name), ERROR_SUCCESS};
        call.reserved = reserved;
        call.type = type;
        call.data.assign(reinterpret_cast<const char*>(data), size);
        const auto failure = TakeFailure(RegistryFunction::SetValue);
        call.result = failure ? *failure : original(key, name, reserved, type, data, size);
        return Record(std::move(call));
      }),
      deleteValue_([this](auto original, HKEY key, LPCWSTR name) -> LSTATUS {
        const auto failure = TakeFailure(RegistryFunction::DeleteValue);
        const LSTATUS result = failure ? *failure : original(key, name);
        return Record({RegistryFunction::DeleteValue, key, Text(name), result});
      }),
      deleteTree_([this](auto original, HKEY key, LPCWSTR subkey) -> LSTATUS {
        const auto failure = TakeFailure(RegistryFunction::DeleteTree);
        const LSTATUS result = failure ? *failure : original(key, subkey);
        return Record({RegistryFunction::DeleteTree, key, Text(subkey), result});
      }),
      close_([this](auto original, HKEY key) -> LSTATUS {
        const auto failure = TakeFailure(RegistryFunction::CloseKey);
        const LSTATUS result = failure ? *failure : original(key);
        return Record({RegistryFunction::CloseKey, key, std::nullopt, result});
      }) {}

std::vector<RegistryCall> RegistryWatch::Calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

std::vector<RegistryCall> RegistryWatch::CallsOf(RegistryFunction function) const {
  std::vector<RegistryCall> found;
  for (const RegistryCall& call : Calls()) {
    if (call.function == function) {
      found.push_back(call);
    }
  }
  return found;
}

int RegistryWatch::StillOpen() const {
  std::lock_guard lock(mutex_);
  return static_cast<int>(open_.size());
}

void RegistryWatch::FailCall(RegistryFunction function, int n, LSTATUS error) {
  std::lock_guard lock(mutex_);
  failures_[{function, counts_[function] + n}] = error;
}

void RegistryWatch::Clear() {
  std::lock_guard lock(mutex_);
  calls_.clear();
}

std::optional<LSTATUS> RegistryWatch::TakeFailure(RegistryFunction function) {
  std::lock_guard lock(mutex_);
  const auto found = failures_.find({function, ++counts_[function]});
  return found != failures_.end() ? std::optional(found->second) : std::nullopt;
}

LSTATUS RegistryWatch::Record(RegistryCall call) {
  std::lock_guard lock(mutex_);
  if (call.opened != nullptr) {
    open_.push_back(call.opened);
  }
  if (call.function == RegistryFunction::CloseKey) {
    std::erase(open_, call.key);
  }
  calls_.push_back(std::move(call));
  return calls_.back().result;
}

}  // namespace nimbra_test
