// The events as JSON lines, as `tarn export` writes them, compressed whole
// by a command-line compressor: xz -6, zstd -19 or zstd -3, one thread
// each. Ingest is the compressor's run over the file; each question runs
// the decompressor into a pipe and reads every line, parsing the lines it
// needs, as a script over such an archive would.

#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "common/Measure.h"
#include "peers/ChildProcess.h"
#include "peers/Contender.h"
#include "peers/Questions.h"

namespace Tarn::Bench {
namespace {

using Json = nlohmann::json;

struct Compressor {
  std::vector<std::string> compress;    // reads standard input, writes standard output
  std::vector<std::string> decompress;  // the file is appended
  const char* suffix;
};

// The table a line names: `{"table":"<name>",...`, as export begins it.
std::string_view TableOf(std::string_view line) {
  constexpr std::string_view kStart = R"({"table":")";
  if (line.substr(0, kStart.size()) != kStart) return {};
  const size_t end = line.find('"', kStart.size());
  return end == std::string_view::npos ? std::string_view()
                                       : line.substr(kStart.size(), end - kStart.size());
}

uint64_t TimeOf(std::string_view line) {
  constexpr std::string_view kKey = R"("date_time":)";
  const size_t at = line.find(kKey);
  return at == std::string_view::npos ? 0
                                      : std::strtoull(line.data() + at + kKey.size(), nullptr, 10);
}

bool IsJoinTable(std::string_view table) {
  if (table == Questions::kProcessTable) return true;
  for (std::string_view connections : Questions::kConnectionTables) {
    if (table == connections) return true;
  }
  return false;
}

class JsonLinesContender final : public Contender {
 public:
  JsonLinesContender(std::string directory, Compressor tool)
      : directory_(std::move(directory)),
        tool_(std::move(tool)),
        path_(directory_ + "/events.jsonl" + tool_.suffix) {}

  bool Ingest(const CorpusFiles& corpus, IngestFigures& figures, std::string& error) override;
  uint64_t BytesOnDisk() override { return DirectoryBytes(directory_.c_str()); }
  bool InProcess() const override { return false; }
  bool Open(std::string&) override { return true; }
  bool Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome, std::string& error) override;
  bool Scan(Outcome& outcome, std::string& error) override;
  bool Join(Outcome& outcome, std::string& error) override;

 private:
  // Runs the decompressor and hands every line to `line`.
  template <typename LineFn>
  bool EachLine(LineFn&& line, std::string& error);

  std::string directory_;
  Compressor tool_;
  std::string path_;
  uint64_t sink_ = 0;
  uint64_t bad_lines_ = 0;  // lines that are not JSON objects
};

bool JsonLinesContender::Ingest(const CorpusFiles& corpus, IngestFigures& figures,
                                std::string& error) {
  ChildProcess compressor;
  const double start = Now();
  if (!compressor.Run(tool_.compress, corpus.json, path_, error)) return false;
  figures.seconds = Now() - start;
  figures.tool = compressor.usage();
  // The events: the lines of the file, counted after the clock stopped.
  ChildProcess counter;
  if (!counter.Start({"wc", "-l", corpus.json}, error)) return false;
  unsigned long long lines = 0;
  const bool counted = std::fscanf(counter.Output(), "%llu", &lines) == 1;
  if (!counter.Wait(error) || !counted) return false;
  figures.events = lines;
  return true;
}

template <typename LineFn>
bool JsonLinesContender::EachLine(LineFn&& line, std::string& error) {
  std::vector<std::string> argv = tool_.decompress;
  argv.push_back(path_);
  ChildProcess decompressor;
  if (!decompressor.Start(argv, error)) return false;
  char* text = nullptr;
  size_t capacity = 0;
  ssize_t length;
  while ((length = getline(&text, &capacity, decompressor.Output())) > 0) {
    line(std::string_view(text, static_cast<size_t>(length)));
  }
  std::free(text);
  if (!decompressor.Wait(error)) return false;
  if (bad_lines_ != 0) error = std::to_string(bad_lines_) + " lines are not JSON objects";
  return bad_lines_ == 0;
}

bool JsonLinesContender::Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome,
                              std::string& error) {
  const std::string pid(Questions::kHourCheckColumn);
  return EachLine(
      [&](std::string_view line) {
        if (TableOf(line) != Questions::kHourTable) return;
        const uint64_t time = TimeOf(line);
        if (time < static_cast<uint64_t>(from_ms) || time >= static_cast<uint64_t>(to_ms)) return;
        const Json row = Json::parse(line, nullptr, false);
        if (!row.is_object()) {
          ++bad_lines_;
          return;
        }
        for (const auto& column : row.items()) sink_ += column.key().size();
        ++outcome.rows;
        outcome.check += row.value(pid, uint64_t{0});
      },
      error);
}

bool JsonLinesContender::Scan(Outcome& outcome, std::string& error) {
  return EachLine(
      [&](std::string_view line) {
        ++outcome.rows;
        outcome.check += TimeOf(line);
      },
      error);
}

bool JsonLinesContender::Join(Outcome& outcome, std::string& error) {
  Questions::Join join;
  const bool ok = EachLine(
      [&](std::string_view line) {
        const std::string_view table = TableOf(line);
        if (!IsJoinTable(table)) return;
        const Json row = Json::parse(line, nullptr, false);
        if (!row.is_object()) {
          ++bad_lines_;
          return;
        }
        const uint64_t puid = row.value("puid", uint64_t{0});
        if (table == Questions::kProcessTable) {
          sink_ += row.value("path", std::string()).size();
          join.AddProcess(puid);
        } else {
          sink_ += row.value("remote_ip", std::string()).size();
          join.AddConnection(puid, row.value("remote_port", uint32_t{0}));
        }
      },
      error);
  outcome = join.Result();
  return ok;
}

}  // namespace

std::unique_ptr<Contender> MakeJsonLinesContender(const std::string& directory,
                                                  const std::string& name) {
  Compressor tool;
  if (name == "json-xz6") {
    tool = {{"xz", "-6", "-T1", "-c"}, {"xz", "-dc", "-T1"}, ".xz"};
  } else if (name == "json-zstd19") {
    tool = {{"zstd", "-19", "-T1", "-q", "-c"}, {"zstd", "-dc", "-q"}, ".zst"};
  } else if (name == "json-zstd3") {
    tool = {{"zstd", "-3", "-T1", "-q", "-c"}, {"zstd", "-dc", "-q"}, ".zst"};
  } else {
    return nullptr;
  }
  return std::make_unique<JsonLinesContender>(directory, std::move(tool));
}

}  // namespace Tarn::Bench
