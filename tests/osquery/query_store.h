#pragma once

// A real store (writer thread, day files, index) with the reader on top,
// fed with table rows at chosen seconds, and a way to ask it queries with
// any limits, reading the answer back as a requester does.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Tarn/Events/Base.h"
#include "hx/MessageBus/Msg.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/writer/StorageManager.h"
#include "osquery/Query.h"
#include "osquery/QueryService.h"
#include "row_model.h"
#include "support/query_answer.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace tarn::test {

inline Tarn::Storage::OSQuerySettings QueryLimits(uint32_t size_limit = 1'000'000,
                                                  uint32_t row_limit = 100'000,
                                                  uint32_t aux_limit = 1'000) {
  Tarn::Storage::OSQuerySettings settings;
  settings.size_limit = size_limit;
  settings.row_limit = row_limit;
  settings.aux_limit = aux_limit;
  return settings;
}

struct Reply {
  bool result = false;
  bool has_events = false;
  Answer answer;
  bool has_token = false;
  Token token;
  std::vector<uint64_t> positions;  // when the query asked for them
};

class QueryStore {
 public:
  explicit QueryStore(uint32_t max_days = 10) {
    settings_ = Tarn::Storage::Settings::default_();
    settings_.block_buffer_size = 102'400;
    settings_.max_storage_size = 52'428'800;
    settings_.max_days = max_days;
  }

  bool Open() {
    manager_ = std::make_unique<Tarn::Storage::StorageManager>();
    if (!manager_->Create(settings_, &clock_, 1, dir_.path().c_str())) return false;
    provider_ =
        std::make_unique<Tarn::Storage::EventStorageProvider>(*manager_, manager_->telemetry());
    queries_ = std::make_unique<Tarn::Storage::OSQuery::QueryService>(*provider_, *manager_);
    return provider_->Create();
  }

  // Stores `row` (its date_time in ms is the time it is stored at).
  bool Feed(const std::string& table, RowPtr row, uint16_t version = 0) {
    const auto* descriptor = row->GetDescriptor();
    uint64_t ms = row->GetReflection()->GetUInt64(*row, descriptor->FindFieldByName("date_time"));
    clock_.Set(ms / 1000);
    std::vector<uint8_t> record = RecordOf(*row, version);
    if (record.empty()) return false;
    Tarn::Events::Objects::Base event(record.data(), record.size());
    if (!manager_->AddEvent(event)) return false;
    fed_.push_back({table, std::move(row), ms / 1000});
    return true;
  }

  // A row of `table` made at (day, second) plus `ms` milliseconds.
  bool FeedNew(RowMaker& maker, const std::string& table, uint16_t day, uint32_t second,
               uint32_t ms = 0) {
    return Feed(table, maker.Make(table, EpochOf(day, second) * 1000 + ms));
  }

  // Ends the open block: everything fed is readable afterwards.
  bool Cut() { return manager_->Flush(); }

  Reply Ask(Tarn::Storage::OSQuery::Query query,
            const Tarn::Storage::OSQuerySettings& limits = QueryLimits()) {
    hx::MessageBus::Msg msg;
    Reply reply;
    reply.result = queries_->HandleOSQuery(std::move(query), msg, limits);
    Read(msg, reply);
    return reply;
  }

  static void Read(const hx::MessageBus::Msg& msg, Reply& reply) {
    if (auto events = msg.GetField("events")) {
      reply.has_events = true;
      reply.answer = ParseAnswer(*events);
    }
    if (auto token = msg.GetField("token")) reply.has_token = ParseToken(*token, reply.token);
    if (auto positions = msg.GetField("positions")) {
      for (size_t at = 0; at + 8 <= positions->size(); at += 8) {
        uint64_t value = 0;
        for (int b = 7; b >= 0; --b) value = value << 8 | static_cast<uint8_t>((*positions)[at + b]);
        reply.positions.push_back(value);
      }
    }
  }

  Tarn::Storage::EventStorageProvider& provider() { return *provider_; }
  Tarn::Storage::OSQuery::QueryService& queries() { return *queries_; }
  Tarn::Storage::StorageManager& manager() { return *manager_; }
  const std::vector<FedRow>& fed() const { return fed_; }
  const std::string& directory() const { return dir_.path(); }

 private:
  Tarn::Storage::Settings settings_;
  TempDir dir_;
  FakeClock clock_{EpochOf(9000, 0)};
  std::unique_ptr<Tarn::Storage::StorageManager> manager_;
  std::unique_ptr<Tarn::Storage::EventStorageProvider> provider_;
  std::unique_ptr<Tarn::Storage::OSQuery::QueryService> queries_;
  std::vector<FedRow> fed_;
};

inline Tarn::Storage::OSQuery::Query MakeQuery(std::string table, std::string columns = "",
                                               const std::vector<Filter>& filters = {}) {
  Tarn::Storage::OSQuery::Query query;
  query.table = std::move(table);
  query.columns = std::move(columns);
  query.constraints = filters.empty() ? "" : ConstraintsJson(filters);
  return query;
}

}  // namespace tarn::test
