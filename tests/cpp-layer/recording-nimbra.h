#ifndef NIMBRA_TESTS_CPP_LAYER_RECORDING_NIMBRA_H_
#define NIMBRA_TESTS_CPP_LAYER_RECORDING_NIMBRA_H_

#include <nimbra/nimbra.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace cpp_layer_test {

inline constexpr char kGuid[] = "{00000000-0000-0000-0000-00000000000A}";

// What the program does about a mistake: it defines this.
void Complain(const std::string& what);

// Stands in for the library: the test program defines its functions itself, and the object made
// last records their calls and answers them. Everything succeeds unless told otherwise. A handle
// that is given back twice, was never given out or is still there at the end is complained of.
//
// A call is written down as the function's name without "CORVWinCF" and its arguments: handles and
// other addresses as numbers, texts in quotes, null as such.
class RecordingNimbra {
 public:
  RecordingNimbra();
  ~RecordingNimbra();
  RecordingNimbra(const RecordingNimbra&) = delete;
  RecordingNimbra& operator=(const RecordingNimbra&) = delete;

  // The calls since the last Take, in order.
  std::vector<std::string> Take();

  // What a function of that name gives from now on. A ...New function that fails makes no handle.
  void Answer(const std::string& name, std::uint32_t result) { results_[name] = result; }
  // What the two functions that fill a buffer write.
  void SetIdentity(const std::string& identity) { identity_ = identity; }

  // Calls the callback that was set for "Fetch", "Rename" and so on, with the delegator's context.
  void Play(const std::string& event, CORVWinCFCallbackRecord record = {}) const;
  // The data of the last transfer.
  [[nodiscard]] const void* LastBuffer() const { return buffer_; }
  // The data of all transfers, in their order.
  [[nodiscard]] const std::string& Data() const { return data_; }
  // The thumbnail retriever that was set last.
  [[nodiscard]] CORVWinCFThumbRetriever Retriever() const { return retriever_; }

 private:
  friend struct Functions;

  std::vector<std::string> calls_;
  std::map<std::string, std::uint32_t> results_;
  std::string identity_;
  std::map<std::string, CORVWinCFCallback> callbacks_;
  void* context_ = nullptr;
  const void* buffer_ = nullptr;
  std::string data_;
  CORVWinCFThumbRetriever retriever_ = nullptr;
  std::uintptr_t lastHandle_ = 0;
  std::set<std::uintptr_t> handles_;
};

}  // namespace cpp_layer_test

#endif
