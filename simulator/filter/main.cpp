// cloud-filterd: stands in for the platform's cloud filter on Linux.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <thread>

#include "api-server.h"
#include "client.h"
#include "fuse-mount.h"
#include "options.h"

namespace cloud_filter {
namespace {

constexpr int kUsage = 2;

// Held by the one daemon of a state folder; tells its process id.
class StateLock {
 public:
  explicit StateLock(const std::filesystem::path& state) : path_(state / "lock") {}

  // False when another daemon holds it.
  bool Take() {
    file_.Reset(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file_ || flock(file_.Get(), LOCK_EX | LOCK_NB) != 0) return false;
    const auto text = std::to_string(getpid()) + "\n";
    return ftruncate(file_.Get(), 0) == 0 && WriteAll(file_.Get(), text, 0) == 0;
  }
  // 0 when nobody holds it.
  [[nodiscard]] pid_t Holder() const {
    UniqueFd file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || flock(file.Get(), LOCK_SH | LOCK_NB) == 0) return 0;
    std::ifstream stream(path_);
    pid_t holder = 0;
    stream >> holder;
    return holder;
  }

 private:
  std::filesystem::path path_;
  UniqueFd file_;
};

// The more files may be open, the fewer are opened again and again. Programs' own come on top.
std::size_t IdleFilesWithinLimit() {
  constexpr rlim_t kWanted = 1 << 20;
  constexpr rlim_t kShare = 8;
  constexpr rlim_t kMost = 1 << 14;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max(limit.rlim_cur, std::min(kWanted, limit.rlim_max));
  setrlimit(RLIMIT_NOFILE, &limit);
  getrlimit(RLIMIT_NOFILE, &limit);
  return std::min(limit.rlim_cur / kShare, kMost);
}

void WriteEndpoint(const std::filesystem::path& path, std::uint16_t port,
                   const std::string& token) {
  const auto temporary = path.string() + ".new";
  unlink(temporary.c_str());
  UniqueFd file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  const auto text = std::to_string(port) + " " + token + "\n";
  if (!file || WriteAll(file.Get(), text, 0) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
    throw std::runtime_error("cannot write the endpoint file " + path.string() + ": " +
                             std::strerror(errno));
  }
}

Core::FrontEndFactory MountFactory(bool verbose) {
  return [verbose](Core& core, const RootPtr& root) -> std::shared_ptr<FrontEnd> {
    std::string error;
    auto mount = FuseMount::Create(core, root, error);
    if (mount == nullptr) {
      std::fprintf(stderr,
                   "cloud-filterd: %s is not mounted (%s): programs that read its placeholders "
                   "get no data unless it is hydrated explicitly\n",
                   root->record.path.c_str(), error.c_str());
    } else if (verbose) {
      std::fprintf(stderr, "cloud-filterd: mounted %s\n", root->record.path.c_str());
    }
    return mount;
  };
}

sigset_t EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const auto signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

int Serve(Options options) {
  std::filesystem::create_directories(options.state);
  std::filesystem::permissions(options.state, std::filesystem::perms::owner_all);
  StateLock lock(options.state);
  if (!lock.Take()) {
    std::fprintf(stderr,
                 "cloud-filterd: another daemon (process %d) serves %s; end it with --stop, or "
                 "choose another folder with --state\n",
                 static_cast<int>(lock.Holder()), options.state.c_str());
    return EXIT_FAILURE;
  }
  options.core.idleFiles = IdleFilesWithinLimit();
  if (options.core.mount) {
    if (const auto why = WhyNoFuse(); !why.empty()) {
      std::fprintf(stderr,
                   "cloud-filterd: nothing can be mounted (%s): the API works, but data comes by "
                   "explicit hydration only\n",
                   why.c_str());
      options.core.mount = false;
    }
  }
  const auto signals = EndSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before any thread begins
  std::signal(SIGPIPE, SIG_IGN);

  Core core(options.core, options.state / "filter.db", MountFactory(options.verbose));
  umask(0);  // what programs create carries the mode that they asked for
  core.Start();
  ApiDispatcher dispatcher(core);
  const auto token = MakeToken();
  ApiServer server(dispatcher, token);
  if (const auto error = server.Start(); error != 0) {
    throw std::runtime_error(std::string("cannot listen on 127.0.0.1: ") + std::strerror(error));
  }
  WriteEndpoint(options.endpoint, server.Port(), token);
  std::printf("cloud-filterd: ready, endpoint %s\n", options.endpoint.c_str());
  std::fflush(stdout);

  int signal = 0;
  sigwait(&signals, &signal);
  unlink(options.endpoint.c_str());
  server.Stop();
  core.Stop();
  return EXIT_SUCCESS;
}

int ShowStatus(const Options& options) {
  Client client;
  auto result = hr::kOk;
  std::string answer;
  if (!client.Open(options.endpoint) || !client.Request(wire::Op::kStatus, {}, result, answer) ||
      result != hr::kOk) {
    std::fprintf(stderr,
                 "cloud-filterd: no daemon answers at %s; start one, or name its endpoint with "
                 "--endpoint or --state\n",
                 options.endpoint.c_str());
    return EXIT_FAILURE;
  }
  wire::Reader in(answer);
  std::fputs(in.GetString().c_str(), stdout);
  return EXIT_SUCCESS;
}

int StopDaemon(const Options& options) {
  const StateLock lock(options.state);
  const auto holder = lock.Holder();
  if (holder <= 0) {
    std::fprintf(stderr, "cloud-filterd: no daemon serves %s\n", options.state.c_str());
    return EXIT_FAILURE;
  }
  kill(holder, SIGTERM);
  constexpr int kTries = 200;
  for (int i = 0; i < kTries; ++i) {
    if (lock.Holder() == 0) return EXIT_SUCCESS;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::fprintf(stderr, "cloud-filterd: process %d did not end within 10 seconds\n",
               static_cast<int>(holder));
  return EXIT_FAILURE;
}

int Run(int count, char** arguments) {
  Options options;
  std::string error;
  if (!ParseOptions(count, arguments, options, error)) {
    std::fprintf(stderr, "cloud-filterd: %s; see --help\n", error.c_str());
    return kUsage;
  }
  switch (options.task) {
    case Task::kHelp:
      std::fputs(HelpText(), stdout);
      return EXIT_SUCCESS;
    case Task::kStatus:
      return ShowStatus(options);
    case Task::kStop:
      return StopDaemon(options);
    case Task::kServe:
      break;
  }
  return Serve(std::move(options));
}

}  // namespace
}  // namespace cloud_filter

int main(int count, char** arguments) {
  try {
    return cloud_filter::Run(count, arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "cloud-filterd: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
