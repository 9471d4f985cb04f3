#ifndef NIMBRA_SIMULATOR_FILTER_STATUS_REPORT_H_
#define NIMBRA_SIMULATOR_FILTER_STATUS_REPORT_H_

#include <string>

namespace cloud_filter {

class Core;

// What the filter has and does, as JSON: for people and scripts.
std::string StatusReport(Core& core);

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_STATUS_REPORT_H_
