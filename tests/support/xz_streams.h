#pragma once

// What the store compresses, seen from outside: the stock xz program as a
// second opinion (any xz decoder must read a payload back to its raw bytes),
// and the xz blocks of each stream, read from the streams' own indexes.

#include <lzma.h>
#include <unistd.h>

#include <cstdio>
#include <cstdint>
#include <string>
#include <vector>

namespace tarn::test {

// What `xz -dc` decodes `stream` to; `ok` false when it refused it.
inline std::vector<uint8_t> XzDecoded(const std::vector<uint8_t>& stream, bool& ok) {
  char path[] = "/tmp/tarn-xz-XXXXXX";
  const int fd = mkstemp(path);
  ok = fd >= 0 && write(fd, stream.data(), stream.size()) == static_cast<ssize_t>(stream.size());
  if (fd >= 0) close(fd);
  std::vector<uint8_t> out;
  FILE* pipe = ok ? popen((std::string("xz -dc < ") + path + " 2>/dev/null").c_str(), "r") : nullptr;
  uint8_t chunk[65536];
  for (size_t n; pipe != nullptr && (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) {
    out.insert(out.end(), chunk, chunk + n);
  }
  ok = pipe != nullptr && pclose(pipe) == 0 && ok;  // scripts/install-deps.sh: xz-utils
  unlink(path);
  return out;
}

// The xz index of the last stream in `streams`, read from its footer, or null.
inline lzma_index* DecodeLastIndex(const std::vector<uint8_t>& streams, lzma_stream_flags& footer) {
  if (streams.size() < 2 * LZMA_STREAM_HEADER_SIZE) return nullptr;
  const uint8_t* end = streams.data() + streams.size();
  if (lzma_stream_footer_decode(&footer, end - LZMA_STREAM_HEADER_SIZE) != LZMA_OK) return nullptr;
  if (footer.backward_size > streams.size() - LZMA_STREAM_HEADER_SIZE) return nullptr;
  const uint8_t* index = end - LZMA_STREAM_HEADER_SIZE - footer.backward_size;
  lzma_index* decoded = nullptr;
  uint64_t memlimit = UINT64_MAX;
  size_t pos = 0;
  if (lzma_index_buffer_decode(&decoded, &memlimit, nullptr, index, &pos, footer.backward_size) !=
      LZMA_OK) {
    return nullptr;
  }
  return decoded;
}

// The xz blocks of each stream in `streams`, the last stream first; empty
// when they do not parse.
inline std::vector<uint64_t> BlocksPerStream(std::vector<uint8_t> streams) {
  std::vector<uint64_t> blocks;
  while (!streams.empty()) {
    lzma_stream_flags footer;
    lzma_index* index = DecodeLastIndex(streams, footer);
    if (index == nullptr) return {};
    blocks.push_back(lzma_index_block_count(index));
    const uint64_t size = lzma_index_stream_size(index);
    lzma_index_end(index, nullptr);
    if (size > streams.size()) return {};
    streams.resize(streams.size() - size);
  }
  return blocks;
}

}  // namespace tarn::test
