// The peer benchmark: the same events kept by the store and by the usual
// alternatives (RocksDB, SQLite, compressed JSON lines), each fed the same
// record file and asked the same three questions (Contender.h). One step
// per run, each in a fresh process, so that its CPU time and peak memory
// are its own; scripts/bench-peers.sh runs them all and makes the tables.
//
//   peer_bench records --json FILE --out FILE
//       JSON lines as `tarn export` writes them -> the record file
//   peer_bench ingest --contender NAME --dir DIR --records FILE --json FILE
//   peer_bench ask --contender NAME --dir DIR --question hour|scan|join
//                  [--from-ms N --to-ms N]
//
// Contenders: tarn, rocksdb-zstd, rocksdb-lz4, sqlite, json-xz6,
// json-zstd19, json-zstd3. Output: key=value lines.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>

#include "common/Measure.h"
#include "peers/Contender.h"
#include "peers/Corpus.h"

namespace {

using namespace Tarn::Bench;  // NOLINT: the program's own namespace

using Args = std::map<std::string, std::string>;

bool ParseArgs(int argc, char** argv, Args& args) {
  for (int i = 2; i < argc; i += 2) {
    const std::string key = argv[i];
    if (key.rfind("--", 0) != 0 || i + 1 >= argc) return false;
    args[key.substr(2)] = argv[i + 1];
  }
  return true;
}

int Fail(const std::string& error) {
  std::fprintf(stderr, "peer_bench: %s\n", error.c_str());
  return 1;
}

// False with `error` naming the first of `keys` that was not given.
bool Require(const Args& args, std::initializer_list<const char*> keys, std::string& error) {
  for (const char* key : keys) {
    if (args.count(key) == 0) {
      error = std::string("--") + key + " is missing";
      return false;
    }
  }
  return true;
}

int Records(const Args& args) {
  CorpusInfo info;
  std::string error;
  if (!Require(args, {"json", "out"}, error)) return Fail(error);
  if (!MakeRecordFile(args.at("json"), args.at("out"), info, error)) return Fail(error);
  constexpr int64_t kHourMs = 3'600'000;
  Emit("events", info.events);
  Emit("record_bytes", info.record_bytes);
  Emit("json_bytes", info.json_bytes);
  Emit("first_ms", static_cast<uint64_t>(info.first_ms));
  Emit("last_ms", static_cast<uint64_t>(info.last_ms));
  // The question's hour: the one in the middle of the span.
  Emit("hour_from_ms",
       static_cast<uint64_t>((info.first_ms + info.last_ms) / 2 / kHourMs * kHourMs));
  return 0;
}

std::unique_ptr<Contender> Make(const Args& args, std::string& error) {
  const std::string& name = args.at("contender");
  const std::string& directory = args.at("dir");
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  auto contender = MakeContender(name, directory);
  if (contender == nullptr) error = "no contender " + name;
  if (ec) error = "cannot create " + directory;
  return ec ? nullptr : std::move(contender);
}

int Ingest(const Args& args) {
  std::string error;
  if (!Require(args, {"contender", "dir", "records", "json"}, error)) return Fail(error);
  auto contender = Make(args, error);
  if (contender == nullptr) return Fail(error);
  const uint64_t base_rss = ResidentKib();
  const Usage before = SelfUsage();
  IngestFigures figures;
  if (!contender->Ingest({args.at("records"), args.at("json")}, figures, error)) {
    return Fail(error);
  }
  const Usage after = SelfUsage();
  const bool here = contender->InProcess();
  Emit("events", figures.events);
  Emit("seconds", figures.seconds);
  Emit("finish_seconds", figures.finish_seconds);
  Emit("convert_seconds", figures.convert_seconds);
  Emit("cpu_seconds", here ? after.cpu_seconds - before.cpu_seconds : figures.tool.cpu_seconds);
  Emit("peak_rss_kib", here ? after.max_rss_kib : figures.tool.max_rss_kib);
  Emit("base_rss_kib", here ? base_rss : 0);
  Emit("bytes", contender->BytesOnDisk());
  return 0;
}

int Ask(const Args& args) {
  std::string error;
  if (!Require(args, {"contender", "dir", "question"}, error)) return Fail(error);
  auto contender = Make(args, error);
  if (contender == nullptr) return Fail(error);
  const double opened = Now();
  if (!contender->Open(error)) return Fail(error);
  const double start = Now();
  const Usage self = SelfUsage();
  const Usage children = ChildrenUsage();
  const std::string& question = args.at("question");
  Outcome outcome;
  bool ok = false;
  if (question == "hour") {
    ok = Require(args, {"from-ms", "to-ms"}, error) &&
         contender->Hour(std::strtoll(args.at("from-ms").c_str(), nullptr, 10),
                         std::strtoll(args.at("to-ms").c_str(), nullptr, 10), outcome, error);
  } else if (question == "scan") {
    ok = contender->Scan(outcome, error);
  } else if (question == "join") {
    ok = contender->Join(outcome, error);
  } else {
    error = "no question " + question;
  }
  const double seconds = Now() - start;
  if (!ok) return Fail(error);
  const Usage self_after = SelfUsage();
  const Usage children_after = ChildrenUsage();
  Emit("open_seconds", start - opened);
  Emit("seconds", seconds);
  Emit("cpu_seconds", self_after.cpu_seconds - self.cpu_seconds + children_after.cpu_seconds -
                          children.cpu_seconds);
  Emit("rows", outcome.rows);
  Emit("check", outcome.check);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Args args;
  if (argc < 2 || !ParseArgs(argc, argv, args)) {
    return Fail("usage: peer_bench records|ingest|ask --key value ... (see the source)");
  }
  const std::string step = argv[1];
  if (step == "records") return Records(args);
  if (step == "ingest") return Ingest(args);
  if (step == "ask") return Ask(args);
  return Fail("no step " + step);
}
