#include "win-cf/registry-key.h"

#include <windows.h>

#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/heap-watch.h"
#include "tests/support/log-capture.h"
#include "tests/support/registry-tree.h"
#include "tests/support/registry-watch.h"
#include "tests/support/temp-folder.h"

namespace {

using corvdrive::cloud_filter::RegistryKey;
using nimbra_test::IsLogLine;
using nimbra_test::kRegistryKeySource;
using nimbra_test::Narrow;
using nimbra_test::RegistryCall;
using nimbra_test::RegistryFunction;
using nimbra_test::StoredNumber;
using nimbra_test::StoredText;
using nimbra_test::StoredValue;
using nimbra_test::Wide;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr REGSAM kAccess = 0x2010F;

class RegistryKeyTest : public testing::Test {
 protected:
  RegistryKeyTest()
      : tree_(HKEY_CURRENT_USER,
              L"Software\\Nimbra tests\\" + std::to_wstring(GetCurrentProcessId())) {}

  std::string Path() const { return Narrow(tree_.Path()); }

  // What the only call of that function was.
  RegistryCall Only(RegistryFunction function) const {
    const auto calls = watch_.CallsOf(function);
    EXPECT_EQ(calls.size(), 1u);
    return calls.empty() ? RegistryCall{} : calls.front();
  }

  nimbra_test::RegistryTree tree_;
  nimbra_test::LogCapture log_;
  nimbra_test::RegistryWatch watch_;
};

TEST_F(RegistryKeyTest, HasNoVirtualOperationsAndNoCopies) {
  static_assert(!std::is_polymorphic_v<RegistryKey>);
  static_assert(!std::is_copy_constructible_v<RegistryKey>);
  static_assert(!std::is_copy_assignable_v<RegistryKey>);
  // The root, a narrow string and the handle.
  EXPECT_EQ(sizeof(RegistryKey), sizeof(HKEY) + sizeof(std::string) + sizeof(HKEY));
}

TEST_F(RegistryKeyTest, CreatesAnAbsentKeyWithAllMissingOnesAbove) {
  const RegistryKey key(HKEY_CURRENT_USER, Path() + R"(\one\two\three)");

  EXPECT_TRUE(tree_.Exists(L"one\\two\\three"));
  const RegistryCall call = Only(RegistryFunction::CreateKey);
  EXPECT_EQ(call.key, HKEY_CURRENT_USER);
  EXPECT_EQ(call.name, tree_.Path() + L"\\one\\two\\three");
  EXPECT_EQ(call.reserved, 0u);
  EXPECT_FALSE(call.hasClass);
  EXPECT_EQ(call.options, 0u);
  EXPECT_EQ(call.access, kAccess);
  EXPECT_FALSE(call.hasSecurity);
  EXPECT_FALSE(call.asksDisposition);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RegistryKeyTest, OpensAPresentKeyAndLeavesItsContent) {
  tree_.SetNumber(L"", L"kept", 7);

  {
    RegistryKey key(HKEY_CURRENT_USER, Path());
    EXPECT_TRUE(key.SetValue("new", DWORD{8}));
  }

  EXPECT_EQ(tree_.Value(L"", L"kept"), StoredNumber(7));
  EXPECT_EQ(tree_.Value(L"", L"new"), StoredNumber(8));
}

TEST_F(RegistryKeyTest, ConvertsItsPathFromUtf8) {
  RegistryKey key(HKEY_CURRENT_USER, Path() +
                                         "\\Gr\xC3\xBC\xC3\x9F"
                                         "e \xE6\x97\xA5 \xF0\x9F\x98\x80");
  EXPECT_TRUE(key.SetValue("n", DWORD{1}));
  EXPECT_EQ(tree_.Value(L"Gr\u00FC\u00DFe \u65E5 \U0001F600", L"n"), StoredNumber(1));
}

TEST_F(RegistryKeyTest, ClosesItsKeyExactlyOnce) {
  HKEY opened = nullptr;
  {
    const RegistryKey key(HKEY_CURRENT_USER, Path());
    opened = Only(RegistryFunction::CreateKey).opened;
    EXPECT_THAT(watch_.CallsOf(RegistryFunction::CloseKey), IsEmpty());
  }
  EXPECT_EQ(Only(RegistryFunction::CloseKey).key, opened);
  EXPECT_EQ(watch_.StillOpen(), 0);
}

TEST_F(RegistryKeyTest, AnEmptyPathMakesNoRegistryCallAndNoKey) {
  {
    RegistryKey key(HKEY_CURRENT_USER, "");
    EXPECT_THAT(log_.Lines(), IsEmpty());

    EXPECT_FALSE(key.SetValue("name", DWORD{1}));
    EXPECT_FALSE(key.SetValue("name", std::string("text")));
    EXPECT_FALSE(key.SetValue("name", "text"));
    EXPECT_FALSE(key.DeleteValue("name"));
    EXPECT_FALSE(key.DeleteTree(""));
    EXPECT_FALSE(key.DeleteTree("sub"));
  }

  EXPECT_THAT(watch_.Calls(), IsEmpty());
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kRegistryKeySource, "registry not good"),
                                        IsLogLine(kRegistryKeySource, "registry not good"),
                                        IsLogLine(kRegistryKeySource, "registry not good"),
                                        IsLogLine(kRegistryKeySource, "reg is not good "),
                                        IsLogLine(kRegistryKeySource, "reg is not good ")));
}

