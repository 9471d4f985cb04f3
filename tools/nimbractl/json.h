#ifndef NIMBRA_NIMBRACTL_JSON_H_
#define NIMBRA_NIMBRACTL_JSON_H_

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace nimbractl {

using Json = nlohmann::ordered_json;

// One line, or with `indent` one line for each value.
[[nodiscard]] inline std::string JsonText(const Json& json, int indent = 2) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

// What is not known is null.
template <class Value>
[[nodiscard]] Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
}
[[nodiscard]] inline Json OrNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

}  // namespace nimbractl

#endif
