// The terminal prompt and the per-thread prompt setting.
#include "pelmora/archive/archive_prompt.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <optional>

namespace pelmora::archive {
namespace {

constexpr size_t kMaxAnswer = 4096;

thread_local std::shared_ptr<ArchivePrompt> current_prompt;

// Writes `question` to the terminal and reads one line back; nullopt without a terminal.
std::optional<std::string> AskTerminal(const std::string& question) {
  int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string line;
  if (write(fd, question.data(), question.size()) == static_cast<ssize_t>(question.size())) {
    char c = 0;
    while (line.size() < kMaxAnswer && read(fd, &c, 1) == 1 && c != '\n') line += c;
  }
  close(fd);
  return line;
}

}  // namespace

PromptAnswer TerminalPrompt::AskYesNoCancel(std::string_view text, std::string_view title) {
  auto line = AskTerminal(std::string(title) + "\n" + std::string(text) +
                          " [y]es, [n]o, [c]ancel: ");
  if (!line || line->empty()) return PromptAnswer::kNo;
  char first = static_cast<char>(std::tolower(static_cast<unsigned char>((*line)[0])));
  if (first == 'y') return PromptAnswer::kYes;
  return first == 'c' ? PromptAnswer::kCancel : PromptAnswer::kNo;
}

std::string TerminalPrompt::AskText(std::string_view prompt) {
  return AskTerminal(std::string(prompt) + ": ").value_or("");
}

void SetArchivePrompt(std::shared_ptr<ArchivePrompt> prompt) {
  current_prompt = std::move(prompt);
}

ArchivePrompt& CurrentArchivePrompt() {
  if (!current_prompt) current_prompt = std::make_shared<TerminalPrompt>();
  return *current_prompt;
}

}  // namespace pelmora::archive
