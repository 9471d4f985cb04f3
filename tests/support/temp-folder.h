#ifndef NIMBRA_TESTS_SUPPORT_TEMP_FOLDER_H_
#define NIMBRA_TESTS_SUPPORT_TEMP_FOLDER_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace nimbra_test {

// A folder of the test's own below the user's temporary folder, removed with all it holds.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // Absolute, without a trailing separator.
  const std::wstring& Path() const { return path_; }
  // The path in UTF-8 with "\" between the components.
  std::string Utf8() const;
  // The path of an item in the folder in UTF-8, with "/" between all components.
  std::string ItemWithSlashes(std::string_view utf8Name) const;
  // The same with "\".
  std::string Item(std::string_view utf8Name) const;

  // Make an item; the name may hold "\" for items of folders made before. They give its UTF-8 path.
  std::string WriteFile(std::string_view utf8Name, std::string_view content) const;
  std::string WriteLargeFile(std::string_view utf8Name, std::int64_t size) const;
  std::string MakeFolder(std::string_view utf8Name) const;

 private:
  std::wstring path_;
};

// Conversions of the tests' own, independent of the library's.
std::wstring Wide(std::string_view utf8);
std::string Narrow(std::wstring_view text);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_TEMP_FOLDER_H_
