#include "command-line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <utility>

#include "commands.h"
#include "console.h"

namespace nimbractl {
namespace {

constexpr char kFooter[] = R"(Examples:
  nimbractl info
  nimbractl state --recursive C:\Cloud
  nimbractl hydrate C:\Cloud\2024\*.jpg
  nimbractl COMMAND --help

Exit codes: 0 all went well, 1 something failed, 2 wrong arguments, 3 the platform is not available
(nimbractl info tells why). Failures are written to the error stream.)";

// How a command may end, below its examples.
constexpr char kItemCodes[] =
    "Exit codes: 0 all went well, 1 something failed, for some items or all, 2 wrong arguments,\n"
    "3 the platform is not available (nimbractl info tells why).";
constexpr char kRootCodes[] =
    "Exit codes: 0 it went well, 1 it failed, 2 wrong arguments, 3 the platform is not available\n"
    "(nimbractl info tells why).";
constexpr char kEntryCodes[] =
    "Exit codes: 0 it went well, 1 it failed, 2 wrong arguments, 3 the gate is closed (nimbractl\n"
    "info tells why).";
constexpr char kListCodes[] =
    "Exit codes: 0 it went well, 1 not all of the output could be written, 2 wrong arguments.";

// For examples.
constexpr char kSomeClsid[] = "{96192FD0-AD1A-4677-B4FF-D6C144466725}";

constexpr char kSeveralItems[] = "files and folders; the last part of one may have wildcards";

// Where the parser takes several values, "[a, b]" is a list to it and "{}" an empty one; both are
// good names of files.
std::string AsOnePath(const std::string& argument) {
  const bool isList = argument.starts_with('[') && argument.ends_with(']');
  return isList || argument == "{}" ? ".\\" + argument : argument;
}

// What the chosen command is to do, once the arguments are understood.
using Chosen = std::function<ExitCode()>;

class CommandLine {
 public:
  CommandLine() {
    app_.set_version_flag("--version", "nimbractl " NIMBRA_VERSION, "show the version, and exit");
    app_.set_help_flag("--help,-h", "show this, and exit");
    app_.allow_windows_style_options(false);  // a path may begin with a slash
    app_.require_subcommand(1);
    app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app_.get_formatter()->label("REQUIRED", "");
    app_.get_formatter()->label("Positionals", "Arguments");
    app_.footer(kFooter);
    AddInfo();
    AddState();
    AddHydrate();
    AddStateChanges();
    AddIdentity();
    AddRoots();
    AddExplorer();
    AddLog();
  }

  ExitCode Run(std::vector<std::string> arguments) {
    if (!arguments.empty() && takesItems_.contains(arguments.front())) {
      std::transform(arguments.begin(), arguments.end(), arguments.begin(), AsOnePath);
    }
    std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the end
    try {
      app_.parse(std::move(arguments));
    } catch (const CLI::Success& wish) {
      std::ostringstream text, unused;
      app_.exit(wish, text, unused);
      Write(Stream::kOutput, text.str());
      return ExitCode::kOk;
    } catch (const CLI::Error& error) {
      throw WrongArguments(error);
    }
    return chosen_();
  }

 private:
  Failure WrongArguments(const CLI::Error& error) const {
    const auto* app = &app_;
    std::string command = "nimbractl ";
    while (!app->get_subcommands().empty()) {
      app = app->get_subcommands().front();
      command += app->get_name() + " ";
    }
    // The parser misses a command before it looks at the word that is none.
    const bool needsCommand = app->get_require_subcommand_min() > 0;
    const auto unknown = app->remaining();
    std::string what = error.what();
    if (needsCommand) what = "a command is missing";
    if (needsCommand && !unknown.empty()) what = "there is no command '" + unknown.front() + "'";
    return {what, command + "--help shows how to use it", ExitCode::kUsage};
  }

  // A command with options of its own, which `run` gets when it is the chosen one.
  template <class Options, class Run>
  std::pair<CLI::App*, std::shared_ptr<Options>> Add(CLI::App& parent, const std::string& name,
                                                     const std::string& description,
                                                     const std::string& examples,
                                                     const std::string& exitCodes, Run run) {
    auto* command = parent.add_subcommand(name, description);
    const auto options = std::make_shared<Options>();
    command->footer(examples + "\n\n" + exitCodes)->group("Commands");
    command->final_callback([this, options, run = std::move(run)] {
      chosen_ = [options, run] { return run(*options); };
    });
    return {command, options};
  }

