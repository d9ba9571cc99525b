#include "tools/pelmora/parse_errors.h"

#include <algorithm>
#include <memory>
#include <cstdio>
#include <sstream>

#include "pelmora/common/closest_name.h"

namespace pelmora_tool {
namespace {

using pelmora::ClosestName;

// The deepest command the parse reached.
const CLI::App* ActiveCommand(const CLI::App& app) {
  const CLI::App* current = &app;
  for (std::vector<CLI::App*> parsed; !(parsed = current->get_subcommands()).empty();) {
    current = parsed.front();
  }
  return current;
}

// "pelmora admin ls" for the ls command.
std::string CommandPath(const CLI::App* command) {
  std::string path;
  for (; command != nullptr; command = command->get_parent()) {
    std::string name = command->get_parent() == nullptr ? "pelmora" : command->get_name();
    path = path.empty() ? name : name + " " + path;
  }
  return path;
}

std::vector<std::string> CommandNames(const CLI::App* command) {
  std::vector<std::string> names;
  for (const CLI::App* sub : command->get_subcommands({})) {
    if (!sub->get_group().empty()) names.push_back(sub->get_name());
  }
  return names;
}

// The flags a word may have meant: those of the command and of the commands above it (whose
// options a command accepts too).
std::vector<std::string> OptionNames(const CLI::App* command) {
  std::vector<std::string> names;
  for (; command != nullptr; command = command->get_parent()) {
    for (const CLI::Option* option : command->get_options({})) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
      for (const std::string& name : option->get_snames()) names.push_back("-" + name);
    }
  }
  return names;
}

std::string Joined(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

// The words of "The following argument(s) was/were not expected: b a", first word last.
std::vector<std::string> Extras(const std::string& message) {
  std::vector<std::string> words;
  size_t colon = message.find(": ");
  std::istringstream rest(colon == std::string::npos ? "" : message.substr(colon + 2));
  for (std::string word; rest >> word;) words.push_back(word);
  return words;
}

// "admin ls: " for the ls command, "" for the tool itself.
std::string Where(const CLI::App* command) {
  std::string path = CommandPath(command);
  return path == "pelmora" ? "" : path.substr(8) + ": ";
}

// Whether the command takes a command line of its own words (exec).
bool TakesWords(const CLI::App* command) {
  for (const CLI::Option* option : command->get_options({})) {
    if (option->get_positional() && option->get_items_expected_max() > 1) return true;
  }
  return false;
}

std::string UnknownCommand(const CLI::App* command, const std::string& word) {
  std::vector<std::string> commands = CommandNames(command);
  std::string text = "pelmora: " + Where(command) + "no command \"" + word + "\"";
  std::string near = ClosestName(word, commands);
  if (!near.empty()) text += "; did you mean " + near + "?";
  return text + "\npelmora: the commands of " + CommandPath(command) + ": " + Joined(commands) +
         "\n";
}

std::string DescribeExtra(const CLI::App* command, const std::string& word) {
  if (word.size() > 1 && word[0] == '-') {
    std::string text = "pelmora: " + Where(command) + "no option " + word;
    std::string near = ClosestName(word, OptionNames(command));
    if (!near.empty()) text += "; did you mean " + near + "?";
    if (TakesWords(command)) {
      return text + "\npelmora: options of the remote command go after \"--\": " +
             CommandPath(command) + " -- COMMAND " + word + "\n";
    }
    return text + "\npelmora: see " + CommandPath(command) + " --help\n";
  }
  if (!CommandNames(command).empty()) return UnknownCommand(command, word);
  return "pelmora: " + Where(command) + "unexpected argument \"" + word + "\"; see " +
         CommandPath(command) + " --help\n";
}

}  // namespace

std::string DescribeParseError(const CLI::App& app, const CLI::ParseError& error) {
  if (dynamic_cast<const CLI::CallForHelp*>(&error) != nullptr ||
      dynamic_cast<const CLI::CallForAllHelp*>(&error) != nullptr ||
      dynamic_cast<const CLI::CallForVersion*>(&error) != nullptr ||
      dynamic_cast<const CLI::RuntimeError*>(&error) != nullptr) {
    return "";
  }
  const CLI::App* command = ActiveCommand(app);
  std::string message = error.what();
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
    std::vector<std::string> words = Extras(message);
    if (!words.empty()) return DescribeExtra(command, words.back());
  }
  std::vector<std::string> commands = CommandNames(command);
  if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr &&
      message.find("ubcommand") != std::string::npos && !commands.empty()) {
    for (const std::string& word : command->remaining()) {
      if (!word.empty() && word[0] != '-') return UnknownCommand(command, word);
    }
    return "pelmora: " + Where(command) + "a command is needed: " + Joined(commands) + "\n";
  }
  return "pelmora: " + Where(command) + message + "; see " + CommandPath(command) + " --help\n";
}

void AddHelpCommand(CLI::App& app, std::function<int()>& action) {
  auto words = std::make_shared<std::vector<std::string>>();
  CLI::App* help = app.add_subcommand("help", "The help of a command: pelmora help admin ls");
  help->add_option("COMMAND", *words, "The command, and the command under it");
  help->callback([&app, &action, words] {
    action = [&app, words] {
      const CLI::App* command = &app;
      for (const std::string& word : *words) {
        const CLI::App* next = nullptr;
        for (const CLI::App* sub : command->get_subcommands({})) {
          if (sub->get_name() == word) next = sub;
        }
        if (next == nullptr) {
          std::fputs(UnknownCommand(command, word).c_str(), stderr);
          return 2;
        }
        command = next;
      }
      // The command's own help: help() of an ancestor would show the parsed "help" command.
      std::fputs(command->get_formatter()
                     ->make_help(command, CommandPath(command), CLI::AppFormatMode::Normal)
                     .c_str(),
                 stdout);
      return 0;
    };
  });
}

int ReportParseError(const CLI::App& app, const CLI::ParseError& error) {
  std::string text = DescribeParseError(app, error);
  if (text.empty()) return app.exit(error) == 0 ? 0 : 2;
  std::fputs(text.c_str(), stderr);
  return 2;
}

}  // namespace pelmora_tool
