#ifndef NIMBRA_TESTS_E2E_PROVIDER_PLACEHOLDERS_H_
#define NIMBRA_TESTS_E2E_PROVIDER_PLACEHOLDERS_H_

#include <nimbra/nimbra.h>

#include <memory>
#include <string>
#include <type_traits>

#include "command-loop.h"

namespace e2e {

struct PlaceholderReleaser {
  using pointer = CORVWinCFPlaceholderHandle;
  void operator()(CORVWinCFPlaceholderHandle handle) const { CORVWinCFPlaceholderRelease(handle); }
};
using Placeholder =
    std::unique_ptr<std::remove_pointer_t<CORVWinCFPlaceholderHandle>, PlaceholderReleaser>;

Placeholder MakePlaceholder(const std::string& path);

// The commands that work on one item: create, update, convert, state, hydrate, pin ...
void AddPlaceholderCommands(CommandLoop& loop);

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_PROVIDER_PLACEHOLDERS_H_
