#ifndef NIMBRA_TESTS_E2E_THUMBNAIL_REQUEST_H_
#define NIMBRA_TESTS_E2E_THUMBNAIL_REQUEST_H_

#include <windows.h>

#include <thumbcache.h>

#include <optional>
#include <string>

#include "picture.h"

namespace e2e {

struct Thumbnail {
  HRESULT result = S_OK;
  const char* step = "";  // the call that `result` comes from
  WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
  std::optional<Picture> picture;  // of a success without a bitmap nothing
};

// Asks for the thumbnail of a file or folder as the shell does: of the client that serves the class
// from a process of its own. The thread has to have an apartment.
Thumbnail RequestThumbnail(const std::string& itemPath, UINT size);

// Has this process and the other make their proxies' tables before several threads need them: Wine
// fills them at first use without a lock, and a second thread meets them half filled. Asks for no
// thumbnail.
void PrepareProxies(const std::string& itemPath);

// Whether an object of the class has an interface: what QueryInterface says.
HRESULT QueryProvider(const std::string& interfaceId);

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_THUMBNAIL_REQUEST_H_
