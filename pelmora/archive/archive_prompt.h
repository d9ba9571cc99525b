// The questions the archive classes may put to a person: overwrite an existing file (Yes, No,
// Cancel) and type an archive comment. They go through an ArchivePrompt that the caller can
// set for its thread; the default asks on the controlling terminal when there is one and
// otherwise answers No (and gives no comment).
//
//   class Always : public ArchivePrompt { ... };
//   SetArchivePrompt(std::make_shared<Always>());   // for this thread
#ifndef PELMORA_ARCHIVE_ARCHIVE_PROMPT_H_
#define PELMORA_ARCHIVE_ARCHIVE_PROMPT_H_

#include <memory>
#include <string>
#include <string_view>

#include "pelmora/platform/export.h"

namespace pelmora::archive {

enum class PromptAnswer { kYes, kNo, kCancel };

// Asks a person. Both members block until answered.
class PELMORA_API ArchivePrompt {
 public:
  virtual ~ArchivePrompt() = default;
  // A Yes/No/Cancel question with a warning, e.g. "Overwrite a.txt?" titled
  // "Unzip - File Already Exists!".
  virtual PromptAnswer AskYesNoCancel(std::string_view text, std::string_view title) = 0;
  // A line of text, e.g. for "Enter the comment"; empty when none is given.
  virtual std::string AskText(std::string_view prompt) = 0;
};

// The terminal prompt: reads the answer from /dev/tty; without a terminal it answers No and
// gives no text.
class PELMORA_API TerminalPrompt : public ArchivePrompt {
 public:
  PromptAnswer AskYesNoCancel(std::string_view text, std::string_view title) override;
  std::string AskText(std::string_view prompt) override;
};

// Sets the prompt the archive classes of the calling thread use; nullptr restores the terminal
// prompt.
PELMORA_API void SetArchivePrompt(std::shared_ptr<ArchivePrompt> prompt);

// The calling thread's prompt.
PELMORA_API ArchivePrompt& CurrentArchivePrompt();

}  // namespace pelmora::archive

#endif  // PELMORA_ARCHIVE_ARCHIVE_PROMPT_H_
