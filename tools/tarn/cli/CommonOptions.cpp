#include "tarn/cli/CommonOptions.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>

#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

// What was typed, read into the limits; false with `error` in words.
bool ReadLimits(const LimitTexts& texts, StoreLimits& limits, std::string& error) {
  if (!ReadMaxSize(texts.max_size, limits.max_size, error)) return false;
  uint64_t bytes = 0;
  if (!texts.block_size.empty()) {
    if (!ParseSize(texts.block_size, bytes) || bytes > 0xFFFFFFFFu) {
      error = "--block-size takes a size such as 256K or 10M, not \"" + texts.block_size + "\"";
      return false;
    }
    limits.block_size = static_cast<uint32_t>(bytes);
  }
  if (texts.max_days != 0) limits.max_days = texts.max_days;
  return CheckLimits(limits, error);
}

bool ReadQueryLimits(const QueryLimitTexts& texts, QueryLimits& limits, std::string& error) {
  if (!texts.size_limit.empty()) {
    uint64_t bytes = 0;
    if (!ParseSize(texts.size_limit, bytes) || bytes > 0xFFFFFFFFu) {
      error = "--size-limit takes a size such as 50M, not \"" + texts.size_limit + "\"";
      return false;
    }
    limits.size_limit = static_cast<uint32_t>(bytes);
  }
  if (texts.row_limit != 0) limits.row_limit = texts.row_limit;
  if (texts.aux_limit != 0) limits.aux_limit = texts.aux_limit;
  return CheckQueryLimits(limits, error);
}

}  // namespace

const char* const kOfflineNote =
    "Reads the store's files directly with the store's own format code, not through the "
    "storage module.";

void AddStoreOption(CLI::App* command, std::string& store) {
  command
      ->add_option("--store", store,
                   "the storage directory itself: its day files, index and lock lie directly in "
                   "it")
      ->required();
}

void AddLimits(CLI::App* command, LimitTexts& limits) {
  command->add_option("--max-size", limits.max_size,
                      "most bytes the store keeps on disk, e.g. 200M or 1G (store default 200M)");
  command->add_option("--max-days", limits.max_days,
                      "most days the store keeps, 2-511 (store default 60)");
  command->add_option("--block-size", limits.block_size,
                      "bytes of events per compressed block, e.g. 256K or 10M (store default "
                      "10M); smaller blocks compress faster");
}

bool ReadMaxSize(const std::string& text, std::optional<uint64_t>& bytes, std::string& error) {
  if (text.empty()) return true;
  uint64_t value = 0;
  if (!ParseSize(text, value)) {
    error = "--max-size takes a size such as 200M or 1G, not \"" + text + "\"";
    return false;
  }
  bytes = value;
  return true;
}


void AddQueryLimits(CLI::App* command, QueryLimitTexts& limits, const std::string& unset) {
  command->add_option("--size-limit", limits.size_limit,
                      "bytes of one answer (a page), 10M to 250,000,000; " + unset);
  command->add_option("--row-limit", limits.row_limit,
                      "rows of one answer, 1,000 to 49,999,999; " + unset);
  command->add_option("--aux-limit", limits.aux_limit,
                      "pages one query may take, 1 to 1,023; " + unset);
}


bool ReadHostOptions(HostOptions& host, const LimitTexts& texts) {
  host.store = AbsoluteStore(host.store);
  std::string error;
  if (ReadLimits(texts, host.limits, error)) return true;
  PrintError(error);
  return false;
}

bool ReadHostOptions(HostOptions& host, const QueryLimitTexts& texts, QueryLimits& limits) {
  host.store = AbsoluteStore(host.store);
  std::string error;
  if (ReadQueryLimits(texts, limits, error)) return true;
  PrintError(error);
  return false;
}

void PrintError(const std::string& message) {
  std::fflush(stdout);  // keep the order of what was said
  std::fprintf(stderr, "tarn: %s\n", message.c_str());
}

std::string AbsoluteStore(const std::string& store) {
  std::error_code ec;
  std::filesystem::path path = std::filesystem::absolute(store, ec);
  if (ec) return store;
  return path.lexically_normal().string();
}

}  // namespace Tarn::Tool
