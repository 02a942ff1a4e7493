#pragma once

#include <string>

struct editline;
struct history;

namespace Tarn::Tool {

// Lines typed at a terminal, with editing (emacs keys unless ~/.editrc says
// otherwise) and a history kept in a file, through libedit.
class LineEditor {
 public:
  enum class Read { kLine, kInterrupted, kEnd };

  LineEditor() = default;
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // Edits on standard input and output; the history is read from and
  // saved to `history_path` (none when empty). False with `error`.
  bool Open(const char* program, const std::string& history_path, std::string& error);

  // A line without its newline. kInterrupted: a signal handler without
  // SA_RESTART (Ctrl-C) ended the typing; kEnd: Ctrl-D on an empty line, or
  // the input ended.
  Read ReadLine(const std::string& prompt, std::string& line);

  // Adds `entry` to the history and saves the history file, so that a
  // session that is killed keeps what was typed.
  void Remember(const std::string& entry);

 private:
  static char* Prompt(struct editline* el);

  struct editline* el_ = nullptr;
  struct history* history_ = nullptr;  // "struct": libedit has a function of that name
  std::string path_;
  std::string prompt_;
};

}  // namespace Tarn::Tool
