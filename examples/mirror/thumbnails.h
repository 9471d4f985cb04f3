#ifndef NIMBRA_MIRROR_THUMBNAILS_H_
#define NIMBRA_MIRROR_THUMBNAILS_H_

// Thumbnails of pictures that are not on disk. A client asks its server for a preview of a file;
// mirror's server is the source folder, so it makes a small picture from the file there.

#include "basics.h"

namespace mirror {

// Serves thumbnails of the sync root's items to the shell, as long as it lives. There is one.
class Thumbnails {
 public:
  Thumbnails(const fs::path& source, const fs::path& root);
  ~Thumbnails();
  Thumbnails(const Thumbnails&) = delete;
  Thumbnails& operator=(const Thumbnails&) = delete;
};

}  // namespace mirror

#endif
