// Every block of the stores named on the command line, decoded and
// compressed again in each payload form, against `xz -6 -T1` over the same
// raw blocks (liblzma's preset 6 on one thread, one stream: what the xz
// program writes). Bytes, and CPU and wall seconds, per form: the figures of
// docs/benchmarks.md's "Payload forms" section.
//
//   build-bench/bin/payload_forms_bench STORE...

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Keel/Lzma.h"
#include "Keel/OS/File.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"

namespace {

namespace fs = std::filesystem;
using Keel::Collections::Buffer;
using namespace Tarn::Storage;  // NOLINT: the block format's few names

struct RawBlock {
  Buffer raw;
  uint32_t table_offset = 0;
};

struct Form {
  const char* name;
  Keel::Lzma::Options options;
  bool with_table;
  uint64_t bytes = 0;
  double cpu = 0;
  double wall = 0;
};

double CpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool ReadBlocks(const std::string& path, std::vector<RawBlock>& out) {
  Keel::OS::File file;
  uint64_t size = 0;
  if (!file.Open(path, Keel::OS::File::Mode::Read) || !file.GetSize(size)) return false;
  for (uint64_t offset = kDayFileHeaderSize; offset < size;) {
    BlockHeader header;
    Buffer payload;
    RawBlock block;
    if (!ReadBlockHeader(file, offset, size, header) ||
        !ReadBlockPayload(file, offset, header, payload) ||
        !DecodeBlock(payload, header, block.raw)) {
      std::fprintf(stderr, "%s: no block at %llu\n", path.c_str(),
                   static_cast<unsigned long long>(offset));
      return false;
    }
    block.table_offset = header.table_offset;
    out.push_back(std::move(block));
    offset += kBlockHeaderSize + header.stored_size;
  }
  return true;
}

bool IsDayFile(const fs::path& path) {
  const std::string name = path.filename().string();
  return name.rfind("storage.", 0) == 0 && path.extension() == ".db" &&
         name != "storage.final.db" && name != "storage.index.db";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s STORE...\n", argv[0]);
    return 2;
  }
  for (int a = 1; a < argc; ++a) {
    std::vector<RawBlock> blocks;
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(argv[a])) {
      if (IsDayFile(entry.path())) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
      if (!ReadBlocks(file.string(), blocks)) return 1;
    }
    uint64_t raw = 0;
    uint64_t table = 0;
    for (const RawBlock& b : blocks) {
      raw += b.raw.Size();
      table += b.raw.Size() - b.table_offset;
    }
    Keel::Lzma::Options burst{6, 2};
    Keel::Lzma::Options steady{6, 2};
    steady.one_block = true;
    std::vector<Form> forms = {
        {"`xz -6 -T1`: one stream, one thread", {6, 1}, false},
        {"before: one stream, 2 MiB pieces on 2 threads", {6, 2}, false},
        {"burst: 2 MiB pieces on 2 threads, then the table behind delta", burst, true},
        {"steady: one block (4 MiB window), then the table behind delta", steady, true},
    };
    for (Form& form : forms) {
      Buffer out;
      const double cpu = CpuSeconds();
      const auto wall = std::chrono::steady_clock::now();
      for (const RawBlock& b : blocks) {
        Keel::Lzma::Options options = form.options;
        if (form.with_table) options.table_offset = b.table_offset;
        if (!Keel::Lzma::Compress(b.raw.Data(), b.raw.Size(), out, options)) return 1;
        form.bytes += out.Size();
      }
      form.cpu = CpuSeconds() - cpu;
      form.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
    }
    std::printf("%s: %zu blocks, %llu raw bytes (entry tables %llu)\n", argv[a], blocks.size(),
                static_cast<unsigned long long>(raw), static_cast<unsigned long long>(table));
    std::printf("| form | bytes | of xz -6 -T1 | CPU s | of before | wall s |\n|---|---:|---:|---:|---:|---:|\n");
    for (const Form& form : forms) {
      std::printf("| %s | %llu | %.3f | %.2f | %.2f | %.2f |\n", form.name,
                  static_cast<unsigned long long>(form.bytes),
                  static_cast<double>(form.bytes) / static_cast<double>(forms[0].bytes), form.cpu,
                  form.cpu / forms[1].cpu, form.wall);
    }
  }
  return 0;
}
