// A cldapi.dll for tests that has only a few of the platform's functions.

#include <windows.h>

#include "common/cloud-files.h"

namespace {

const CF_CALLBACK_REGISTRATION* table = nullptr;
const void* context = nullptr;

}  // namespace

extern "C" HRESULT WINAPI PartialGetPlatformInfo(CF_PLATFORM_INFO* info) {
  *info = {11, 22, 33};
  return S_OK;
}

extern "C" HRESULT WINAPI PartialConnectSyncRoot(LPCWSTR, const CF_CALLBACK_REGISTRATION* callbacks,
                                                 LPCVOID callbackContext, CF_CONNECT_FLAGS,
                                                 CF_CONNECTION_KEY* key) {
  table = callbacks;
  context = callbackContext;
  key->Internal = 44;
  return S_OK;
}

extern "C" HRESULT WINAPI PartialDisconnectSyncRoot(CF_CONNECTION_KEY key) {
  return key.Internal == 44 ? S_OK : E_INVALIDARG;
}

// Calls the connected client as for a program that opens "C:\file".
extern "C" void WINAPI PartialPlayFetch() {
  char identity[] = "Corvane.Drive.FileStreaming.session.12";
  CF_CALLBACK_INFO info{};
  info.StructSize = sizeof info;
  info.CallbackContext = const_cast<void*>(context);
  info.VolumeDosName = L"C:";
  info.NormalizedPath = L"\\file";
  info.SyncRootIdentity = identity;
  info.SyncRootIdentityLength = sizeof identity - 1;
  CF_CALLBACK_PARAMETERS parameters{};
  parameters.ParamSize = sizeof parameters;
  for (const auto* entry = table; entry->Callback != nullptr; ++entry) {
    if (entry->Type == CF_CALLBACK_TYPE_FETCH_DATA) {
      entry->Callback(&info, &parameters);
    }
  }
}
