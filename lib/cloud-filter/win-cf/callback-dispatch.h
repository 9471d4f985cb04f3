#ifndef NIMBRA_WIN_CF_CALLBACK_DISPATCH_H_
#define NIMBRA_WIN_CF_CALLBACK_DISPATCH_H_

#include "common/cloud-files.h"

namespace corvdrive::cloud_filter {

// The callbacks that a connection registers, ended by the platform's terminator; valid for the
// process's life. Deletes are announced only where `notifyDelete` says so.
//
// The connection's callback context must be a delegator handle: a pointer to a
// std::shared_ptr<CallbackDelegatorWinCF>. A callback without a context is dropped.
[[nodiscard]] const CF_CALLBACK_REGISTRATION* CallbackTable(bool notifyDelete);

}  // namespace corvdrive::cloud_filter

#endif
