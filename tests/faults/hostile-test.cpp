// What no client should pass, to every export that takes text, and identities of every kind.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/faults/matrix.h"

namespace nimbra_test {
namespace {

struct TextCall {
  const char* name;
  std::function<std::int64_t(Stage&, const char*)> call;
  // What null gives.
  std::int64_t forNull;
};

constexpr char kClsid[] = "{7B1D0E52-FA17-4F08-9C61-000000004712}";

// The release leaves the variable as it is.
void ReleaseRoot(Stage& stage) {
  CALL(CORVWinCFSyncRootRelease, &stage.root);
  stage.root = nullptr;
}

std::vector<TextCall> PathCalls() {
  return {
      {"identity by path",
       [](Stage& stage, const char* text) {
         char identity[64] = {};
         return CALL(CORVWinCFGetSyncRootIdentityByPath, text, identity);
       },
       -1},
      {"provider of a path",
       [](Stage& stage, const char* text) {
         return CALL(CORVWinCFIsPathUnderCorvDriveSyncRoot, text);
       },
       0},
      {"is placeholder",
       [](Stage& stage, const char* text) { return CALL(CORVWinCFIsPlaceholder, text); }, -1},
      {"is hydrated",
       [](Stage& stage, const char* text) { return CALL(CORVWinCFIsFullyHydrated, text); }, -1},
      {"is hydrated, wide",
       [](Stage& stage, const char* text) {
         // Byte by byte, as what is ill-formed has no other form.
         const std::string bytes = text == nullptr ? "" : text;
         const std::wstring wide(bytes.begin(), bytes.end());
         return CALL(CORVWinCFIsFullyHydratedW, text == nullptr ? nullptr : wide.c_str());
       },
       -1},
      {"a root's path",
       [](Stage& stage, const char* text) {
         const auto result = CALL(CORVWinCFSyncRootNew, &stage.root, text, 12);
         if (result == 0) {
           CALL(CORVWinCFSyncRootConnect, stage.root, stage.delegator);
         }
         ReleaseRoot(stage);
         return result;
       },
       -1},
      {"a placeholder's path",
       [](Stage& stage, const char* text) {
         CORVWinCFPlaceholderHandle placeholder = nullptr;
         const auto result = CALL(CORVWinCFPlaceholderNew, &placeholder, text);
         if (result == 0) {
           CALL(CORVWinCFPlaceholderOpen, placeholder);
           CALL(CORVWinCFPlaceholderCreate, placeholder, "identity", stage.meta);
         }
         CALL(CORVWinCFPlaceholderRelease, placeholder);
         return result;
       },
       -1},
  };
}

std::vector<TextCall> ObjectCalls() {
  return {
      {"create",
       [](Stage& stage, const char* text) {
         return CALL(CORVWinCFPlaceholderCreate, stage.placeholder, text, stage.meta);
       },
       -1},
      {"update",
       [](Stage& stage, const char* text) {
         CALL(CORVWinCFPlaceholderOpen, stage.placeholder);
         return CALL(CORVWinCFPlaceholderUpdate, stage.placeholder, text, stage.meta);
       },
       -1},
      {"convert",
       [](Stage& stage, const char* text) {
         return CALL(CORVWinCFPlaceholderConvertToPlaceholder, stage.placeholder, text);
       },
       -1},
      {"proactive transfer",
       [](Stage& stage, const char* text) {
         NewRoot(stage);
         const auto result = CALL(CORVWinCFSyncRootProactiveTransferToPlaceholder, stage.root,
                                  stage.placeholder, text);
         ReleaseRoot(stage);
         return result;
       },
       -1},
      {"an entry's class identifier",
       [](Stage& stage, const char* text) {
         return CALL(CORVWinCFSyncEngineUnregisterSystemFolder, text);
       },
       -1},
      {"an entry's root",
       [](Stage& stage, const char* text) {
         return CALL(CORVWinCFSyncEngineUnregister, text, kClsid, 4712, "NAS1", "home", "/");
       },
       -1},
  };
}

// Each text of an entry in turn, between others that are good.
TextCall EntryCall(const char* name, std::size_t which) {
  return {name,
          [which](Stage& stage, const char* text) {
            const std::string root = stage.folder.Utf8();
            const char* texts[] = {root.c_str(), kClsid, "NAS1", "home", "/"};
            texts[which] = text;
            const auto result = CALL(CORVWinCFSyncEngineRegister, texts[0], texts[1], 4712,
                                     texts[2], texts[3], texts[4]);
            if (result == 0) {
              CALL(CORVWinCFSyncEngineUnregister, texts[0], texts[1], 4712, texts[2], texts[3],
                   texts[4]);
            }
            return result;
          },
          -1};
}

std::vector<TextCall> RegistrationCalls() {
  return {{"a root's name",
           [](Stage& stage, const char* text) {
             NewRoot(stage);
             const auto result = CALL(CORVWinCFSyncRootRegister, stage.root, text);
             if (text != nullptr) CALL(CORVWinCFSyncRootUnregister, stage.root);
             ReleaseRoot(stage);
             return result;
           },
           E_POINTER},
          {"a root's new name",
           [](Stage& stage, const char* text) {
             NewRoot(stage);
             if (text != nullptr) CALL(CORVWinCFSyncRootRegister, stage.root, "home");
             const auto result = CALL(CORVWinCFSyncRootReregister, stage.root, text);
             if (text != nullptr) CALL(CORVWinCFSyncRootUnregister, stage.root);
             ReleaseRoot(stage);
             return result;
           },
           E_POINTER},
          EntryCall("a root's path in an entry", 0),
          EntryCall("an entry's class", 1),
          EntryCall("an entry's display name", 2),
          EntryCall("an entry's share name", 3),
          EntryCall("an entry's remote path", 4)};
}

// Texts in a buffer that ends where the memory that may be read ends.
class LastPage {
 public:
  explicit LastPage(const std::string& text) {
    SYSTEM_INFO system{};
    GetSystemInfo(&system);
    const std::size_t page = system.dwPageSize;
    const std::size_t size = (text.size() + 1 + page - 1) / page * page;
    memory_ = static_cast<char*>(
        VirtualAlloc(nullptr, size + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD previous = 0;
    VirtualProtect(memory_ + size, page, PAGE_NOACCESS, &previous);
    text_ = memory_ + size - text.size() - 1;
    text.copy(text_, text.size());
    text_[text.size()] = '\0';
  }
  ~LastPage() { VirtualFree(memory_, 0, MEM_RELEASE); }
  LastPage(const LastPage&) = delete;
  LastPage& operator=(const LastPage&) = delete;

  const char* Text() const { return text_; }

 private:
  char* memory_;
  char* text_;
};

std::vector<std::string> HostileTexts() {
  return {"",
          "\\",
          "/",
          "//",
          "\x80",
          "\xC3",
          "\xE2\x82",
          "\xF0\x9F\x98",
          "\xED\xA0\x80",
          "\xC0\xAF",
          "\xFF\xFE\xFD",
          "a\xF8\x88\x80\x80\x80z",
          "%s%n%x{0}",
          "C:\\a<>:\"|?*",
          std::string(32767, 'a'),
          std::string(32767, '/'),
          std::string(32767, '\\'),
          std::string(32767, '\xC3')};
}

TEST(HostileTextTest, NullIsAFailureAndWritesNothing) {
  Stage stage;
  OpenPlaceholder(stage);
  NewDelegator(stage);
  for (auto& calls : {PathCalls(), ObjectCalls(), RegistrationCalls()}) {
    for (const TextCall& one : calls) {
      SCOPED_TRACE(one.name);
      stage.gates.Begin();
      EXPECT_EQ(one.call(stage, nullptr), one.forNull);
      EXPECT_TRUE(stage.gates.End().lines.empty());
    }
  }
  ReleaseAll(stage);
}

// Not one of them ends the process, leaves the log's form or holds on to anything.
TEST(HostileTextTest, AnyTextIsSurvivedAndLetGo) {
  Stage stage;
  OpenPlaceholder(stage);
  NewDelegator(stage);
  MeetException(stage);
  for (auto& calls : {PathCalls(), ObjectCalls(), RegistrationCalls()}) {
    for (const TextCall& one : calls) {
      for (const std::string& text : HostileTexts()) {
        SCOPED_TRACE(one.name);
        SCOPED_TRACE(text.substr(0, 20) + " of " + std::to_string(text.size()));
        const LastPage page(text);
        stage.gates.Begin();
        const std::int64_t result = one.call(stage, page.Text());
        const Observation seen = stage.gates.End();
        EXPECT_LE(result, 0);
        for (const std::string& line : seen.lines) {
          EXPECT_TRUE(line.starts_with("lib\\cloud-filter\\") && line.ends_with("\r\n")) << line;
        }
        stage.cloud.Clear();
      }
      const Holdings before = HeldNow(stage);
      one.call(stage, HostileTexts().back().c_str());
      Holdings growth = Growth(before, HeldNow(stage));
      if (std::string_view(one.name).find("root") == std::string_view::npos &&
          std::string_view(one.name) != "proactive transfer") {
        EXPECT_EQ(growth, Holdings()) << one.name;
      }
    }
  }
  ReleaseAll(stage);
}

// Identities that come from the platform: their bytes and no others reach the client's buffer.
TEST(HostileIdentityTest, AnyBytesOfAnyLengthAreCopiedExactly) {
  Stage stage;
  OpenPlaceholder(stage);
  for (const std::size_t size : {0u, 1u, 2u, 4095u, 4096u}) {
    SCOPED_TRACE(size);
    PlaceholderFacts facts;
    for (std::size_t i = 0; i < size; ++i) {
      facts.identity.push_back(static_cast<char>(i % 3 == 0 ? 0 : i));
    }
    stage.cloud.SetPlaceholder(facts);
    std::string buffer(8192, '?');
    CALL(CORVWinCFPlaceholderGetFileIdentity, stage.placeholder, buffer.data());
    EXPECT_EQ(buffer.substr(0, size), facts.identity);
    EXPECT_EQ(buffer.substr(size), std::string(8192 - size, '?'));
  }
  ReleaseAll(stage);
}

}  // namespace
}  // namespace nimbra_test
