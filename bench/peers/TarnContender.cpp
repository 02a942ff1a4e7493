// The store itself, through its module as `tarn ingest` feeds it: loaded by
// the tool's module host (dlopen, Init, Initialize, Start), each record
// handed to HandleEvent with the host's clock at the event's time, and the
// questions asked as a requester asks them (type-221 queries, answered with
// protobuf rows) or, for the scan, through the module's reader.

#include <google/protobuf/message.h>

#include <string>

#include "Tarn/Comm/IEventStorage.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "common/Measure.h"
#include "peers/Contender.h"
#include "peers/Questions.h"
#include "peers/RecordFile.h"
#include "tarn/host/ModuleHost.h"
#include "tarn/host/QueryClient.h"

namespace Tarn::Bench {
namespace {

using Tool::QueryAnswer;
using Tool::QueryRequest;

class TarnContender final : public Contender {
 public:
  explicit TarnContender(std::string directory) : directory_(std::move(directory)) {}
  ~TarnContender() override {
    std::string ignored;
    host_.Close(ignored);
  }

  bool Ingest(const CorpusFiles& corpus, IngestFigures& figures, std::string& error) override;
  uint64_t BytesOnDisk() override { return DirectoryBytes(directory_.c_str()); }
  bool Open(std::string& error) override;
  bool Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome, std::string& error) override;
  bool Scan(Outcome& outcome, std::string& error) override;
  bool Join(Outcome& outcome, std::string& error) override;

 private:
  bool OpenHost(std::string& error);
  // Every page of one query; `row` sees each row, parsed.
  template <typename RowFn>
  bool AskAll(QueryRequest request, RowFn&& row, std::string& error);

  std::string directory_;
  Tool::ModuleHost host_;
  std::unique_ptr<Tool::QueryClient> client_;
};

bool TarnContender::OpenHost(std::string& error) {
  Tool::HostOptions options;
  options.store = directory_;
  // Nothing evicted, whatever the corpus's size and span; blocks of the
  // store's default size.
  options.limits.widest_by_default = true;
  return host_.Open(options, error);
}

bool TarnContender::Ingest(const CorpusFiles& corpus, IngestFigures& figures, std::string& error) {
  RecordReader records;
  if (!records.Open(corpus.records)) {
    error = "cannot open " + corpus.records;
    return false;
  }
  if (!OpenHost(error)) return false;
  const double start = Now();
  const uint8_t* record = nullptr;
  uint32_t size = 0;
  while (records.Next(record, size)) {
    if (!host_.Feed(record, size, static_cast<int64_t>(RecordTime(record)))) {
      error = "the store refused event " + std::to_string(figures.events + 1);
      return false;
    }
    ++figures.events;
  }
  host_.Storage()->Flush();  // every event compressed and written
  figures.seconds = Now() - start;
  if (records.Damaged()) error = corpus.records + " ends inside a record";
  return error.empty() && host_.Close(error);
}

bool TarnContender::Open(std::string& error) {
  if (!OpenHost(error)) return false;
  client_ = std::make_unique<Tool::QueryClient>(host_);
  return client_->ApplyLimits({}, true, error);
}

template <typename RowFn>
bool TarnContender::AskAll(QueryRequest request, RowFn&& row, std::string& error) {
  Tool::RowReader reader;
  if (!reader.Open(request.table)) {
    error = "no table " + request.table;
    return false;
  }
  for (;;) {
    QueryAnswer answer;
    if (!client_->Ask(request, answer, error)) return false;
    if (!answer.HasRows()) {
      error = request.table + ": " + client_->Explain(answer);
      return false;
    }
    for (std::string_view bytes : answer.rows) {
      if (!reader.Parse(bytes)) {
        error = request.table + ": a row that does not parse";
        return false;
      }
      row(reader.row());
    }
    if (answer.status == QueryAnswer::kComplete) return true;
    request.token = answer.next_token;
    request.page = answer.next_page;
  }
}

bool TarnContender::Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome, std::string& error) {
  QueryRequest request;
  request.table = Questions::kHourTable;
  request.constraints = R"({"date_time": {"affinity": "bigint", "list": [{"op": 32, "expr": ")" +
                        std::to_string(from_ms) + R"("}, {"op": 16, "expr": ")" +
                        std::to_string(to_ms) + R"("}]}})";
  const google::protobuf::FieldDescriptor* pid = nullptr;
  return AskAll(
      request,
      [&](const google::protobuf::Message& row) {
        if (pid == nullptr) pid = Questions::FieldOf(row, Questions::kHourCheckColumn);
        ++outcome.rows;
        outcome.check += Questions::NumberField(row, pid);
      },
      error);
}

bool TarnContender::Scan(Outcome& outcome, std::string& error) {
  Comm::Interface::IEventStorage* storage = host_.Storage();
  Events::GenericEventHolder holder;
  for (uint64_t p = storage->GetFirstIterVal(); p != Comm::Interface::kInvalidIterVal;) {
    if (!storage->GetEvent(p, &holder)) {
      error = "the reader could not read a stored event";
      return false;
    }
    ++outcome.rows;
    outcome.check += RecordTime(holder.Data());
    if (!storage->Increment(p)) break;
  }
  return true;
}

bool TarnContender::Join(Outcome& outcome, std::string& error) {
  Questions::Join join;
  auto add = [&](const google::protobuf::Message& row) { Questions::AddJoinRow(row, join); };
  QueryRequest processes;
  processes.table = Questions::kProcessTable;
  processes.columns = Questions::kProcessColumns;
  if (!AskAll(processes, add, error)) return false;
  for (std::string_view table : Questions::kConnectionTables) {
    QueryRequest connections;
    connections.table = table;
    connections.columns = Questions::kConnectionColumns;
    if (!AskAll(connections, add, error)) return false;
  }
  outcome = join.Result();
  return true;
}

}  // namespace

std::unique_ptr<Contender> MakeTarnContender(const std::string& directory) {
  return std::make_unique<TarnContender>(directory);
}

}  // namespace Tarn::Bench
