// nimbractl info: the platform, the versions, and whether and why the gate is closed.

#include <nimbra/nimbra.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "console.h"
#include "items.h"
#include "json.h"
#include "platform.h"
#include "results.h"

namespace nimbractl {
namespace {

struct Facts {
  LibraryFile library = FindLibrary();
  WindowsVersion real = RealVersion();
  WindowsVersion reported = ReportedVersion();
  Gate gate = FindGate();
  CloudFilesDll dll = FindCloudFilesDll();
  PlatformAnswer platform = AskPlatform();
};

// What another program would find.
struct Program {
  std::string path;
  std::optional<bool> listsWindows10;  // nothing: it has no manifest
  std::optional<std::string> compatibilityMode;
  Gate gate;
};

Program Examine(const std::string& path) {
  const auto lists = ManifestListsWindows10(path);
  const auto compatibilityMode = CompatibilityMode(path);
  auto gate = Gate::kOpen;
  if (!RealVersion().IsNewEnough()) {
    gate = Gate::kWindowsTooOld;
  } else if (!lists.value_or(false)) {
    gate = Gate::kManifestMissing;
  } else if (compatibilityMode) {
    gate = Gate::kCompatibilityMode;
  }
  return {Utf8(AbsolutePath(path)), lists, compatibilityMode, gate};
}

// A further line of a value.
std::string Indented(const std::string& text) { return "\n" + std::string(16, ' ') + text; }

std::string VersionText(const std::string& version) {
  return version.empty() ? "no version in its resources" : version;
}

std::string CloudFilesText(const CloudFilesDll& dll) {
  if (dll.error != 0) return "not usable: " + ErrorText(dll.error);
  auto text = VersionText(dll.version) + "  " + dll.path;
  if (dll.missing.empty()) return text;
  text += Indented("lacks " + Count(static_cast<std::int64_t>(dll.missing.size()), "function") +
                   " that the library calls; what needs one fails:");
  for (const auto& name : dll.missing) text += Indented("  " + name);
  return text;
}

std::string PlatformText(const PlatformAnswer& answer) {
  if (answer.result < 0) return "does not answer: " + ResultText(answer.result);
  return "build " + std::to_string(answer.info.buildNumber) + ", revision " +
         std::to_string(answer.info.revisionNumber) + ", integration " +
         std::to_string(answer.info.integrationNumber);
}

std::string GateText(Gate gate) {
  if (gate == Gate::kOpen) return "open";
  return "CLOSED: " + GateReason(gate) + Indented(GateAdvice(gate));
}

std::string ManifestText(const Program& program) {
  if (!program.listsWindows10) return "it has none";
  return *program.listsWindows10 ? "lists Windows 10" : "does not list Windows 10";
}

// GateReason speaks of this process.
std::string ProgramGateText(const Program& program) {
  if (program.gate != Gate::kManifestMissing) return GateText(program.gate);
  return "CLOSED: Windows passes itself off as an older one to a program without the entry" +
         Indented(GateAdvice(program.gate));
}

void PrintText(const Facts& facts, const std::optional<Program>& program) {
  std::string text;
  const auto add = [&](const char* name, const std::string& value) {
    char title[24];
    std::snprintf(title, sizeof title, "%-16s", name);
    text += title + value + "\n";
  };
  add("nimbractl", NIMBRA_VERSION);
  add("Nimbra.dll", VersionText(facts.library.version) + "  " + facts.library.path);
  add("Windows", facts.real.Text());
  add("as reported",
      facts.reported.Text() + "  (what Windows tells this program, by its manifest)");
  add("cldapi.dll", CloudFilesText(facts.dll));
  add("platform", PlatformText(facts.platform));
  add("gate", GateText(facts.gate));
  add("streaming",
      "supported: " + YesNo(CORVWinCFIsWinVersionSupportFileStreaming()) +
          ", default: " + YesNo(CORVWinCFIsWinVersionDefaultFileStreaming()) +
          ", option hidden: " + YesNo(CORVWinCFIsWinVersionDisableUIFileStreamingOption()));
  if (program) {
    text += "\n";
    add("program", program->path);
    add("its manifest", ManifestText(*program));
    if (program->compatibilityMode) add("compatibility", *program->compatibilityMode);
    add("its gate", ProgramGateText(*program));
  }
  Write(Stream::kOutput, text);
}

Json ToJson(const WindowsVersion& version) {
  return {{"major", version.major}, {"minor", version.minor}, {"build", version.build}};
}

std::string Name(Gate gate) {
  switch (gate) {
    case Gate::kOpen:
      return "open";
    case Gate::kWindowsTooOld:
      return "windows-too-old";
    case Gate::kManifestMissing:
      return "manifest-missing";
    case Gate::kCompatibilityMode:
      return "compatibility-mode";
  }
  return {};
}

Json ToJson(Gate gate) {
  return {
      {"open", gate == Gate::kOpen}, {"state", Name(gate)}, {"reason", OrNull(GateReason(gate))}};
}

Json ToJson(const PlatformAnswer& answer) {
  Json json{{"answers", answer.result >= 0}, {"result", answer.result}};
  if (answer.result >= 0) {
    json["build"] = answer.info.buildNumber;
    json["revision"] = answer.info.revisionNumber;
    json["integration"] = answer.info.integrationNumber;
  }
  return json;
}

void PrintJson(const Facts& facts, const std::optional<Program>& program) {
  Json json{{"nimbractl", NIMBRA_VERSION}};
  json["library"] = {{"path", facts.library.path}, {"version", OrNull(facts.library.version)}};
  json["windows"] = {{"real", ToJson(facts.real)}, {"reported", ToJson(facts.reported)}};
  json["cldapi"] = {{"path", OrNull(facts.dll.path)},
                    {"version", OrNull(facts.dll.version)},
                    {"error", facts.dll.error},
                    {"missingFunctions", facts.dll.missing}};
  json["platform"] = ToJson(facts.platform);
  json["gate"] = ToJson(facts.gate);
  json["streaming"] = {{"supported", CORVWinCFIsWinVersionSupportFileStreaming()},
                       {"default", CORVWinCFIsWinVersionDefaultFileStreaming()},
                       {"optionHidden", CORVWinCFIsWinVersionDisableUIFileStreamingOption()}};
  if (program) {
    json["program"] = {
        {"path", program->path},
        {"hasManifest", program->listsWindows10.has_value()},
        {"listsWindows10", program->listsWindows10.value_or(false)},
        {"compatibilityMode", OrNull(program->compatibilityMode)},
        {"gate", {{"open", program->gate == Gate::kOpen}, {"state", Name(program->gate)}}}};
  }
  WriteLine(Stream::kOutput, JsonText(json));
}

}  // namespace

ExitCode RunInfo(const InfoOptions& options) {
  std::optional<Program> program;
  if (!options.program.empty()) program = Examine(options.program);
  const Facts facts;
  options.json ? PrintJson(facts, program) : PrintText(facts, program);
  const bool isReady = facts.gate == Gate::kOpen && facts.platform.result >= 0 &&
                       facts.dll.missing.empty() && (!program || program->gate == Gate::kOpen);
  return isReady ? ExitCode::kOk : ExitCode::kNoPlatform;
}

}  // namespace nimbractl
