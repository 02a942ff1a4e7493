#pragma once

// Options several commands share, and how a command reports a fault.

#include <cstdint>
#include <optional>
#include <string>

#include "tarn/host/ModuleHost.h"
#include "tarn/host/QueryClient.h"

namespace CLI {
class App;
}

namespace Tarn::Tool {

// A said-once note for the commands that read a closed store's files.
extern const char* const kOfflineNote;

// The required --store option: the storage directory, made absolute by
// AbsoluteStore before use.
void AddStoreOption(CLI::App* command, std::string& store);

// The store's limits as typed; sizes take K, M and G suffixes.
struct LimitTexts {
  std::string max_size;
  std::string block_size;
  uint32_t max_days = 0;
};
void AddLimits(CLI::App* command, LimitTexts& limits);
// A --max-size as typed; left unset when not given.
bool ReadMaxSize(const std::string& text, std::optional<uint64_t>& bytes, std::string& error);

// The limits on one answer as typed; the answer size takes K, M and G.
struct QueryLimitTexts {
  std::string size_limit;
  uint32_t row_limit = 0;
  uint32_t aux_limit = 0;
};
// `unset` says what a limit not given means for this command.
void AddQueryLimits(CLI::App* command, QueryLimitTexts& limits, const std::string& unset);

// The checks every command that opens a store through the module makes
// before it runs: the store's path made absolute, and the limits read. False
// after saying on standard error what is wrong.
bool ReadHostOptions(HostOptions& host, const LimitTexts& texts);
bool ReadHostOptions(HostOptions& host, const QueryLimitTexts& texts, QueryLimits& limits);

// "tarn: <message>" on standard error.
void PrintError(const std::string& message);
// The storage directory as an absolute path.
std::string AbsoluteStore(const std::string& store);

}  // namespace Tarn::Tool
