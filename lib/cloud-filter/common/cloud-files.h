#ifndef NIMBRA_COMMON_CLOUD_FILES_H_
#define NIMBRA_COMMON_CLOUD_FILES_H_

// The declarations of the Cloud Files interface (cldapi.dll).
// The Windows SDK's own header is used where there is one. MinGW has none, so the interface is
// declared here under the same names; `cloud-files-layout.h` holds both forms to the binary
// interface that cldapi.dll expects.

#include <windows.h>

#include "common/cloud-files-errors.h"

#if __has_include(<cfapi.h>)
#include <cfapi.h>
#else
#include "common/cloud-files-enums.h"
#include "common/cloud-files-functions.h"
#include "common/cloud-files-structs.h"
#endif

#include "common/cloud-files-layout.h"

#endif
