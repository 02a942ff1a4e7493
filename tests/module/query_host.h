#pragma once

// A host that loads libtarn_storage.so, feeds it table rows through
// HandleEvent at their own times, and asks it queries the way a requester
// does: type-221 records answered into the requester's message, and
// type-186 requests. Query tests run each case in a process of its own
// (RunIsolated): the module shuts protobuf down when it is destroyed, and
// the answers are decoded with protobuf.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Keel/OS/Time.h"
#include "Tarn/Comm/IEventStorage.h"
#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/ExternalData.h"
#include "Tarn/Events/QueryRecord.h"
#include "Tarn/Module/EntryPoints.h"
#include "Tarn/Module/MapConfigReader.h"
#include "hx/MessageBus/Msg.h"
#include "module/ConfigKeys.h"
#include "osquery/row_model.h"
#include "support/query_answer.h"
#include "support/isolated.h"
#include "support/store_fixture.h"

namespace tarn::test {

struct ModuleReply {
  bool result = false;
  bool has_events = false;
  Answer answer;
  bool has_token = false;
  Token token;
  size_t fields = 0;
};

class QueryHost {
 public:
  static uint64_t Clock() { return now_ms().load(); }
  static std::atomic<uint64_t>& now_ms() {
    static std::atomic<uint64_t> now{EpochOf(9200, 0) * 1000};
    return now;
  }

  explicit QueryHost(const std::string& directory) {
    Keel::OS::Time::SetClockSource(&Clock);
    config_.SetString(Tarn::Module::ConfigKeys::kStorageDirectory, directory);
  }
  ~QueryHost() {
    Close();
    Keel::OS::Time::SetClockSource(nullptr);
  }

  Tarn::Module::MapConfigReader& config() { return config_; }

  bool Open() {
    library_ = dlopen(TARN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr) return false;
    auto init = reinterpret_cast<Tarn::Module::InitFn>(dlsym(library_, Tarn::Module::kInitSymbol));
    uninit_ = reinterpret_cast<Tarn::Module::UninitFn>(
        dlsym(library_, Tarn::Module::kUninitSymbol));
    module_ = init != nullptr ? init(nullptr) : nullptr;
    if (module_ == nullptr || !module_->Initialize(nullptr, &config_)) return false;
    storage_ = static_cast<Tarn::Comm::Interface::IEventStorage*>(
        module_->QueryInterface(Tarn::Module::Interface::kEventStorageId));
    return storage_ != nullptr;
  }

  void Close() {
    if (module_ == nullptr) return;
    module_->Stop();
    delete module_;
    module_ = nullptr;
    if (uninit_ != nullptr) uninit_();
    dlclose(library_);
  }

  // Stores `row` at its own date_time; false when the module refuses it.
  bool Feed(const std::string& table, RowPtr row) {
    const auto* field = row->GetDescriptor()->FindFieldByName("date_time");
    const uint64_t ms = row->GetReflection()->GetUInt64(*row, field);
    now_ms() = ms;
    std::vector<uint8_t> record = RecordOf(*row);
    Tarn::Events::Objects::Base event(record.data(), record.size());
    if (record.empty() || !module_->HandleEvent(&event, nullptr)) return false;
    fed_.push_back({table, std::move(row), ms / 1000});
    return true;
  }

  // Everything fed so far becomes readable.
  void Flush() { storage_->Flush(); }

  ModuleReply Ask(const Tarn::Events::QueryRecord& query, bool with_message = true) {
    Tarn::Events::DynamicEventBuilder builder;
    EXPECT_TRUE(query.Write(builder, now_ms()));
    hx::MessageBus::Msg msg;
    Tarn::Events::ExternalData data(&msg);
    Tarn::Events::Objects::Base event = builder.Event();
    ModuleReply reply;
    reply.result = module_->HandleEvent(&event, with_message ? &data : nullptr);
    if (auto events = msg.GetField("events")) {
      reply.has_events = true;
      reply.answer = ParseAnswer(*events);
    }
    if (auto token = msg.GetField("token")) reply.has_token = ParseToken(*token, reply.token);
    reply.fields = msg.FieldCount();
    return reply;
  }

  ModuleReply Ask(const std::string& table, const std::string& columns = "",
                  const std::vector<Filter>& filters = {}) {
    std::string constraints = filters.empty() ? "" : ConstraintsJson(filters);
    Tarn::Events::QueryRecord query;
    query.table = table;
    query.columns = columns;
    query.constraints = constraints;
    return Ask(query);
  }

  Tarn::Module::Interface* module() { return module_; }
  Tarn::Comm::Interface::IEventStorage* storage() { return storage_; }
  const std::vector<FedRow>& fed() const { return fed_; }

 private:
  Tarn::Module::MapConfigReader config_;
  void* library_ = nullptr;
  Tarn::Module::UninitFn uninit_ = nullptr;
  Tarn::Module::Interface* module_ = nullptr;
  Tarn::Comm::Interface::IEventStorage* storage_ = nullptr;
  std::vector<FedRow> fed_;
};

inline std::string MsOf(uint16_t day, uint32_t second, uint32_t ms = 0) {
  return std::to_string(EpochOf(day, second) * 1000 + ms);
}

}  // namespace tarn::test
