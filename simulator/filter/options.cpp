#include "options.h"

#include <charconv>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "protocol/wire.h"

namespace cloud_filter {
namespace {

std::optional<double> ParseNumber(std::string_view text) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number <= 0) return std::nullopt;
  return number;
}

bool Apply(std::string_view name, const std::string& value, Options& options) {
  if (name == "--state") {
    options.state = value;
    return !value.empty();
  }
  if (name == "--endpoint") {
    options.endpoint = value;
    return !value.empty();
  }
  const auto number = ParseNumber(value);
  if (!number) return false;
  if (name == "--request-timeout") {
    constexpr double kMaxSeconds = 1e6;
    if (*number > kMaxSeconds) return false;
    options.core.requestTimeout = std::chrono::milliseconds(static_cast<int>(*number * 1000));
    return true;
  }
  // What is asked for ends at a page.
  constexpr double kMaxCap = 1e15;
  if (*number > kMaxCap) return false;
  options.core.fetchCap =
      std::max<std::int64_t>(kPage, static_cast<std::int64_t>(*number) / kPage * kPage);
  return true;
}

bool ApplyFlag(std::string_view name, Options& options) {
  if (name == "--no-mount") {
    options.core.mount = false;
  } else if (name == "--verbose") {
    options.verbose = true;
  } else if (name == "--status") {
    options.task = Task::kStatus;
  } else if (name == "--stop") {
    options.task = Task::kStop;
  } else if (name == "--help" || name == "-h") {
    options.task = Task::kHelp;
  } else {
    return false;
  }
  return true;
}

bool TakesValue(std::string_view name) {
  return name == "--state" || name == "--endpoint" || name == "--request-timeout" ||
         name == "--fetch-cap";
}

}  // namespace

bool ParseOptions(int count, char** arguments, Options& options, std::string& error) {
  for (int i = 1; i < count; ++i) {
    const std::string name = arguments[i];
    if (ApplyFlag(name, options)) continue;
    if (!TakesValue(name)) {
      error = "unknown option " + name;
      return false;
    }
    if (i + 1 == count) {
      error = name + " needs a value";
      return false;
    }
    const std::string value = arguments[++i];
    if (!Apply(name, value, options)) {
      error = "\"" + value + "\" is no value for " + name;
      return false;
    }
  }
  if (options.state.empty()) {
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') {
      error = "HOME is not set; name a folder with --state";
      return false;
    }
    options.state = (std::filesystem::path(home) / wire::kDefaultEndpoint).parent_path();
  }
  options.state = std::filesystem::absolute(options.state);
  if (options.endpoint.empty()) options.endpoint = options.state / "endpoint";
  return true;
}

const char* HelpText() {
  return "Usage: cloud-filterd [options]\n"
         "Serves sync roots: keeps placeholders, shows their folders to programs and asks the\n"
         "connected providers for data.\n"
         "\n"
         "  --state DIR            what is remembered (default: ~/.cloud-filter)\n"
         "  --endpoint FILE        where clients learn how to connect (default: DIR/endpoint)\n"
         "  --request-timeout S    seconds that a provider has for an answer (default: 60)\n"
         "  --fetch-cap BYTES      most that one callback asks for (default: 1 GiB)\n"
         "  --no-mount             serve the API only; data comes by explicit hydration only\n"
         "  --verbose              tell about each root at start\n"
         "  --status               print what the running daemon has and does, as JSON\n"
         "  --stop                 end the running daemon\n"
         "  --help                 this text\n";
}

}  // namespace cloud_filter
