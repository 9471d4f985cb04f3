// The C++ layer's recording double as a shared library: what a binding calls, and what arrives of
// its arguments, is seen without Windows.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "tests/cpp-layer/recording-nimbra.h"

namespace {

std::string complaints;
std::unique_ptr<cpp_layer_test::RecordingNimbra> recording;

}  // namespace

namespace cpp_layer_test {

void Complain(const std::string& what) { complaints += what + "\n"; }

}  // namespace cpp_layer_test

// What the tests drive it with. A text that is given lives until the next call.
extern "C" {

// Begins anew; gives what was wrong with what came before, handles that are still there included.
const char* RecordingReset() {
  static std::string text;
  recording.reset();
  recording = std::make_unique<cpp_layer_test::RecordingNimbra>();
  text = std::exchange(complaints, {});
  return text.c_str();
}

void RecordingAnswer(const char* name, std::uint32_t result) { recording->Answer(name, result); }

void RecordingSetIdentity(const char* identity) { recording->SetIdentity(identity); }

// The calls since the last time, one a line.
const char* RecordingTake() {
  static std::string text;
  text.clear();
  for (const auto& call : recording->Take()) {
    text += call + "\n";
  }
  return text.c_str();
}

void RecordingPlay(const char* event, const CORVWinCFCallbackRecord* record) {
  recording->Play(event, *record);
}

bool RecordingFindThumbnail(const wchar_t* item, wchar_t* image) {
  return recording->Retriever()(item, image);
}

std::size_t RecordingDataSize() { return recording->Data().size(); }

const char* RecordingData() { return recording->Data().data(); }

}  // extern "C"
