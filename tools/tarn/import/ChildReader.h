#pragma once

// Runs a reader of untrusted files in a child process, so that a crash or a
// hang inside it (an old library over an attacker's file) costs only that
// file: the child sends what it reads as frames through a pipe, and the
// parent keeps every frame that arrived before the child died. The parent
// may run other threads (the store's writer): the child touches nothing of
// theirs; it runs the reader, writes to its pipe and leaves with _exit.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Tarn::Tool {

// The child's end: frames of a kind and bytes.
class FrameWriter {
 public:
  explicit FrameWriter(int fd) : fd_(fd) {}
  // False when the parent is gone.
  bool Send(uint8_t kind, std::string_view payload);

 private:
  int fd_;
};

struct ChildOutcome {
  bool clean = false;   // the child ran to its end and said so
  std::string failure;  // else what happened to it, in words
};

// Forks; the child runs `produce` and exits, the parent hands each frame to
// `consume` as it arrives. A child silent for `idle_seconds` is killed.
ChildOutcome RunInChild(const std::function<void(FrameWriter&)>& produce,
                        const std::function<void(uint8_t kind, std::string_view payload)>& consume,
                        int idle_seconds);

}  // namespace Tarn::Tool