// The platform does not promise to leave the output alone; the refused call here writes garbage.
TEST_F(RegistryKeyTest, AFailedOpenIsSilentAndLeavesNoKeyWhateverTheCallWrote) {
  watch_.FailCall(RegistryFunction::CreateKey, 1, ERROR_ACCESS_DENIED);
  {
    RegistryKey key(HKEY_CURRENT_USER, Path());
    EXPECT_THAT(log_.Lines(), IsEmpty());

    EXPECT_FALSE(key.SetValue("name", DWORD{1}));
    EXPECT_FALSE(key.DeleteValue("name"));
    EXPECT_FALSE(key.DeleteTree("sub"));
  }

  EXPECT_EQ(watch_.Calls().size(), 1u) << "only the refused call";
  // The path was not stored either.
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kRegistryKeySource, "registry not good"),
                                        IsLogLine(kRegistryKeySource, "reg is not good ")));
}

TEST_F(RegistryKeyTest, WritesANumberWithFourBytes) {
  RegistryKey key(HKEY_CURRENT_USER, Path());
  const DWORD number = 0xFEDCBA98;

  EXPECT_TRUE(key.SetValue("number", number));

  EXPECT_EQ(tree_.Value(L"", L"number"), StoredNumber(number));
  const RegistryCall call = Only(RegistryFunction::SetValue);
  EXPECT_EQ(call.key, Only(RegistryFunction::CreateKey).opened);
  EXPECT_EQ(call.name, L"number");
  EXPECT_EQ(call.reserved, 0u);
  EXPECT_EQ(call.type, static_cast<DWORD>(REG_DWORD));
  EXPECT_EQ(call.data.size(), 4u);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RegistryKeyTest, WritesEveryTextAsExpandableWithItsTerminator) {
  const std::vector<std::string> texts = {
      "",
      "x",
      "plain text",
      R"(%SystemRoot%\system32\shell32.dll)",
      // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): the escape would take the "e" in.
      "Gr\xC3\xBC\xC3\x9F"
      "e \xE6\x97\xA5 \xF0\x9F\x98\x80",
      std::string(20000, 'a'),
  };
  RegistryKey key(HKEY_CURRENT_USER, Path());
  for (const std::string& text : texts) {
    SCOPED_TRACE(text.substr(0, 40));
    watch_.Clear();
    const std::wstring wide = Wide(text);

    EXPECT_TRUE(key.SetValue("text", text));

    EXPECT_EQ(tree_.Value(L"", L"text"), StoredText(REG_EXPAND_SZ, wide));
    const RegistryCall call = Only(RegistryFunction::SetValue);
    EXPECT_EQ(call.type, static_cast<DWORD>(REG_EXPAND_SZ));
    EXPECT_EQ(call.data.size(), wide.size() * 2 + 2);
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RegistryKeyTest, AcceptsPointersToTextAsTexts) {
  RegistryKey key(HKEY_CURRENT_USER, Path());
  const char* text = "pointer";

  EXPECT_TRUE(key.SetValue("text", text));
  EXPECT_EQ(tree_.Value(L"", L"text"), StoredText(REG_EXPAND_SZ, L"pointer"));

  watch_.FailCall(RegistryFunction::SetValue, 1, ERROR_ACCESS_DENIED);
  EXPECT_FALSE(key.SetValue("text", text));
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kRegistryKeySource, "Failed to set value")));
}

