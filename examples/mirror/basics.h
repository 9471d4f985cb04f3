#ifndef NIMBRA_MIRROR_BASICS_H_
#define NIMBRA_MIRROR_BASICS_H_

// What all of mirror is written with: text, lines for the user, failures.

#include <filesystem>
#include <nimbra/nimbra.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace mirror {

namespace fs = std::filesystem;

fs::path Path(std::string_view utf8);
std::string Utf8(const fs::path& path);

// Prints a line. One that does not stay, on a terminal, gives way to the next.
void Print(const std::string& text, bool stays = true);

// What went wrong, with what, and what to do about it.
struct Failure : std::runtime_error {
  Failure(const std::string& what, const std::string& advice, int exitCode = 1)
      : std::runtime_error(what + "\n  " + advice), code(exitCode) {}
  int code;
};

// A platform result with the system's words for it.
std::string ResultText(nimbra::Result result);

// Throws a Failure with what is known of the result, if it is one.
void Require(nimbra::Result result, const std::string& what);

}  // namespace mirror

#endif
