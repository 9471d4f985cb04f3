// The registry keys, names and texts that describe a sync root to the shell.

#include "common/installation.h"
#include "feed.h"
#include "reference-text.h"
#include "win-cf/registration.h"
#include "windows-stand-in.h"

namespace {

using nimbra_native::ReferenceToUtf16;
using nimbra_native::RegistryValue;
using nimbra_native::Require;
using nimbra_native::Windows;

constexpr char16_t kManager[] =
    u"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\SyncRootManager\\";

std::u16string TextOf(const RegistryValue& value) {
  Require(value.type == REG_EXPAND_SZ && value.data.size() % 2 == 0 && value.data.size() >= 2,
          "a text is whole units");
  std::u16string text(value.data.size() / 2, u'\0');
  std::memcpy(text.data(), value.data.data(), value.data.size());
  Require(text.find(u'\0') == text.size() - 1, "a text ends with its terminator");
  text.pop_back();
  return text;
}

const RegistryValue& Find(const std::u16string& key, const std::u16string& name) {
  for (const RegistryValue& value : Windows().values) {
    if (value.key == key && value.name == name) return value;
  }
  Require(false, "the value is written");
  std::abort();
}

std::string LastPart(const std::string& path) {
  std::string part;
  for (const char c : path) {
    if (c == '\\') {
      part.clear();
    } else {
      part += c;
    }
  }
  return part;
}

struct Names {
  std::string path;
  std::string identity;
  std::string text;
};

void CheckValues(const Names& names, const std::u16string& key) {
  const auto& sid = Windows().sid;
  Require(TextOf(Find(key, u"DisplayNameResource")) ==
              ReferenceToUtf16("Corvane Drive (" + names.text + ", " + LastPart(names.path) + ")"),
          "the display name holds text and folder");
  Require(
      TextOf(Find(key, u"IconResource")) == Windows().folders[CSIDL_PROGRAM_FILESX86] +
                                                u"\\Corvane\\CorvaneDrive\\bin\\launcher.exe, 0",
      "the icon is the launcher's");
  Require(Find(key, u"Flags").data == std::vector<BYTE>({0x62, 0, 0, 0}), "the flags");
  Require(TextOf(Find(key + u"\\UserSyncRoots", sid)) == ReferenceToUtf16(names.path),
          "the user's root is the path");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nimbra_native::Feed feed(data, size);
  Windows() = {};
  const auto choice = feed.Take<std::uint8_t>();
  if ((choice & 1U) != 0) Windows().sid = u"S-1-5-21-1-2-3-1001";
  // A plain folder: conversion has its own target.
  const std::string folder = "C:\\" + std::string(feed.Take<std::uint8_t>(), 'p');
  if ((choice & 2U) != 0) Windows().folders[CSIDL_PROGRAM_FILESX86] = ReferenceToUtf16(folder);
  const auto takeText = [&feed] { return feed.TakeText(2000); };
  const Names names{takeText(), takeText(), takeText()};
  const std::string user = takeText();
  const corvdrive::cloud_filter::ShellRegistration registration{names.path, user, names.identity};

  const bool canWrite = (choice & 3U) == 3;
  Require(registration.Write(names.text) == canWrite, "what is needed is there, or it fails");
  const auto suffix = ReferenceToUtf16("CorvaneDrive!S-1-5-21-1-2-3-1001!" + names.identity);
  if (canWrite) CheckValues(names, kManager + suffix);
  Require(canWrite || !Windows().debugLines.empty(), "a failure is logged");
  Require(registration.Delete() == ((choice & 1U) != 0), "deleting needs the account only");
  if ((choice & 1U) != 0) {
    Require(Windows().deletedTrees.size() == 1 && Windows().deletedTrees[0].first == kManager &&
                Windows().deletedTrees[0].second == suffix,
            "the root's own tree is deleted, and nothing else");
  }
  Require(Windows().openHandles == 0, "every key is closed");
  return 0;
}
