#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

class CommandLine : public FilterTest {
 protected:
  Program::Ended Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FILTER_DAEMON);
    return RunProgram(arguments);
  }
};

TEST_F(CommandLine, HelpNamesEveryOption) {
  const auto help = Run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const auto* option : {"--state", "--endpoint", "--request-timeout", "--fetch-cap",
                             "--no-mount", "--verbose", "--status", "--stop"}) {
    EXPECT_NE(help.output.find(option), std::string::npos) << option;
  }
}

TEST_F(CommandLine, WrongOptionsAreRefusedWithAReason) {
  const std::pair<std::vector<std::string>, std::string> kCases[] = {
      {{"--unknown"}, "unknown option --unknown"},
      {{"--state"}, "--state needs a value"},
      {{"--request-timeout", "soon"}, "\"soon\" is no value for --request-timeout"},
      {{"--request-timeout", "-1"}, "\"-1\" is no value"},
      {{"--fetch-cap", "0"}, "\"0\" is no value for --fetch-cap"},
  };
  for (const auto& [arguments, message] : kCases) {
    const auto ended = Run(arguments);
    EXPECT_EQ(ended.exitCode, 2);
    EXPECT_NE(ended.errors.find(message), std::string::npos) << ended.errors;
  }
}

TEST_F(CommandLine, ASecondDaemonOnTheSameStateRefuses) {
  const auto second = Run({"--state", daemon->State(), "--no-mount"});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_NE(second.errors.find("another daemon (process " + std::to_string(daemon->Id())),
            std::string::npos)
      << second.errors;
  MakeRoot();  // the first one is unharmed
}

TEST_F(CommandLine, StatusTellsAboutRootsAndProviders) {
  MakeRoot();
  ProviderOptions options;
  options.process.windowsProcessId = 321;
  options.process.imagePath = R"(C:\client "x".exe)";
  ConnectProvider(options);
  CreateFile("a", 10'000);
  const auto status = Run({"--state", daemon->State(), "--status"});
  EXPECT_EQ(status.exitCode, 0) << status.errors;
  for (const auto& text :
       {R"("path": ")" + root.string() + "\"", std::string("\"connected\": true"),
        std::string("\"mounted\": false"), std::string("\"windowsProcessId\": 321"),
        std::string(R"("image": "C:\\client \"x\".exe")"), std::string("\"placeholders\": 2"),
        std::string("\"bytesTotal\": 10000"), std::string("\"bytesOnDisk\": 0"),
        std::string("\"pendingFetches\": 0")}) {
    EXPECT_NE(status.output.find(text), std::string::npos) << text << " in\n" << status.output;
  }
}

TEST_F(CommandLine, StatusIsJson) {
  MakeRoot();
  const auto parsed =
      RunProgram({"sh", "-c",
                  std::string(FILTER_DAEMON) + " --state " + daemon->State().string() +
                      " --status | python3 -m json.tool"});
  EXPECT_EQ(parsed.exitCode, 0) << parsed.errors;
}

TEST_F(CommandLine, StopEndsTheDaemon) {
  api.reset();
  EXPECT_EQ(Run({"--state", daemon->State(), "--stop"}).exitCode, 0);
  EXPECT_FALSE(std::filesystem::exists(daemon->Endpoint()));
  EXPECT_EQ(daemon->Stop(), 0);
}

TEST_F(CommandLine, WithoutDaemonStatusAndStopSaySo) {
  const auto nowhere = (folder / "nowhere").string();
  const auto status = Run({"--state", nowhere, "--status"});
  EXPECT_EQ(status.exitCode, 1);
  EXPECT_NE(status.errors.find("no daemon answers at"), std::string::npos);
  const auto stop = Run({"--state", nowhere, "--stop"});
  EXPECT_EQ(stop.exitCode, 1);
  EXPECT_NE(stop.errors.find("no daemon serves"), std::string::npos);
}

TEST_F(CommandLine, TheEndpointMayLieElsewhere) {
  const auto endpoint = folder / "elsewhere";
  DaemonProcess other(folder / "other");
  ASSERT_TRUE(other.Start({"--no-mount", "--endpoint", endpoint})) << other.Log();
  EXPECT_TRUE(std::filesystem::exists(endpoint));
  ApiClient client(endpoint);
  EXPECT_NE(client.Status().find("\"roots\": []"), std::string::npos);
  EXPECT_EQ(other.Stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(endpoint));
}

TEST_F(CommandLine, WithoutMountsTheFolderShowsSparseFilesAndTheApiWorks) {
  MakeRoot();
  ConnectProvider();
  CreateFile("a", 5000);
  EXPECT_EQ(MountsBelow(), std::vector<std::string>());
  EXPECT_EQ(ReadWhole(Path("a")), std::string(5000, '\0'));
  provider->Serve([](const std::string& name) { return ContentOf(name, 5000); });
  EXPECT_RESULT(api->Hydrate(Path("a")), hr::kOk);
  EXPECT_EQ(ReadWhole(Path("a")), ContentOf("a", 5000));
}

}  // namespace
}  // namespace cloud_filter::test
