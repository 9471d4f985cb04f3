#ifndef NIMBRA_TESTS_THUMBNAIL_PROXY_H_
#define NIMBRA_TESTS_THUMBNAIL_PROXY_H_

/* The generated code takes the platform's declarations of all that the .idl files describe. */
#include <windows.h>

#include <ole2.h>
#include <shobjidl.h>
#include <thumbcache.h>

/* In rpcrt4, but MinGW declares them in C++ only. */
HRESULT STDMETHODCALLTYPE IUnknown_QueryInterface_Proxy(IUnknown* This, REFIID riid, void** object);
ULONG STDMETHODCALLTYPE IUnknown_AddRef_Proxy(IUnknown* This);
ULONG STDMETHODCALLTYPE IUnknown_Release_Proxy(IUnknown* This);

#endif
