// mirror: shows a folder as files that take no room until a program opens them.

#include "actions.h"
#include "provider.h"

namespace mirror {
namespace {

constexpr char kHelp[] = R"(
  mirror [options] <source folder> <sync root>   show the source's files in the sync root: they
                                                 take no room until a program opens them
  mirror <action> <file or folder>               act on what lies in a sync root, and exit

Options
  --session N         the root's number, 0 to 2147483647 (default 1)
  --rate N            slow each transfer down to N megabytes a second
  --timeout N         stop after N seconds; without it, serve until Ctrl+C
  --stop-file PATH    stop as soon as this file exists
  --until-eof         stop at the end of standard input
Actions
  --state             show for every item what is on disk, pinned, in sync, and its identity
  --hydrate-all       fetch all of it now
  --dehydrate         give the room back
  --pin, --unpin      keep on this device, or no longer
  --exclude           keep out of synchronisation
  --unregister        make the sync root a normal folder again; what is not on disk disappears

  mirror C:\Photos C:\Cloud
  mirror --session 7 --rate 2 C:\Photos C:\Cloud
  mirror --hydrate-all C:\Cloud\2024

The source is only read: what is renamed or deleted in the sync root comes back with the next start.
)";

std::atomic<bool> stopRequested = false, finished = false;

struct Options {
  std::string action, session = "1", rate = "0", timeout = "0", stopFile;
  std::vector<fs::path> paths;
  bool untilEof = false;
};

double NumberOf(const std::string& name, const std::string& text, double most) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (!text.empty() && *end == 0 && number >= 0 && number <= most) return number;
  throw Usage(name + " takes a number from 0 to " + Number(most, 0));
}

Options Parse(const std::vector<std::string>& arguments) {
  Options options;
  const std::map<std::string_view, std::string*> values{{"--session", &options.session},
                                                        {"--rate", &options.rate},
                                                        {"--timeout", &options.timeout},
                                                        {"--stop-file", &options.stopFile}};
  for (auto at = arguments.begin(); at != arguments.end(); ++at) {
    if (const auto value = values.find(*at); value != values.end()) {
      if (++at == arguments.end()) throw Usage(std::string(value->first) + " needs a value");
      *value->second = *at;
    } else if (*at == "--until-eof") {
      options.untilEof = true;
    } else if (!at->starts_with("--")) {
      const auto path = fs::absolute(Path(*at)).lexically_normal().make_preferred();
      options.paths.push_back(path.has_filename() ? path : path.parent_path());
    } else if (!std::exchange(options.action, *at).empty()) {
      throw Usage("one action at a time");
    }
  }
  return options;
}

// Without its manifest a program is told that Windows is an older one; the kernel tells the truth.
void RequirePlatform() {
  CORVWinCFPlatformInfo info{};
  if (CORVWinCFGetPlatformInfo(&info) == 0) {
    if (info.buildNumber != 0) return;
    throw Failure("the Cloud Files platform does not answer",
                  "cldapi.dll is missing, or the cloud filter is not running: start it first");
  }
  RTL_OSVERSIONINFOW windows{};
  windows.dwOSVersionInfoSize = sizeof windows;
  const auto query = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion");
  reinterpret_cast<LONG(WINAPI*)(void*)>(reinterpret_cast<void*>(query))(&windows);
  const auto build = "this is Windows build " + std::to_string(windows.dwBuildNumber);
  if (windows.dwMajorVersion < 10 || windows.dwBuildNumber < 17134) {
    throw Failure(build, "on-demand files need Windows 10, version 1803 (build 17134), or later");
  }
  throw Failure(build + ", but Nimbra takes it for an older one",
                "mirror.exe lacks its manifest with the supportedOS entry: build it again with it");
}

BOOL WINAPI OnConsoleEvent(DWORD event) {
  stopRequested = true;
  // Of the other events Windows gives notice only: it ends the program once this returns.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) finished.wait(false);
  return TRUE;
}

void StopAtEndOfInput() {
  std::thread([] {
    while (std::cin.get() != EOF) continue;
    stopRequested = true;
  }).detach();
}

