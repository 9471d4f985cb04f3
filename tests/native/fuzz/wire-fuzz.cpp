// Messages between the client half of the simulator and its daemon: a payload is read within its
// bounds, and what is well formed is written again byte by byte.

#include <tuple>
#include <vector>

#include "feed.h"
#include "protocol/wire.h"

namespace {

using cloud_filter::wire::Reader;
using cloud_filter::wire::Writer;
using nimbra_native::Require;

template <typename Message>
void CheckMessage(const std::vector<char>& payload) {
  Reader in(std::string_view(payload.data(), payload.size()));
  Message message;
  Get(in, message);
  Writer out;
  Put(out, message);
  const std::string written = out.Take();
  if (in.AtEnd()) {
    Require(written == std::string_view(payload.data(), payload.size()),
            "a message is written as it was read");
  } else if (in.Good()) {
    Require(written == std::string_view(payload.data(), written.size()),
            "what follows a message changes nothing");
  } else {
    Require(in.Get<std::uint64_t>() == 0 && in.GetBytes().empty() && !in.Good(),
            "nothing comes after the end");
  }
  Reader again(written);
  Message copy;
  Get(again, copy);
  Writer second;
  Put(second, copy);
  Require(again.AtEnd() && second.Bytes() == written, "what was written can be read");
}

template <typename... Messages>
void CheckOneOf(std::uint8_t choice, const std::vector<char>& payload) {
  std::size_t index = choice % sizeof...(Messages);
  (void)((index-- == 0 ? (CheckMessage<Messages>(payload), true) : false) || ...);
}

// Reads as the input says, against a cursor of its own.
void CheckReads(nimbra_native::Feed& feed, const std::vector<char>& payload) {
  Reader in(std::string_view(payload.data(), payload.size()));
  std::size_t at = 0;
  bool good = true;
  for (int i = 0; i < 16; ++i) {
    std::size_t wanted = 0;
    std::string_view got;
    switch (feed.Take<std::uint8_t>() % 3) {
      case 0:
        static_cast<void>(in.Get<std::uint8_t>());
        wanted = 1;
        break;
      case 1:
        static_cast<void>(in.Get<std::int64_t>());
        wanted = 8;
        break;
      default: {
        std::uint32_t length = 0;
        if (payload.size() - at >= sizeof length) {
          std::memcpy(&length, payload.data() + at, sizeof length);
        }
        got = in.GetBytes();
        wanted = sizeof length + std::size_t{length};
        if (in.Good()) Require(got.size() == length, "a text has the length it names");
      }
    }
    good = good && payload.size() - at >= wanted;
    at = good ? at + wanted : payload.size();
    Require(in.Good() == good, "reading past the end is noticed, and only that");
    Require(in.AtEnd() == (good && at == payload.size()), "the end is where it is");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace wire = cloud_filter::wire;
  nimbra_native::Feed feed(data, size);
  const auto choice = feed.Take<std::uint8_t>();
  if (choice >= 128) {
    nimbra_native::Feed steps(data, size);
    const std::string rest = feed.TakeRest();
    CheckReads(steps, {rest.begin(), rest.end()});
    return 0;
  }
  const std::string rest = feed.TakeRest();
  // A vector's capacity is exact, so a byte too far is one too many.
  CheckOneOf<wire::ItemRef, wire::Target, wire::Policies, wire::ProviderProcess, wire::Metadata,
             wire::CreateEntry, wire::PlaceholderInfo, wire::RootInfo, wire::CallbackEvent>(
      choice, {rest.begin(), rest.end()});
  return 0;
}
