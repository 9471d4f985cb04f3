// A native provider that costs next to nothing, and a native client beside it: what programs wait
// for with it, and what its calls take, is the simulator's own cost.
//
//   null-provider ENDPOINT
//
// Reads commands, words with tabs between them, and answers each with a line, "ok" or "failed":
//   serve ROOT             registers a root and answers its fetches at once, out of memory
//   create PATH SIZE       makes a placeholder, in whichever root
//   dehydrate PATH         takes its data away again
//   time FOLDER COUNT PARTS
//                          makes so many placeholders in a tree, part by part, and as many plain
//                          files through the mount, twice; "ok" is followed by the nanoseconds that
//                          an item of each part took, for the three in turn
//   ask PATH TIMES ROUNDS  asks so often about a placeholder, and for the attributes of the file;
//                          answered as above

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <list>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/filter/fake-provider.h"

namespace cloud_filter::test {
namespace {

using Words = std::vector<std::string>;

constexpr std::int64_t kPiece = 4 << 20;
constexpr int kItemsPerFolder = 100;

void Require(bool succeeded, const std::string& what) {
  if (!succeeded) throw std::runtime_error(what);
}

wire::CreateEntry EntryOf(const std::string& name, std::int64_t size) {
  wire::CreateEntry entry;
  entry.relativeName = name;
  entry.metadata.fileSize = size;
  entry.identity = "identity";
  entry.flags = flag::kCreateInSync | flag::kCreatePopulated;
  return entry;
}

void CreateItem(ApiClient& api, const std::string& path, std::int64_t size) {
  const std::filesystem::path item(path);
  Require(api.Create(item.parent_path(), {EntryOf(item.filename(), size)}) == hr::kOk,
          "to create " + path);
}

// Answers fetches. A transfer is one frame that is made once: only its head changes.
class Answers {
 public:
  explicit Answers(const std::filesystem::path& endpoint) : api_(endpoint) {}

  void Give(const wire::Target& target, std::int64_t offset, std::int64_t length) {
    for (const auto end = offset + length; offset < end; offset += kPiece) {
      Transfer(target, offset, std::min(kPiece, end - offset));
    }
  }

 private:
  void Transfer(const wire::Target& target, std::int64_t offset, std::int64_t length) {
    wire::Writer head;
    wire::Put(head, target);
    head.Put(std::uint32_t{0}).Put(offset).Put(length).Put(static_cast<std::uint32_t>(length));
    const auto& bytes = head.Bytes();
    if (frame_.empty()) frame_.assign(bytes.size() + static_cast<std::size_t>(kPiece), 'x');
    bytes.copy(frame_.data(), bytes.size());
    const std::string_view payload(frame_.data(), bytes.size() + static_cast<std::size_t>(length));
    auto result = hr::kOk;
    api_.Raw().Request(wire::Op::kTransferData, payload, result, answer_);
  }

  ApiClient api_;
  std::string frame_;
  std::string answer_;
};

class Root {
 public:
  Root(const std::filesystem::path& endpoint, const std::string& path)
      : path_(path), answers_(endpoint), provider_(endpoint) {
    Require(provider_.Api().Register(path) == hr::kOk, "to register " + path);
    provider_.On(callback::kFetchData, [this](FakeProvider&, const wire::CallbackEvent& event) {
      answers_.Give(provider_.TargetOf(event), event.range[0], event.range[1]);
    });
    Require(provider_.Connect(path) == hr::kOk, "to connect " + path);
  }
  ~Root() {
    try {
      provider_.Disconnect();
      provider_.Api().Unregister(path_);
    } catch (const std::runtime_error&) {
      // The daemon went first.
    }
  }
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;

 private:
  std::string path_;
  Answers answers_;
  FakeProvider provider_;
};

// The names of a tree's items, in folders of the same size; a folder is made when it is due.
class Tree {
 public:
  explicit Tree(std::string folder) : folder_(std::move(folder)) {
    std::filesystem::create_directory(folder_);
  }

  std::string Next() {
    if (count_ % kItemsPerFolder == 0) {
      current_ = folder_ + "/" + std::to_string(count_ / kItemsPerFolder);
      std::filesystem::create_directory(current_);
    }
    return current_ + "/item " + std::to_string(count_++) + ".txt";
  }