  void AddPaths(CLI::App& command, ItemOptions& options, bool recursive = true) {
    takesItems_.insert(command.get_name());
    command.add_option("PATH", options.paths, kSeveralItems)->required()->type_name("");
    if (recursive) {
      command.add_flag("-r,--recursive", options.recursive,
                       "all below the folders among them, too");
    }
  }

  static void AddJson(CLI::App& command, bool& json) {
    command.add_flag("--json", json, "print JSON");
  }

  void AddInfo() {
    auto [command, options] = Add<InfoOptions>(
        app_, "info", "show the platform, the versions, and whether and why the gate is closed",
        "With --program it looks whether the gate would be open for that program, too.\n\n"
        "Examples:\n  nimbractl info\n  nimbractl info --json\n"
        "  nimbractl info --program C:\\Client\\client.exe",
        "Exit codes: 0 sync roots can be served here, 1 the program cannot be read, 2 wrong\n"
        "arguments, 3 sync roots cannot be served: the gate is closed, cldapi.dll is missing or\n"
        "lacks a function, or the platform does not answer.",
        RunInfo);
    command
        ->add_option("--program", options->program,
                     "look whether this client's manifest opens the gate for it")
        ->type_name("EXE");
    AddJson(*command, options->json);
  }

  void AddState() {
    auto [command, options] = Add<ItemOptions>(
        app_, "state", "show what is a placeholder, hydrated, pinned, excluded, in sync",
        "Of what is no placeholder, pinned, excluded and in sync are not known (-).\n\n"
        "Examples:\n  nimbractl state C:\\Cloud\\a.txt C:\\Cloud\\*.jpg\n"
        "  nimbractl state --recursive --json C:\\Cloud",
        kItemCodes, RunState);
    AddPaths(*command, *options);
    AddJson(*command, options->json);
  }

  void AddHydrate() {
    struct Options : ItemOptions {
      std::string progress;
    };
    auto [command, options] = Add<Options>(
        app_, "hydrate", "fetch the data of files that are not on the disk, and wait for it",
        "The client that serves them must be running.\n\n"
        "Examples:\n  nimbractl hydrate C:\\Cloud\\a.txt\n  nimbractl hydrate -r C:\\Cloud\\2024",
        kItemCodes, [](const Options& given) {
          const std::map<std::string, Progress> known{{"always", Progress::kAlways},
                                                      {"never", Progress::kNever}};
          const auto found = known.find(given.progress);
          return RunHydrate(given, found == known.end() ? Progress::kOnTerminals : found->second);
        });
    AddPaths(*command, *options);
    command
        ->add_option("--progress", options->progress,
                     "show a progress bar: auto (on a terminal), always or never")
        ->default_val("auto")
        ->check(CLI::IsMember({"auto", "always", "never"}).description(""))
        ->type_name("WHEN");
  }

  void AddStateChanges() {
    AddSimple("dehydrate", "give back the room on the disk that files take", true,
              "The platform refuses it for what is pinned, not in sync or in use.\n\n"
              "Examples:\n  nimbractl dehydrate C:\\Cloud\\a.txt\n"
              "  nimbractl dehydrate -r C:\\Cloud\\2024",
              RunDehydrate);
    AddSimple("pin", "keep files and folders, with all below them, on the disk", false,
              "Pinning fetches nothing by itself.\n\nExample:\n  nimbractl pin C:\\Cloud\\2024",
              RunPin);
    AddUnpin();
    AddSimple("exclude", "exclude files and folders, with all below them, from synchronisation",
              false,
              "nimbractl unpin takes it back.\n\nExample:\n  nimbractl exclude C:\\Cloud\\tmp",
              RunExclude);
    AddInSync();
  }

  template <class Run>
  void AddSimple(const std::string& name, const std::string& description, bool recursive,
                 const std::string& examples, Run run) {
    auto [command, options] = Add<ItemOptions>(app_, name, description, examples, kItemCodes, run);
    AddPaths(*command, *options, recursive);
  }

