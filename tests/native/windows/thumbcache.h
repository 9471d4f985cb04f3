#ifndef NIMBRA_TESTS_NATIVE_WINDOWS_THUMBCACHE_H_
#define NIMBRA_TESTS_NATIVE_WINDOWS_THUMBCACHE_H_

#include <shobjidl.h>

enum WTS_ALPHATYPE : int {};

class IThumbnailProvider : public IUnknown {
 public:
  virtual HRESULT GetThumbnail(UINT size, HBITMAP* bitmap, WTS_ALPHATYPE* alpha) = 0;
};

#endif
