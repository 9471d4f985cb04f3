#include "retriever.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <stdexcept>

#include "wide-text.h"

namespace e2e {
namespace {

std::mutex rulesMutex;
std::map<std::string, Fields> rules;
std::atomic<int> running = 0;

Fields RuleFor(const std::string& item) {
  const std::lock_guard lock(rulesMutex);
  const auto found = rules.find(item);
  return found != rules.end() ? found->second : rules[""];
}

void End(const std::string& how) {
  if (how == "throw") throw std::runtime_error("no preview");
  if (how == "fault") RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
  if (how == "exit") ExitProcess(0);
  if (how == "terminate") TerminateProcess(GetCurrentProcess(), 9);
}

class Count {
 public:
  Count() : now_(++running) {}
  Count(const Count&) = delete;
  Count& operator=(const Count&) = delete;
  ~Count() { --running; }
  [[nodiscard]] int Now() const { return now_; }

 private:
  int now_;
};

bool Retrieve(const char* retriever, const wchar_t* itemPath, wchar_t* imagePath) {
  const Count count;
  const auto item = ToNarrow(itemPath);
  EmitEvent("retrieve", Fields()
                            .Set("retriever", retriever)
                            .Set("item", item)
                            .Set("atOnce", count.Now())
                            .Set("thread", GetCurrentThreadId()));
  const auto rule = RuleFor(item);
  Sleep(static_cast<DWORD>(rule.Number("delay", 0)));
  End(rule.Text("end", ""));
  const auto image = ToWide(rule.Text("image", ""));
  image.copy(imagePath, std::min<std::size_t>(image.size(), MAX_PATH - 1));
  return rule.Number("found", rule.Has("image") ? 1 : 0) != 0;
}

bool FirstRetriever(const wchar_t* itemPath, wchar_t* imagePath) {
  return Retrieve("first", itemPath, imagePath);
}

bool SecondRetriever(const wchar_t* itemPath, wchar_t* imagePath) {
  return Retrieve("second", itemPath, imagePath);
}

}  // namespace

void SetRule(const Fields& rule) {
  const std::lock_guard lock(rulesMutex);
  rules[rule.Text("item", "")] = rule;
}

CORVWinCFThumbRetriever RetrieverNamed(const std::string& name) {
  if (name == "first") return FirstRetriever;
  return name == "second" ? SecondRetriever : nullptr;
}

}  // namespace e2e
