#include "common/module-pin.h"

#include <windows.h>

namespace corvdrive::cloud_filter {

void PinModule() {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                     reinterpret_cast<LPCWSTR>(&PinModule), &module);
}

}  // namespace corvdrive::cloud_filter
