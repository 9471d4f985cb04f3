#include "status-report.h"

#include <unistd.h>

#include <cstdio>
#include <vector>

#include "core.h"
#include "tree-walk.h"

namespace cloud_filter {
namespace {

constexpr std::int64_t kBlock = 512;

// A JSON string.
std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const auto letter : text) {
    if (letter == '"' || letter == '\\') {
      quoted += '\\';
      quoted += letter;
    } else if (static_cast<unsigned char>(letter) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(letter));
      quoted += escaped;
    } else {
      quoted += letter;
    }
  }
  return quoted + "\"";
}

std::string Field(const char* name, const std::string& json) { return Quoted(name) + ": " + json; }

std::string Field(const char* name, std::int64_t number) {
  return Field(name, std::to_string(number));
}

std::string Field(const char* name, bool value) {
  return Field(name, std::string(value ? "true" : "false"));
}

std::string Object(const std::vector<std::string>& fields, const std::string& indent) {
  std::string text = "{";
  for (std::size_t i = 0; i < fields.size(); ++i) {
    text += (i == 0 ? "\n" : ",\n") + indent + "  " + fields[i];
  }
  return text + "\n" + indent + "}";
}

std::string ProviderPart(const Connection& connection) {
  return Object({Field("windowsProcessId", std::int64_t{connection.provider.windowsProcessId}),
                 Field("unixProcessId", std::int64_t{connection.provider.unixProcessId}),
                 Field("image", Quoted(connection.provider.imagePath)),
                 Field("status", std::int64_t{connection.status})},
                "      ");
}

// All but the sizes, under the lock; those are counted without it.
std::vector<std::string> RootPart(Guard& guard, const RootPtr& root) {
  auto& core = guard.core;
  return {Field("path", Quoted(root->record.path)),
          Field("providerName", Quoted(root->record.providerName)),
          Field("providerVersion", Quoted(root->record.providerVersion)),
          Field("mounted", root->frontEnd != nullptr),
          Field("connected", root->connection != nullptr),
          Field("provider", root->connection == nullptr ? std::string("null")
                                                        : ProviderPart(*root->connection)),
          Field("placeholders", core.store.CountItems(root->record.id)),
          Field("pendingFetches", static_cast<std::int64_t>(core.hydration.PendingFetches(*root))),
          Field("pendingQuestions", static_cast<std::int64_t>(core.notifications.Pending(*root)))};
}

}  // namespace

std::string StatusReport(Core& core) {
  std::vector<std::pair<RootPtr, std::vector<std::string>>> roots;
  {
    Guard guard(core);
    for (const auto& [id, root] : core.roots) roots.emplace_back(root, RootPart(guard, root));
  }
  std::string list;
  for (auto& [root, fields] : roots) {
    std::int64_t onDisk = 0;
    std::int64_t total = 0;
    WalkTree(root->folder.Get(), WalkOrder::kFolderFirst, [&](const TreeEntry& entry) {
      if (!entry.facts.IsFile()) return true;
      onDisk += entry.facts.blocks * kBlock;
      total += entry.facts.size;
      return true;
    });
    fields.push_back(Field("bytesOnDisk", onDisk));
    fields.push_back(Field("bytesTotal", total));
    list += (list.empty() ? "\n    " : ",\n    ") + Object(fields, "    ");
  }
  return Object({Field("processId", std::int64_t{getpid()}),
                 Field("roots", "[" + list + (list.empty() ? "]" : "\n  ]"))},
                "") +
         "\n";
}

}  // namespace cloud_filter