 private:
  std::string folder_;
  std::string current_;
  int count_ = 0;
};

double NanosecondsOf(const std::function<void()>& operation) {
  const auto begun = std::chrono::steady_clock::now();
  operation();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begun).count();
}

// The nanoseconds of one item.
double TimeItems(Tree& tree, int count, const std::function<void(const std::string&)>& make) {
  double took = 0;
  for (int i = 0; i < count; ++i) {
    const auto path = tree.Next();
    took += NanosecondsOf([&] { make(path); });
  }
  return took / count;
}

using Columns = std::array<std::vector<double>, 3>;

std::string TextOf(const Columns& columns) {
  std::ostringstream text;
  text.precision(10);
  for (const auto& column : columns) {
    text << '\t';
    for (const auto& number : column) text << (&number == column.data() ? "" : " ") << number;
  }
  return text.str();
}

Columns TimeCreation(ApiClient& api, const std::string& folder, int count, int parts) {
  const auto makePlaceholder = [&](const std::string& path) {
    CreateItem(api, path, 123'456);
    wire::PlaceholderInfo info;
    Require(api.GetInfo(path, info) == hr::kOk, "to ask about " + path);
  };
  const auto makePlain = [](const std::string& path) {
    struct stat facts {};
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    Require(file && fstat(file.Get(), &facts) == 0, "to make " + path);
  };
  Tree placeholders(folder + " p");
  Tree plain(folder + " f");
  Tree again(folder + " g");
  Columns columns;
  for (int part = 0; part < parts; ++part) {
    columns[0].push_back(TimeItems(placeholders, count / parts, makePlaceholder));
    columns[1].push_back(TimeItems(plain, count / parts, makePlain));
    columns[2].push_back(TimeItems(again, count / parts, makePlain));
  }
  return columns;
}

Columns TimeAsking(ApiClient& api, const std::string& path, int times, int rounds) {
  const auto ask = [&] {
    wire::PlaceholderInfo info;
    Require(api.GetInfo(path, info) == hr::kOk, "to ask about " + path);
  };
  const auto look = [&] {
    struct stat facts {};
    Require(stat(path.c_str(), &facts) == 0, "to look at " + path);
  };
  const auto repeated = [times](const std::function<void()>& operation) {
    return NanosecondsOf([&] {
             for (int i = 0; i < times; ++i) operation();
           }) /
           times;
  };
  Columns columns;
  for (int round = 0; round < rounds; ++round) {
    columns[0].push_back(repeated(ask));
    columns[1].push_back(repeated(look));
    columns[2].push_back(repeated(look));
  }
  return columns;
}

class Commands {
 public:
  explicit Commands(const std::filesystem::path& endpoint) : endpoint_(endpoint), api_(endpoint) {}

  std::string Run(const Words& words) {
    const auto& command = words.at(0);
    const auto& path = words.at(1);
    if (command == "serve") {
      roots_.emplace_back(endpoint_, path);
    } else if (command == "create") {
      CreateItem(api_, path, std::stoll(words.at(2)));
    } else if (command == "dehydrate") {
      Require(api_.Dehydrate(path) == hr::kOk, "to dehydrate " + path);
    } else if (command == "time") {
      return TextOf(TimeCreation(api_, path, std::stoi(words.at(2)), std::stoi(words.at(3))));
    } else if (command == "ask") {
      return TextOf(TimeAsking(api_, path, std::stoi(words.at(2)), std::stoi(words.at(3))));
    } else {
      throw std::runtime_error("to understand " + command);
    }
    return {};
  }

 private:
  std::filesystem::path endpoint_;
  ApiClient api_;
  std::list<Root> roots_;
};

Words WordsOf(const std::string& line) {
  Words words;
  std::istringstream stream(line);
  for (std::string word; std::getline(stream, word, '\t');) words.push_back(word);
  return words;
}

void Serve(const std::filesystem::path& endpoint) {
  Commands commands(endpoint);
  for (std::string line; std::getline(std::cin, line);) {
    try {
      const auto answer = commands.Run(WordsOf(line));
      std::cout << "ok" << answer << std::endl;
    } catch (const std::exception& failure) {
      std::cout << "failed\t" << failure.what() << std::endl;
    }
  }
}

}  // namespace
}  // namespace cloud_filter::test

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("null-provider ENDPOINT\n", stderr);
    return 2;
  }
  try {
    cloud_filter::test::Serve(argv[1]);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "null-provider: %s\n", failure.what());
    return 1;
  }
}