  void AddUnpin() {
    struct Options : ItemOptions {
      bool inherit = false;
    };
    auto [command, options] = Add<Options>(
        app_, "unpin", "take pins and exclusions from files and folders, with all below them",
        "Examples:\n  nimbractl unpin C:\\Cloud\\2024\n"
        "  nimbractl unpin --inherit C:\\Cloud\\2024",
        kItemCodes, [](const Options& given) { return RunUnpin(given, given.inherit); });
    AddPaths(*command, *options, false);
    command->add_flag("--inherit", options->inherit,
                      "have them take the state of the folder that they lie in instead");
  }

  void AddInSync() {
    struct Options : ItemOptions {
      bool isNot = false;
    };
    auto [command, options] = Add<Options>(
        app_, "in-sync", "mark placeholders as in sync",
        "Examples:\n  nimbractl in-sync C:\\Cloud\\a.txt\n"
        "  nimbractl in-sync --not C:\\Cloud\\a.txt",
        kItemCodes, [](const Options& given) { return RunInSync(given, given.isNot); });
    AddPaths(*command, *options);
    command->add_flag("--not", options->isNot, "mark them as not in sync");
  }

  void AddIdentity() {
    auto [command, options] = Add<ItemOptions>(
        app_, "identity", "show the client's own names of placeholders, and of their sync root",
        "Examples:\n  nimbractl identity C:\\Cloud\\a.txt\n"
        "  nimbractl identity -r --json C:\\Cloud",
        kItemCodes, RunIdentity);
    AddPaths(*command, *options);
    AddJson(*command, options->json);
  }

  void AddRoots() {
    auto [roots, json] = Add<bool>(
        app_, "roots", "list the sync roots of this machine",
        "They are those that the shell knows. The state is 'ready' for those that the platform\n"
        "knows too, 'shell only' for those that it does not, and 'not known' where that cannot be\n"
        "told, such as of another user's folder.\n\n"
        "Examples:\n  nimbractl roots\n  nimbractl roots --json",
        kListCodes, RunRoots);
    AddJson(*roots, *json);

    auto [add, given] =
        Add<RegisterOptions>(app_, "register", "make a folder a sync root",
                             "It writes to HKEY_LOCAL_MACHINE and so needs an administrator.\n\n"
                             "Examples:\n  nimbractl register C:\\Cloud --session 7 --name Work\n"
                             "  nimbractl register C:\\Cloud --session 7 --name Home --again",
                             kRootCodes, RunRegister);
    add->add_option("PATH", given->path, "the folder")->required()->type_name("");
    add->add_option("--session", given->session, "the client's number for it, 0 to 2147483647")
        ->required()
        ->check(CLI::Range(0, std::numeric_limits<std::int32_t>::max()).description(""))
        ->type_name("NUMBER");
    add->add_option("--name", given->name, "shown in its display name")
        ->default_val("nimbractl")
        ->type_name("TEXT");
    add->add_flag("--again", given->again, "it is registered: update it");

    auto [remove, which] = Add<UnregisterOptions>(
        app_, "unregister", "make a sync root an ordinary folder",
        "Its client must not be running. Files that are not fully on the disk are deleted by it;\n"
        "unless that is allowed, it does nothing when there are any.\n\n"
        "Examples:\n  nimbractl unregister C:\\Cloud\n"
        "  nimbractl unregister --delete-online-only C:\\Cloud",
        kRootCodes, RunUnregister);
    remove->add_option("PATH", which->path, "the sync root's folder")->required()->type_name("");
    remove->add_flag("--delete-online-only", which->deleteOnlineOnly,
                     "allow that files which are not fully on the disk are deleted");
  }

  static std::string CheckClsid(const std::string& text) {
    const std::string_view form = "{00000000-0000-0000-0000-000000000000}";
    bool fits = text.size() == form.size();
    for (std::size_t at = 0; fits && at < form.size(); ++at) {
      fits = form[at] == '0' ? std::isxdigit(static_cast<unsigned char>(text[at])) != 0
                             : text[at] == form[at];
    }
    return fits ? std::string()
                : "'" + text + "' is no class identifier such as " + std::string(form);
  }

