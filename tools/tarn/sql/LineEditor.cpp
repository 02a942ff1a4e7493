#include "tarn/sql/LineEditor.h"

#include <histedit.h>

#include <cerrno>
#include <cstdio>

namespace Tarn::Tool {
namespace {

constexpr int kHistorySize = 2000;

}  // namespace

LineEditor::~LineEditor() {
  if (el_ != nullptr) el_end(el_);
  if (history_ != nullptr) history_end(history_);
}

char* LineEditor::Prompt(struct editline* el) {
  void* self = nullptr;
  el_get(el, EL_CLIENTDATA, &self);
  return static_cast<LineEditor*>(self)->prompt_.data();
}

bool LineEditor::Open(const char* program, const std::string& history_path, std::string& error) {
  el_ = el_init(program, stdin, stdout, stderr);
  history_ = history_init();
  if (el_ == nullptr || history_ == nullptr) {
    error = "the line editor could not start on this terminal";
    return false;
  }
  HistEvent event;
  history(history_, &event, H_SETSIZE, kHistorySize);
  history(history_, &event, H_SETUNIQUE, 1);
  path_ = history_path;
  if (!path_.empty()) history(history_, &event, H_LOAD, path_.c_str());  // none yet: fine
  el_set(el_, EL_CLIENTDATA, this);
  el_set(el_, EL_PROMPT, &LineEditor::Prompt);
  el_set(el_, EL_EDITOR, "emacs");
  el_set(el_, EL_HIST, history, history_);
  el_set(el_, EL_BIND, "^R", "em-inc-search-prev", nullptr);
  el_source(el_, nullptr);  // ~/.editrc, as other libedit programs read it
  return true;
}

LineEditor::Read LineEditor::ReadLine(const std::string& prompt, std::string& line) {
  prompt_ = prompt;
  int count = 0;
  errno = 0;
  const char* text = el_gets(el_, &count);
  if (text == nullptr) return count < 0 && errno == EINTR ? Read::kInterrupted : Read::kEnd;
  line.assign(text, static_cast<size_t>(count));
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  return Read::kLine;
}

void LineEditor::Remember(const std::string& entry) {
  HistEvent event;
  history(history_, &event, H_ENTER, entry.c_str());
  if (!path_.empty()) history(history_, &event, H_SAVE, path_.c_str());
}

}  // namespace Tarn::Tool
