#include "tarn/import/ChildReader.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace Tarn::Tool {
namespace {

// A frame: its kind, its payload's size (4 bytes, little-endian), the payload.
constexpr size_t kFrameHeader = 5;
// The frame a child sends last when it ran to its end.
constexpr uint8_t kDone = 0xFF;
constexpr uint32_t kMaxFrame = 64u << 20;

bool WriteAll(int fd, const char* data, size_t size) {
  while (size != 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

std::string DescribeExit(int status) {
  if (WIFSIGNALED(status)) {
    const int signal = WTERMSIG(status);
    return "its reader crashed (signal " + std::to_string(signal) + ", " + strsignal(signal) + ")";
  }
  if (WIFEXITED(status)) {
    return "its reader stopped with status " + std::to_string(WEXITSTATUS(status));
  }
  return "its reader stopped";
}

// Splits the bytes received into frames, handing whole ones on.
class FrameReader {
 public:
  explicit FrameReader(const std::function<void(uint8_t, std::string_view)>& consume)
      : consume_(consume) {}

  // False when a frame is malformed.
  bool Take(const char* data, size_t size) {
    buffer_.append(data, size);
    size_t at = 0;
    while (buffer_.size() - at >= kFrameHeader) {
      uint32_t length = 0;
      for (int i = 0; i < 4; ++i) {
        length |= uint32_t{static_cast<unsigned char>(buffer_[at + 1 + i])} << (8 * i);
      }
      if (length > kMaxFrame) return false;
      if (buffer_.size() - at - kFrameHeader < length) break;
      const auto kind = static_cast<uint8_t>(buffer_[at]);
      const std::string_view payload(buffer_.data() + at + kFrameHeader, length);
      if (kind == kDone) {
        done_ = true;
      } else {
        consume_(kind, payload);
      }
      at += kFrameHeader + length;
    }
    buffer_.erase(0, at);
    return true;
  }
  bool done() const { return done_; }

 private:
  const std::function<void(uint8_t, std::string_view)>& consume_;
  std::string buffer_;
  bool done_ = false;
};

}  // namespace

bool FrameWriter::Send(uint8_t kind, std::string_view payload) {
  char header[kFrameHeader] = {static_cast<char>(kind)};
  const auto length = static_cast<uint32_t>(payload.size());
  for (int i = 0; i < 4; ++i) header[1 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
  return WriteAll(fd_, header, sizeof header) && WriteAll(fd_, payload.data(), payload.size());
}

ChildOutcome RunInChild(const std::function<void(FrameWriter&)>& produce,
                        const std::function<void(uint8_t, std::string_view)>& consume,
                        int idle_seconds) {
  ChildOutcome outcome;
  int fds[2];
  if (::pipe(fds) != 0) {
    outcome.failure = std::string("no pipe for its reader: ") + std::strerror(errno);
    return outcome;
  }
  std::fflush(nullptr);  // the child must not write the parent's buffered output again
  const pid_t child = ::fork();
  if (child < 0) {
    outcome.failure = std::string("no process for its reader: ") + std::strerror(errno);
    ::close(fds[0]);
    ::close(fds[1]);
    return outcome;
  }
  if (child == 0) {
    ::close(fds[0]);
    FrameWriter writer(fds[1]);
    produce(writer);
    writer.Send(kDone, {});
    ::_exit(0);  // no atexit handlers, no flushing of the parent's streams
  }
  ::close(fds[1]);
  FrameReader frames(consume);
  std::vector<char> buffer(1 << 16);
  bool broken = false;
  bool hung = false;
  for (;;) {
    pollfd ready{fds[0], POLLIN, 0};
    const int polled = ::poll(&ready, 1, idle_seconds * 1000);
    if (polled < 0 && errno == EINTR) continue;
    if (polled == 0) {
      hung = true;
      ::kill(child, SIGKILL);
      break;
    }
    const ssize_t n = ::read(fds[0], buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (!frames.Take(buffer.data(), static_cast<size_t>(n))) {
      broken = true;
      ::kill(child, SIGKILL);
      break;
    }
  }
  ::close(fds[0]);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (hung) {
    outcome.failure = "its reader stopped answering for " + std::to_string(idle_seconds) + " s";
  } else if (broken) {
    outcome.failure = "its reader sent a malformed frame";
  } else if (!frames.done() || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    outcome.failure = DescribeExit(status);
  } else {
    outcome.clean = true;
  }
  return outcome;
}

}  // namespace Tarn::Tool