  void AddExplorer() {
    auto* explorer = app_.add_subcommand("explorer", "entries in Explorer's navigation pane");
    explorer->require_subcommand(1)->group("Commands");
    explorer->footer("Example:\n  nimbractl explorer list\n\n" + std::string(kEntryCodes));
    auto [add, entry] = Add<EntryOptions>(
        *explorer, "register", "show a sync root in the navigation pane",
        "Keep the class identifier that it prints: it names the entry from then on. Sync roots\n"
        "that are registered with the same one share an entry.\n\n"
        "Examples:\n  nimbractl explorer register C:\\Cloud --name Work\n"
        "  nimbractl explorer register C:\\Cloud --name Work --clsid " +
            std::string(kSomeClsid),
        kEntryCodes, RunExplorerRegister);
    add->add_option("PATH", entry->path, "the sync root's folder")->required()->type_name("");
    add->add_option("--clsid", entry->clsid, "the entry's class identifier (a new one)")
        ->type_name("CLSID")
        ->check(CheckClsid, "");
    add->add_option("--folder-id", entry->folderId,
                    "the number of its folder of shortcuts (the entry's own, or a new one)")
        ->type_name("NUMBER");
    add->add_option("--name", entry->name, "shown after the product's name (the folder's name)")
        ->type_name("TEXT");
    add->add_option("--share", entry->share, "the remote share; home is shown as My Drive")
        ->default_val("home")
        ->type_name("TEXT");
    add->add_option("--remote", entry->remotePath, "the folder in the share")
        ->default_val("/")
        ->type_name("TEXT");

    auto [remove, which] = Add<EntryOptions>(
        *explorer, "unregister", "remove a sync root from an entry, or an entry from the pane",
        "Examples:\n  nimbractl explorer unregister C:\\Cloud --clsid " + std::string(kSomeClsid) +
            "\n  nimbractl explorer unregister --clsid " + kSomeClsid,
        kEntryCodes, RunExplorerUnregister);
    remove->add_option("PATH", which->path, "the sync root's folder; without it, the entry goes")
        ->type_name("");
    remove->add_option("--clsid", which->clsid, "the entry's class identifier")
        ->required()
        ->type_name("CLSID")
        ->check(CheckClsid, "");
    remove->add_option("--folder-id", which->folderId, "as it was registered (the entry's own)")
        ->type_name("NUMBER");

    auto [list, json] = Add<bool>(*explorer, "list", "list the entries of this user",
                                  "Examples:\n  nimbractl explorer list\n"
                                  "  nimbractl explorer list --json",
                                  kListCodes, RunExplorerList);
    AddJson(*list, *json);
  }

  void AddLog() {
    struct Options : LogOptions {
      double limit = -1;
    };
    auto [command, options] = Add<Options>(
        app_, "log", "show what the library reports in all processes, until Ctrl+C",
        "These are the lines that it writes to the debugger output. Only one program can read\n"
        "that, and processes that run under a debugger send theirs there. With --json there is\n"
        "one object a line.\n\n"
        "Examples:\n  nimbractl log\n  nimbractl log --pid 4711 --for 60 --all\n"
        "  nimbractl log --json --for 60",
        "Exit codes: 0 it was ended, 1 another program reads the lines, or not all of the output\n"
        "could be written, 2 wrong arguments.",
        [](Options given) {
          if (given.limit >= 0) given.seconds = given.limit;
          return RunLog(given);
        });
    command->add_option("--pid", options->processIds, "only of this process; may be repeated")
        ->type_name("NUMBER");
    command->add_flag("--all", options->all, "also what other software writes");
    command->add_option("--for", options->limit, "end after so many seconds")
        ->check(CLI::Range(0.0, 1e6).description(""))
        ->type_name("SECONDS");
    AddJson(*command, options->json);
  }

  CLI::App app_{
      "Looks into, and changes, what the Cloud Files platform knows of files and folders,\n"
      "for support and development of clients of Nimbra.",
      "nimbractl"};
  std::set<std::string> takesItems_;  // the commands with several paths
  Chosen chosen_;
};

}  // namespace

ExitCode RunCommandLine(std::vector<std::string> arguments) {
  return CommandLine().Run(std::move(arguments));
}

}  // namespace nimbractl
