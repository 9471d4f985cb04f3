// nimbractl register and unregister: sync roots.

#include <nimbra/nimbra.hpp>

#include <charconv>
#include <new>
#include <optional>
#include <string>

#include "commands.h"
#include "console.h"
#include "items.h"
#include "platform.h"
#include "results.h"

namespace nimbractl {
namespace {

constexpr std::string_view kIdentityStart = "Corvane.Drive.FileStreaming.session.";

nimbra::SyncRoot NewSyncRoot(const Item& folder, std::uint64_t session) {
  nimbra::SyncRoot root(folder.Name(), session);
  if (!root) throw std::bad_alloc();
  return root;
}

void Require(nimbra::Result result, const std::string& whatFailed) {
  if (result) return;
  throw Failure(whatFailed + ": " + ResultText(result.Code()), ResultAdvice(result.Code()));
}

// The number in an identity of this library's clients.
std::optional<std::uint64_t> SessionOf(const std::string& identity) {
  if (!identity.starts_with(kIdentityStart)) return std::nullopt;
  std::uint64_t session = 0;
  const auto* const end = identity.data() + identity.size();
  const auto read = std::from_chars(identity.data() + kIdentityStart.size(), end, session);
  return read.ec == std::errc() && read.ptr == end ? std::optional(session) : std::nullopt;
}

// With its backslash: "C:" would be that drive's current folder.
std::wstring ParentOf(const std::wstring& path) { return path.substr(0, path.rfind(L'\\') + 1); }

// The session number of the sync root whose folder this is; throws a Failure for any other path.
std::uint64_t RequireSyncRoot(const Item& folder) {
  static_cast<void>(OtherProviders().Own(folder));
  const auto identity = SyncRootIdentity(folder.path);
  const auto advice = "nimbractl roots lists the sync roots";
  if (!identity) throw Failure(folder.Name() + " lies in no sync root", advice);
  if (SyncRootIdentity(ParentOf(folder.path)) == identity) {
    throw Failure(folder.Name() + " lies inside a sync root, but is not its folder", advice);
  }
  const auto session = SessionOf(*identity);
  if (!session) {
    throw Failure(folder.Name() + " is a sync root with no number in its identity, " + *identity,
                  "leave it to the program that registered it");
  }
  return *session;
}

// Unregistering deletes what is not on the disk; so that nobody loses a file by one word, that has
// to be asked for.
void RefuseLoss(const Item& folder) {
  std::int64_t files = 0, bytes = 0;
  const auto tally = ForEachItem({folder.Name()}, true, [&](const Item& item) {
    if (!item.isFolder && CORVWinCFIsFullyHydratedW(ForWindows(item.path).c_str()) != 0) {
      ++files;
      bytes += item.size;
    }
    return Outcome::kDone;
  });
  const auto advice =
      "hydrate them first (nimbractl hydrate --recursive), or allow it with --delete-online-only";
  if (files > 0) {
    throw Failure(folder.Name() + " was not unregistered: " + Count(files, "file") + " (" +
                      BytesText(bytes) + ") in it would be deleted, not being fully on the disk",
                  advice);
  }
  if (tally.failed > 0) {
    throw Failure(folder.Name() + " was not unregistered: not all of it could be looked at",
                  advice);
  }
}

}  // namespace

ExitCode RunRegister(const RegisterOptions& options) {
  RequirePlatform();
  const auto folder = FindItem(AbsolutePath(options.path));
  if (!folder.isFolder) throw Failure(folder.Name() + " is a file", "name a folder");
  static_cast<void>(OtherProviders().Own(folder));  // throws
  if (options.again) {
    RequireSyncRoot(folder);
  } else if (const auto known = SyncRootIdentity(folder.path)) {
    throw Failure(folder.Name() + " lies in a sync root already, " + *known,
                  "register it anew with --again, or nimbractl unregister it first");
  }
  auto root = NewSyncRoot(folder, options.session);
  Require(options.again ? root.Reregister(options.name) : root.Register(options.name),
          folder.Name() + " was not registered");
  WriteLine(Stream::kOutput, "registered " + folder.Name() + " as " +
                                 SyncRootIdentity(folder.path).value_or("(unknown)"));
  return ExitCode::kOk;
}

ExitCode RunUnregister(const UnregisterOptions& options) {
  RequirePlatform();
  const auto folder = FindItem(AbsolutePath(options.path));
  const auto session = RequireSyncRoot(folder);
  if (!options.deleteOnlineOnly) RefuseLoss(folder);
  Require(NewSyncRoot(folder, session).Unregister(), folder.Name() + " was not unregistered");
  WriteLine(Stream::kOutput, "unregistered " + folder.Name());
  return ExitCode::kOk;
}

}  // namespace nimbractl
