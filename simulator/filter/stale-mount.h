#ifndef NIMBRA_SIMULATOR_FILTER_STALE_MOUNT_H_
#define NIMBRA_SIMULATOR_FILTER_STALE_MOUNT_H_

#include <string>

namespace cloud_filter {

// Takes away what a daemon that died has left mounted at `path`.
void RemoveStaleMount(const std::string& path);

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_STALE_MOUNT_H_
