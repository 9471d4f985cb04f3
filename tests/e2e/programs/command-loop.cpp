#include "command-loop.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <utility>

#include "background.h"

namespace e2e {
namespace {

[[noreturn]] void Die(const std::string& message) {
  std::fprintf(stderr, "%s\n", message.c_str());
  std::fflush(stderr);
  ExitProcess(2);
}

bool IsPlain(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte > 0x20 && byte < 0x7F && character != '%' && character != '=';
}

std::string Escape(std::string_view text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (const char character : text) {
    if (IsPlain(character)) {
      out += character;
      continue;
    }
    const auto byte = static_cast<unsigned char>(character);
    out += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return out;
}

std::string Unescape(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size(); ++at) {
    unsigned byte = 0;
    if (text[at] == '%' && at + 2 < text.size() &&
        std::from_chars(text.data() + at + 1, text.data() + at + 3, byte, 16).ptr ==
            text.data() + at + 3) {
      out += static_cast<char>(byte);
      at += 2;
    } else {
      out += text[at];
    }
  }
  return out;
}

std::string_view TakeWord(std::string_view& text) {
  const auto end = text.find('\t');
  const auto word = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return word;
}

void WriteLine(const std::string& line) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace

Fields& Fields::Set(const std::string& name, std::string_view value) {
  values_[name] = value;
  return *this;
}

Fields& Fields::Set(const std::string& name, std::int64_t value) {
  return Set(name, std::string_view(std::to_string(value)));
}

bool Fields::Has(const std::string& name) const { return values_.contains(name); }

const std::string& Fields::Text(const std::string& name) const {
  const auto found = values_.find(name);
  if (found == values_.end()) Die("a command lacks its argument " + name);
  return found->second;
}

std::string Fields::Text(const std::string& name, const std::string& fallback) const {
  return Has(name) ? Text(name) : fallback;
}

std::int64_t Fields::Number(const std::string& name) const {
  const auto& text = Text(name);
  std::int64_t number = 0;
  const auto* end = text.data() + text.size();
  if (std::from_chars(text.data(), end, number).ptr != end) {
    Die("the argument " + name + " is not a number: " + text);
  }
  return number;
}

std::int64_t Fields::Number(const std::string& name, std::int64_t fallback) const {
  return Has(name) ? Number(name) : fallback;
}

std::string Fields::Encode() const {
  std::string out;
  for (const auto& [name, value] : values_) out += '\t' + name + '=' + Escape(value);
  return out;
}

Fields Fields::Decode(std::string_view text) {
  Fields fields;
  while (!text.empty()) {
    const auto word = TakeWord(text);
    const auto equals = word.find('=');
    if (equals == std::string_view::npos) Die("not name=value: " + std::string(word));
    fields.Set(std::string(word.substr(0, equals)), Unescape(word.substr(equals + 1)));
  }
  return fields;
}

void EmitEvent(std::string_view event, const Fields& fields) {
  WriteLine("E\t" + std::string(event) + fields.Encode());
}

void CommandLoop::Add(const std::string& name, Command command) {
  commands_[name] = std::move(command);
}

void CommandLoop::Start(std::string_view line) {
  const std::string number(TakeWord(line));
  const std::string name(TakeWord(line));
  const auto found = commands_.find(name);
  if (found == commands_.end()) Die("no such command: " + name);
  // A command may wait for ever on purpose; the process ends without it.
  RunInBackground([number, fields = Fields::Decode(line), &command = found->second] {
    WriteLine("R\t" + number + command(fields).Encode());
  });
}

void CommandLoop::Run() {
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
  // Its answer follows all that was said before it.
  Add("sync", [](const Fields&) { return Fields(); });
  EmitEvent("ready", Fields().Set("windowsProcessId", GetCurrentProcessId()));
  for (std::string line; std::getline(std::cin, line);) Start(line);
  ExitProcess(0);
}

}  // namespace e2e
