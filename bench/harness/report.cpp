#include "bench/harness/report.h"

#include <cstdio>
#include <sstream>
#include <string_view>

namespace nimbra_bench {
namespace {

// The names are the program's own: plain text without control characters.
std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') {
      quoted += '\\';
    }
    quoted += character;
  }
  return quoted + '"';
}

// Collects the members of one JSON object.
class Object {
 public:
  Object& Set(std::string_view name, std::string_view text) { return SetRaw(name, Quoted(text)); }
  Object& Set(std::string_view name, double number) {
    std::ostringstream text;
    text.precision(10);
    text << number;
    return SetRaw(name, text.str());
  }
  Object& SetRaw(std::string_view name, const std::string& json) {
    members_ += (members_.empty() ? "" : ", ") + Quoted(name) + ": " + json;
    return *this;
  }
  [[nodiscard]] std::string Json() const { return "{" + members_ + "}"; }

 private:
  std::string members_;
};

template <typename Elements, typename ToJson>
std::string List(const Elements& elements, ToJson toJson) {
  std::string list;
  for (const auto& element : elements) {
    list += (list.empty() ? "" : ", ") + toJson(element);
  }
  return "[" + list + "]";
}

std::string LimitJson(const Limit& limit) {
  return Object().Set("of", limit.of).Set(limit.isMost ? "most" : "least", limit.number).Json();
}

}  // namespace

void Write(const Row& row) {
  Object object;
  object.Set("family", row.family).Set("group", row.group).Set("name", row.name);
  object.Set("subject", row.times.subject).Set("baseline", row.times.baseline);
  object.Set("ratio", row.times.ratio).Set("spread", row.times.spread);
  object.Set("noise", row.times.noise).Set("rounds", static_cast<double>(row.times.rounds));
  if (row.allocations) {
    object.Set("allocations", *row.allocations);
  }
  if (row.baselineAllocations) {
    object.Set("baselineAllocations", *row.baselineAllocations);
  }
  object.SetRaw("limits", List(row.limits, LimitJson));
  object.SetRaw("functions", List(row.functions, Quoted));
  for (const auto& [name, number] : row.more) {
    object.Set(name, number);
  }
  std::printf("%s\n", object.Json().c_str());
  std::fflush(stdout);
}

}  // namespace nimbra_bench
