#ifndef NIMBRA_MIRROR_EXPLORER_H_
#define NIMBRA_MIRROR_EXPLORER_H_

// The sync root's entry in Explorer's navigation pane.
//
// An entry goes by its class identifier, so that has to be kept for as long as there is one: mirror
// keeps it in the registry, under the user's "Software\Nimbra mirror\Explorer entries", in a value
// that is named like the sync root. That goes with the entry.

#include "basics.h"

namespace mirror {

// Makes the entry, or makes it anew if it is there: it shows the source's name and leads to the
// root.
void ShowInExplorer(const fs::path& source, const fs::path& root);

// Takes the entry away, and says whether there was one.
bool HideFromExplorer(const fs::path& root);

}  // namespace mirror

#endif
