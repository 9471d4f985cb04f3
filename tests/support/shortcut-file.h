#ifndef NIMBRA_TESTS_SUPPORT_SHORTCUT_FILE_H_
#define NIMBRA_TESTS_SUPPORT_SHORTCUT_FILE_H_

#include <iosfwd>
#include <string>
#include <string_view>

namespace nimbra_test {

// What a shortcut says, in UTF-8.
struct Shortcut {
  std::string target;
  std::string description;
  std::string icon;
  int iconIndex = 0;
  std::string arguments;
  std::string workingFolder;

  friend bool operator==(const Shortcut&, const Shortcut&) = default;
};
void PrintTo(const Shortcut& shortcut, std::ostream* out);

// As the shell reads it. COM must be initialised. Throws when the file is no shortcut.
Shortcut ReadShortcut(const std::string& path);
// As the bytes of the file say it (the published format of .lnk files).
Shortcut ParseShortcut(std::string_view bytes);

// Makes a shortcut of the test's own.
void WriteShortcut(const std::string& path, const std::string& target);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_SHORTCUT_FILE_H_