void RequireFolders(const fs::path& source, const fs::path& root) {
  for (const auto& folder : {source, root}) {
    if (fs::is_directory(folder)) continue;
    throw Failure("there is no folder " + Utf8(folder), "create it, or correct its name");
  }
  const auto isInside = [](const fs::path& inner, const fs::path& outer) {
    const auto way = inner.lexically_relative(outer);
    return !way.empty() && *way.begin() != "..";
  };
  if (!isInside(source, root) && !isInside(root, source)) return;
  throw Failure("the source and the sync root lie one in the other", "choose two folders apart");
}

void RequireRegistered(Provider& provider, const fs::path& root, const std::string& session) {
  const auto identity = RootIdentity(root);
  if (identity.empty()) return Require(provider.Register(), "cannot register " + Utf8(root));
  if (identity == RootIdentity(root.parent_path())) {
    throw Failure(Utf8(root) + " lies inside another sync root", "choose another folder");
  }
  if (identity.ends_with(".session." + session)) return;  // by an earlier run
  throw Failure(Utf8(root) + " is registered as " + identity,
                "give that number with --session, or --unregister it first");
}

void ShowUntilStopped(Provider& provider, Console& console, double timeout,
                      const fs::path& stopFile) {
  const Seconds interval(console.isTerminal ? 0.2 : 5);
  const auto start = Clock::now();
  std::string shown;
  for (auto next = start; !stopRequested; Sleep(50)) {
    if (timeout > 0 && Clock::now() - start > Seconds(timeout)) return;
    if (!stopFile.empty() && fs::exists(stopFile)) return;
    if (Clock::now() < next) continue;
    next = Clock::now() + std::chrono::duration_cast<Clock::duration>(interval);
    if (const auto now = provider.Summary(); now != shown) console.Summary(shown = now, false);
  }
}

int Serve(const Options& options) {
  const auto &source = options.paths[0], &root = options.paths[1];
  const auto session = static_cast<unsigned>(NumberOf("--session", options.session, 2147483647));
  const double rate = NumberOf("--rate", options.rate, 1e6) * 1e6;
  const double timeout = NumberOf("--timeout", options.timeout, 1e9);
  RequireFolders(source, root);
  Console console;
  Provider provider(source, root, session, rate, console);
  RequireRegistered(provider, root, std::to_string(session));
  Require(provider.Connect(), "cannot connect " + Utf8(root));
  SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  if (options.untilEof) StopAtEndOfInput();
  provider.Populate(stopRequested);
  console.Line("mirror: ready");
  ShowUntilStopped(provider, console, timeout, Path(options.stopFile));
  provider.Disconnect();
  console.Summary(provider.Summary(), true);
  console.Line("mirror: stopped");
  finished = true;
  finished.notify_all();
  return 0;
}

int Run(const std::vector<std::string>& arguments) {
  const auto options = Parse(arguments);
  if (options.action == "--help") return std::cout << kHelp, 0;
  const auto wanted = options.action.empty() ? 2U : 1U;
  if (options.paths.size() != wanted) {
    throw Usage(wanted == 2 ? "two folders are needed: the source and the sync root"
                            : options.action + " needs one file or folder");
  }
  RequirePlatform();
  return wanted == 2 ? Serve(options) : Act(options.action, options.paths[0]);
}

}  // namespace
}  // namespace mirror

int wmain(int count, wchar_t** texts) try {
  SetConsoleOutputCP(CP_UTF8);
  _setmode(_fileno(stdout), _O_BINARY);
  std::setvbuf(stdout, nullptr, _IOFBF, 1 << 16);  // no character of several bytes is cut in two
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(mirror::Utf8(texts[i]));
  return mirror::Run(arguments);
} catch (const mirror::Usage& error) {
  std::cerr << "mirror: " << error.what() << "\n  mirror --help shows how to use it\n";
  return 2;
} catch (const std::filesystem::filesystem_error& error) {
  std::cerr << "mirror: cannot read " << mirror::Utf8(error.path1()) << " ("
            << error.code().message() << ")\n  check that it is there and that you may read it\n";
  return 1;
} catch (const std::exception& error) {
  std::cerr << "mirror: " << error.what() << "\n";
  return 1;
}