TEST_F(RegistryKeyTest, AnEmptyNameMeansTheDefaultValue) {
  RegistryKey key(HKEY_CURRENT_USER, Path());
  EXPECT_TRUE(key.SetValue("", std::string("default")));
  EXPECT_EQ(tree_.Value(L"", L""), StoredText(REG_EXPAND_SZ, L"default"));
}

TEST_F(RegistryKeyTest, ConvertsValueNamesFromUtf8) {
  RegistryKey key(HKEY_CURRENT_USER, Path());
  EXPECT_TRUE(key.SetValue("\xE6\x97\xA5", DWORD{3}));
  EXPECT_EQ(tree_.Value(L"", L"\u65E5"), StoredNumber(3));
  EXPECT_TRUE(key.DeleteValue("\xE6\x97\xA5"));
  EXPECT_EQ(tree_.Value(L"", L"\u65E5"), std::nullopt);
}

TEST_F(RegistryKeyTest, ARefusedWriteIsLoggedWithoutDetails) {
  RegistryKey key(HKEY_CURRENT_USER, Path());
  watch_.FailCall(RegistryFunction::SetValue, 1, ERROR_ACCESS_DENIED);
  watch_.FailCall(RegistryFunction::SetValue, 2, ERROR_KEY_DELETED);

  EXPECT_FALSE(key.SetValue("name", DWORD{1}));
  EXPECT_FALSE(key.SetValue("name", std::string("text")));

  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kRegistryKeySource, "Failed to set value"),
                                        IsLogLine(kRegistryKeySource, "Failed to set value")));
  // The object is as good as before.
  EXPECT_TRUE(key.SetValue("name", DWORD{2}));
  EXPECT_EQ(tree_.Value(L"", L"name"), StoredNumber(2));
}

TEST_F(RegistryKeyTest, DeletesOneValue) {
  tree_.SetNumber(L"", L"gone", 1);
  tree_.SetNumber(L"", L"kept", 2);
  RegistryKey key(HKEY_CURRENT_USER, Path());

  EXPECT_TRUE(key.DeleteValue("gone"));

  EXPECT_EQ(tree_.ValueNames(), std::vector<std::wstring>{L"kept"});
  EXPECT_EQ(Only(RegistryFunction::DeleteValue).name, L"gone");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RegistryKeyTest, DeletingAnAbsentValueFailsWithItsCode) {
  RegistryKey key(HKEY_CURRENT_USER, Path());
  EXPECT_FALSE(key.DeleteValue("absent"));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kRegistryKeySource, "Failed to RegDeleteValue, key=" + Path() +
                                                            " value=absent hr=-2147024894")));
}

// An empty name stands for the key itself, or its default value: a name that cannot be converted
// must not become one. The names are too long for the room that a conversion has on the stack.
TEST_F(RegistryKeyTest, WithoutMemoryForANameNothingElseIsTouched) {
  const std::string name(600, 'n');
  tree_.SetNumber(L"other", L"n", 2);
  tree_.SetNumber(L"", L"", 3);
  const std::string path = Path();
  watch_.Clear();
  const int failures = nimbra_test::ForEachFailingAllocation([&](auto watched, const bool&) {
    watched([&] {
      try {
        RegistryKey key(HKEY_CURRENT_USER, path);
        static_cast<void>(key.SetValue(name, DWORD{7}));
        static_cast<void>(key.SetValue(name, name));
        static_cast<void>(key.DeleteValue(name));
        static_cast<void>(key.DeleteTree(name));
      } catch (const std::bad_alloc&) {
        SUCCEED() << "there was no memory for a line of the log";
      }
    });
    EXPECT_EQ(tree_.Value(L"other", L"n"), StoredNumber(2));
    EXPECT_EQ(tree_.Value(L"", L""), StoredNumber(3));
  });
  EXPECT_GT(failures, 5);
  for (const RegistryCall& call : watch_.Calls()) {
    if (call.function != RegistryFunction::CloseKey) {
      EXPECT_GT(call.name.value_or(L"").size(), 15u);
      EXPECT_TRUE(call.type != REG_EXPAND_SZ || call.data.size() > 15)
          << "nor is an empty text set";
    }
  }
}

