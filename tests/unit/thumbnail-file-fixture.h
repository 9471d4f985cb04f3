#ifndef NIMBRA_TESTS_UNIT_THUMBNAIL_FILE_FIXTURE_H_
#define NIMBRA_TESTS_UNIT_THUMBNAIL_FILE_FIXTURE_H_

#include <windows.h>

#include <string>
#include <string_view>

#include "tests/support/bitmap-watch.h"
#include "tests/support/com-apartment.h"
#include "tests/support/image-files.h"
#include "tests/unit/thumbnail-fixture.h"

namespace nimbra_test {

// A test about thumbnails of real files, with the system's own imaging component.
class ThumbnailFileTest : public ThumbnailTest {
 protected:
  // Asks a new provider for the thumbnail of an item whose image this file is.
  Thumbnail AskAbout(const std::string& imagePath) {
    const Retriever retriever(Wide(imagePath));
    return Ask(*Initialized());
  }
  Thumbnail AskAbout(std::string_view name, std::string_view content) {
    return AskAbout(folder_.WriteFile(name, content));
  }

  const ComApartment com_{COINIT_MULTITHREADED};
  const TempFolder folder_;
  BitmapWatch bitmaps_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_UNIT_THUMBNAIL_FILE_FIXTURE_H_
