#ifndef NIMBRA_SIMULATOR_CLDAPI_ENDPOINT_H_
#define NIMBRA_SIMULATOR_CLDAPI_ENDPOINT_H_

#include <cstdint>
#include <optional>
#include <string>

namespace cldapi {

// Where the filter listens, and the proof that the caller may speak to it.
struct Endpoint {
  std::uint16_t port = 0;
  std::string token;
};

// Reads the daemon's endpoint file; nothing, and a line in the debug log, when there is none.
[[nodiscard]] std::optional<Endpoint> ReadEndpoint();

// Tells somebody who looks at the debug log why calls fail.
void ReportUnreachable(const wchar_t* why);

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_ENDPOINT_H_