struct CodeRow {
  LSTATUS code;
  const char* printed;
};

// Positive codes become failures of the Win32 facility by their low 16 bits; negative ones are
// HRESULTs already.
TEST_F(RegistryKeyTest, PrintsRegistryErrorsAsResults) {
  const CodeRow rows[] = {
      {ERROR_ACCESS_DENIED, "-2147024891"},
      {ERROR_KEY_DELETED, "-2147023878"},
      {0x12345, "-2147015867"},
      {static_cast<LSTATUS>(0x80004005), "-2147467259"},
  };
  RegistryKey key(HKEY_CURRENT_USER, Path());
  for (const CodeRow& row : rows) {
    SCOPED_TRACE(row.printed);
    log_.Clear();
    watch_.FailCall(RegistryFunction::DeleteValue, 1, row.code);
    watch_.FailCall(RegistryFunction::DeleteTree, 1, row.code);

    EXPECT_FALSE(key.DeleteValue("v"));
    EXPECT_FALSE(key.DeleteTree("sub"));

    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(IsLogLine(kRegistryKeySource, "Failed to RegDeleteValue, key=" + Path() +
                                                      " value=v hr=" + row.printed),
                    IsLogLine(kRegistryKeySource,
                              "Failed to RegDeleteTree, key=" + Path() + " hr=" + row.printed)));
  }
}

TEST_F(RegistryKeyTest, DeletesANamedSubtreeOnly) {
  tree_.SetNumber(L"sub\\deep\\deeper", L"n", 1);
  tree_.SetNumber(L"other", L"n", 2);
  tree_.SetNumber(L"", L"n", 3);
  RegistryKey key(HKEY_CURRENT_USER, Path());

  EXPECT_TRUE(key.DeleteTree("sub"));

  EXPECT_EQ(tree_.SubkeyNames(), std::vector<std::wstring>{L"other"});
  EXPECT_EQ(tree_.Value(L"other", L"n"), StoredNumber(2));
  EXPECT_EQ(tree_.Value(L"", L"n"), StoredNumber(3));
  EXPECT_EQ(Only(RegistryFunction::DeleteTree).name, L"sub");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RegistryKeyTest, DeletingTheEmptySubtreeEmptiesTheKeyAndKeepsIt) {
  tree_.SetNumber(L"sub\\deep", L"n", 1);
  tree_.SetNumber(L"", L"n", 3);
  RegistryKey key(HKEY_CURRENT_USER, Path());

  EXPECT_TRUE(key.DeleteTree(""));

  EXPECT_TRUE(tree_.Exists());
  EXPECT_THAT(tree_.SubkeyNames(), IsEmpty());
  EXPECT_THAT(tree_.ValueNames(), IsEmpty());
  EXPECT_EQ(Only(RegistryFunction::DeleteTree).name, std::nullopt);
  EXPECT_TRUE(key.SetValue("again", DWORD{4})) << "the key stays open and good";
}

TEST_F(RegistryKeyTest, DeletingAnAbsentSubtreeNamesTheKeyAndNotTheSubtree) {
  RegistryKey key(HKEY_CURRENT_USER, Path());
  EXPECT_FALSE(key.DeleteTree("absent"));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kRegistryKeySource,
                                    "Failed to RegDeleteTree, key=" + Path() + " hr=-2147024894")));
}

}  // namespace
