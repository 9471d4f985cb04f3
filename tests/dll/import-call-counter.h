#ifndef NIMBRA_TESTS_DLL_IMPORT_CALL_COUNTER_H_
#define NIMBRA_TESTS_DLL_IMPORT_CALL_COUNTER_H_

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace nimbra_test {

// Counts every call that a loaded image makes through its import table, whatever the function, for
// the object's lifetime. As an image without imports of an allocator cannot allocate, a count of
// zero means that the image did nothing but compute.
class ImportCallCounter {
 public:
  explicit ImportCallCounter(HMODULE image);
  ~ImportCallCounter();
  ImportCallCounter(const ImportCallCounter&) = delete;
  ImportCallCounter& operator=(const ImportCallCounter&) = delete;

  // The functions called since the counter was made or cleared.
  std::vector<std::string> Called() const;
  void Clear();
  // The number of functions watched.
  std::size_t Watched() const { return watched_.size(); }

 private:
  struct Function {
    std::string name;
    void** slot;
    void* original;
    volatile std::int64_t* calls;
  };

  void* memory_ = nullptr;
  std::vector<Function> watched_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_DLL_IMPORT_CALL_COUNTER_H_
