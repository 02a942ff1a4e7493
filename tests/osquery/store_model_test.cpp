// The whole read side against a brute-force model of the store. A random
// workload (days with empty days between them, many events in one second,
// gaps inside a day, blocks cut by size and by day, evictions by day count
// and by size, restarts that take the open block back, the clock going back
// both while running and across a restart, within a day and to other days,
// a far future day and back, readings before 2000) drives a real store and a model
// that keeps every accepted event with its day, second, table and row, and
// predicts the position each one must get. After every flush and restart the
// reader and the query service are held against answers worked out from the
// model alone: walks both ways, events and times, the by-time search in all
// three strategies, blocks and their decode tokens, window and size, stale
// positions, and random queries followed through their tokens.
//
// TARN_MODEL_SEEDS=n runs seeds 1..n; TARN_MODEL_SEED=s runs seed s alone;
// TARN_MODEL_STEPS=k sets the steps per seed. A divergence prints its seed
// and the steps that lead to it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Tarn/Events/Base.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "hx/MessageBus/Msg.h"
#include "manager/format/DayFile.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/format/EventsBlock.h"
#include "manager/index/Index.h"
#include "manager/format/StorageHelper.h"
#include "manager/writer/StorageManager.h"
#include "osquery/QueryService.h"
#include "query_store.h"
#include "store_model.h"

namespace Tarn::Storage {
namespace {

using tarn::test::EpochOf;
using tarn::test::Filter;
using tarn::test::RowPtr;
using tarn::test::ModelEvent;
using tarn::test::StoreModel;
constexpr uint64_t kInvalid = RawIterator::Invalid;
constexpr uint32_t kBlockSize = tarn::test::kModelBlockSize;
constexpr uint64_t kBudget = 52'428'800;
constexpr uint32_t kLastSecond = 86'399;

uint32_t Cap(uint64_t second) { return uint32_t(std::min<uint64_t>(second, kLastSecond)); }
const char* const kTables[] = {"edr_process_create", "edr_email_sent", "edr_enter_idle_mode",
                               "edr_network_generic_connect", "edr_file_delete"};
constexpr uint32_t kFedTables = 4;  // the last one is never fed

uint32_t FromEnvironment(const char* name, uint32_t fallback) {
  const char* text = std::getenv(name);
  const long value = text != nullptr ? std::atol(text) : 0;
  return value > 0 ? static_cast<uint32_t>(value) : fallback;
}

struct Figures {
  uint64_t steps = 0, checkpoints = 0, operations = 0, queries = 0, pages = 0, rows = 0;
  // Clock steps: back within a day, restarts earlier on the same day, trips
  // to a far future day and back, readings before 2000 (refused).
  uint64_t steps_back = 0, earlier_restarts = 0, future_trips = 0, refused = 0;
};

// One seed: the store, the model beside it, and the steps taken so far.
class ModelRun {
 public:
  ModelRun(uint32_t seed, Figures& figures)
      : seed_(seed), random_(seed), maker_(seed), figures_(figures),
        model_(2 + seed % 4) {
    settings_ = Settings::default_();
    settings_.block_buffer_size = kBlockSize;
    settings_.max_storage_size = kBudget;
    settings_.max_days = 2 + seed % 4;
  }
  ~ModelRun() { Close(); }

  // Runs `steps` steps; false at the first divergence, which is reported.
  bool Run(uint32_t steps) {
    day_ = 9000 + random_() % 20;
    second_ = random_() % 1000;
    if (!Start()) return false;
    for (uint32_t step = 0; step < steps && failure_.empty(); ++step) {
      ++figures_.steps;
      const uint32_t roll = random_() % 100;
      if (roll < 40) {
        Feed(1 + random_() % 150);
      } else if (roll < 44) {
        StepBack();
      } else if (roll < 45) {
        random_() % 2 == 0 ? FutureTrip() : Before2000();
      } else if (roll < 62) {
        Note("flush");
        if (!manager_->Flush()) Diverge("Flush failed");
        model_.PlaceOpen();
        Compare();
      } else if (roll < 74) {
        NextDay(1 + random_() % 3);
      } else if (roll < 82) {
        second_ = Cap(second_ + 1000 + random_() % 20'000);
        Note("gap to second " + std::to_string(second_));
      } else if (roll < 90) {
        ClockBack();
      } else {
        Restart();
      }
    }
    if (failure_.empty()) {
      manager_->Flush();
      model_.PlaceOpen();
      Compare();
    }
    if (failure_.empty()) return true;
    std::ostringstream text;
    text << "seed " << seed_ << " (TARN_MODEL_SEED=" << seed_ << "): " << failure_
         << "\nsteps:";
    for (const std::string& s : steps_) text << "\n  " << s;
    ADD_FAILURE() << text.str();
    return false;
  }

 private:
  // ---- The workload --------------------------------------------------------

  void Feed(uint32_t count) {
    Note("feed " + std::to_string(count) + " on day " + std::to_string(day_) + " from second " +
         std::to_string(second_));
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t roll = random_() % 10;
      if (roll >= 5) second_ = Cap(second_ + (roll < 8 ? 1 : 10 + random_() % 600));
      // Filed at the second the store records; the row keeps the clock's.
      ModelEvent event{day_, model_.Recorded(day_, second_), kTables[random_() % kFedTables],
                       nullptr, {}};
      event.row = maker_.Make(event.table, EpochOf(day_, second_) * 1000 + random_() % 1000);
      if (random_() % 5 == 0) Lengthen(*event.row);
      event.record = tarn::test::RecordOf(*event.row);
      clock_.SetDay(day_, second_);
      Events::Objects::Base base(event.record.data(), event.record.size());
      if (!manager_->AddEvent(base)) return Diverge("an event was refused");
      model_.Accept(std::move(event));
    }
  }

  // A long text in one column, so that blocks also fill up by size.
  void Lengthen(google::protobuf::Message& row) {
    const auto* descriptor = row.GetDescriptor();
    for (int i = 0; i < descriptor->field_count(); ++i) {
      const auto* field = descriptor->field(i);
      if (field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_STRING ||
          tarn::test::IsAddressColumn(field->name())) {
        continue;
      }
      std::string text(200 + random_() % 3000, 'x');
      for (char& c : text) c = static_cast<char>('a' + random_() % 26);
      row.GetReflection()->SetString(&row, field, text);
      return;
    }
  }

  // The clock steps back inside the day: later events are filed at the
  // day's last recorded second until the clock passes it again.
  void StepBack() {
    if (second_ == 0) return;
    second_ -= 1 + random_() % std::min<uint32_t>(second_, 5000);
    ++figures_.steps_back;
    Note("clock steps back to second " + std::to_string(second_));
  }

  // A far future day for a few events, then back: the store keeps both
  // days until a start with the true clock wipes it.
  void FutureTrip() {
    const uint16_t home = day_;
    const uint32_t second = second_;
    day_ = static_cast<uint16_t>(day_ + 1000 + random_() % 1000);
    second_ = model_.LastSecond(day_).value_or(random_() % 3600);
    Note("clock jumps to day " + std::to_string(day_));
    ++figures_.future_trips;
    Feed(1 + random_() % 20);
    day_ = home;
    second_ = second;
    Note("clock back home to day " + std::to_string(day_));
  }

  // A reading the day number cannot hold is refused, never filed.
  void Before2000() {
    ++figures_.refused;
    const uint64_t epoch = random_() % 946'684'800;
    Note("clock reads " + std::to_string(epoch) + " (before 2000)");
    clock_.Set(epoch);
    std::vector<uint8_t> record = tarn::test::RecordOf(*maker_.Make(kTables[0], epoch * 1000));
    Events::Objects::Base base(record.data(), record.size());
    if (manager_->AddEvent(base)) Diverge("an event read before 2000 was stored");
    clock_.SetDay(day_, second_);
  }

  void NextDay(uint32_t days) {
    day_ = static_cast<uint16_t>(day_ + days);
    // The padding day is only ever evicted; writing to it would make the
    // evictions depend on byte counts the model does not keep.
    if (day_ == model_.padding()) ++day_;
    // The day may hold events from a time the clock went back to it: then
    // they are filed at its last recorded second until the clock passes it.
    second_ = random_() % 3600;
    Note("clock to day " + std::to_string(day_) + " second " + std::to_string(second_));
  }

  // Back to an earlier day: a stored one (where the writer appends), one in
  // a gap, or one before every stored day, possibly evicted before. Seconds
  // never go back within a day, so each day stays in time order.
  void ClockBack() {
    const uint16_t oldest = model_.OldestDay(day_);
    const uint16_t floor = oldest > 3 ? oldest - 3 : 0;
    if (day_ <= floor) return;
    uint16_t day = static_cast<uint16_t>(floor + random_() % (day_ - floor));
    if (day == model_.padding()) return;
    day_ = day;
    const std::optional<uint32_t> last = model_.LastSecond(day);
    second_ = last && random_() % 2 == 0 ? Cap(*last + random_() % 100) : random_() % 40'000;
    Note("clock back to day " + std::to_string(day_) + " second " + std::to_string(second_));
  }

  // Stops (the open block goes to the shutdown file), sometimes pads the
  // store up to its budget, and starts again, the clock later on the same
  // day, on a later day, or before the newest stored day (a wipe).
  void Restart() {
    Note("stop");
    if (!manager_->Stop()) return Diverge("Stop failed");
    model_.Stop();
    Close();
    const uint16_t padding_day = model_.OldestDay(day_) - 1 - random_() % 3;
    if (random_() % 3 == 0 && model_.days().size() + 1 < settings_.max_days &&
        !model_.padding() && padding_day > 8000) {
      Pad(padding_day);
    }
    const uint32_t roll = random_() % 20;
    if (roll < 9) {
      second_ = Cap(second_ + random_() % 100);
    } else if (roll < 12) {
      second_ -= std::min<uint32_t>(second_, 1 + random_() % 2000);
      ++figures_.earlier_restarts;
      Note("restart earlier on the same day");
    } else if (roll < 17) {
      NextDay(1 + random_() % 2);
    } else if (!model_.days().empty()) {
      day_ = static_cast<uint16_t>(model_.days().rbegin()->first - 1 - random_() % 3);
      second_ = 0;
      Note("clock back to day " + std::to_string(day_));
    }
    // Now and then the clock is not yet set when the store starts: it
    // wipes nothing and files nothing until the clock reads a real time.
    if (Start(random_() % 10 == 0)) Compare();
  }

  bool Start(bool clock_unset = false) {
    Note("start on day " + std::to_string(day_) + " second " + std::to_string(second_) +
         (clock_unset ? " with the clock before 2000" : ""));
    if (clock_unset) {
      ++figures_.refused;
      clock_.Set(random_() % 946'684'800);
    } else {
      clock_.SetDay(day_, second_);
    }
    manager_ = std::make_unique<StorageManager>();
    if (!manager_->Create(settings_, &clock_, 1, dir_.path().c_str())) {
      Diverge("the store does not start");
      return false;
    }
    provider_ = std::make_unique<EventStorageProvider>(*manager_, manager_->telemetry());
    queries_ = std::make_unique<OSQuery::QueryService>(*provider_, *manager_);
    if (!provider_->Create()) {
      Diverge("the reader does not start");
      return false;
    }
    model_.Start(clock_unset ? std::nullopt : std::optional<uint16_t>(day_));
    clock_.SetDay(day_, second_);
    return true;
  }

  void Close() {
    queries_.reset();
    provider_.reset();
    manager_.reset();
  }

  // A stored day far into a sparse file: the store starts a few bytes under
  // its budget, so the next block it places evicts this day by size.
  void Pad(uint16_t day) {
    Note("pad with day " + std::to_string(day));
    std::vector<ModelEvent> events;
    Keel::Collections::Buffer raw, payload;
    Keel::Collections::Array<BlockEntry> entries;
    if (!raw.Create(8192) || !entries.Create(8) || !payload.Create(16384)) {
      return Diverge("no buffers for the padding day");
    }
    for (uint32_t second = 100; second < 104; ++second) {
      ModelEvent event{day, second, kTables[second % kFedTables], nullptr, {}};
      event.row = maker_.Make(event.table, EpochOf(day, second) * 1000);
      event.record = tarn::test::RecordOf(*event.row);
      entries.Add(BlockEntry{static_cast<uint32_t>(raw.Size()), second});
      raw.Push(event.record.data(), event.record.size());
      events.push_back(std::move(event));
    }
    EncodedBlock encoded;
    if (!EncodeBlock(raw, entries, payload, encoded)) return Diverge("padding does not encode");
    const uint64_t block_bytes = payload.Size() + 12;
    const uint64_t offset = kBudget - 8 - tarn::test::DayFileBytes(dir_.path()) - block_bytes;
    Keel::OS::File file;
    Index index;
    index.set_directory(dir_.path());
    DayInfo info;
    if (!CreateDayFile(dir_.File(Utils::DayFileName(day, 2)), file) ||
        !WriteBlock(file, offset, encoded.header, payload) || !index.load(settings_) ||
        !info.Create() ||
        !info.AddBlock(BlockInfo{static_cast<uint32_t>(offset), 4, 100, 103, 2}) ||
        !index.tree().Insert(day, std::move(info)) ||
        !index.save(index.last_event_timestamp())) {
      return Diverge("the padding day cannot be written");
    }
    model_.AddPadding(day, std::move(events));
  }



  // ---- The comparison ----------------------------------------------------

  void Compare() {
    if (!failure_.empty()) return;
    ++figures_.checkpoints;
    const std::vector<const ModelEvent*> events = model_.Stored();
    CompareWalks(events);
    if (failure_.empty()) CompareByTime(events);
    if (failure_.empty()) CompareBlocks(events);
    if (failure_.empty()) CompareStalePositions(events);
    for (uint32_t q = 0; q < 6 && failure_.empty(); ++q) CompareQuery(events);
  }

  void CompareWalks(const std::vector<const ModelEvent*>& events) {
    EventStorageProvider& reader = *provider_;
    Events::GenericEventHolder holder;
    size_t i = 0;
    for (uint64_t p = reader.GetFirstIterVal(); p != kInvalid; reader.Increment(p), ++i) {
      ++figures_.operations;
      if (i == events.size()) return Diverge("the walk passes the last event");
      if (p != events[i]->position) return Diverge(Mismatch("walk position", i, p, *events[i]));
      if (!reader.GetEvent(p, &holder) ||
          std::vector<uint8_t>(holder.Data(), holder.Data() + holder.Size()) != events[i]->record) {
        return Diverge(Mismatch("event bytes", i, p, *events[i]));
      }
      Keel::OS::DateTime time;
      if (!reader.GetTime(p, time) ||
          time.ToSecondsSinceEpoch() != int64_t(EpochOf(events[i]->day, events[i]->second))) {
        return Diverge(Mismatch("event time", i, p, *events[i]));
      }
      seen_.insert(p);
      // One past a block's last event names nothing.
      const RawIterator at(p);
      if ((i + 1 == events.size() || RawIterator(events[i + 1]->position).AsKey() != at.AsKey()) &&
          reader.GetTime(RawIterator(at.Day(), at.Block(), at.Event() + 1), time)) {
        return Diverge("the position after " + Describe(p) + " reads");
      }
    }
    if (i != events.size()) return Diverge("the walk ends after " + std::to_string(i) + " events");
    for (uint32_t n = 0; n < 50 && !events.empty(); ++n) {
      const size_t a = random_() % events.size(), b = random_() % events.size();
      const int order = a < b ? -1 : (a > b ? 1 : 0);
      ++figures_.operations;
      if (reader.Compare(events[a]->position, events[b]->position) != order) {
        return Diverge("Compare orders " + Describe(events[a]->position) + " and " +
                       Describe(events[b]->position) + " wrongly");
      }
    }
    for (uint64_t p = reader.GetLastIterVal(); p != kInvalid; reader.Decrement(p)) {
      ++figures_.operations;
      if (i == 0 || p != events[--i]->position) return Diverge("the backward walk differs");
    }
    if (i != 0) return Diverge("the backward walk stops early");
    if (reader.GetSize() != events.size()) return Diverge("GetSize differs");
    DateTimeInterval window;
    const bool empty = events.empty();
    const int64_t start = empty ? EventStorageProvider::kWidestWindowStart
                                : int64_t(EpochOf(events.front()->day, events.front()->second));
    const int64_t end = empty ? EventStorageProvider::kWidestWindowEnd
                              : int64_t(EpochOf(events.back()->day, events.back()->second));
    if (!reader.GetStorageTimeWindow(window) || window.start != start || window.end != end) {
      return Diverge("the storage window differs");
    }
    figures_.operations += 2;
  }

  void CompareByTime(const std::vector<const ModelEvent*>& events) {
    const uint16_t first_day = model_.OldestDay(day_);
    for (uint32_t round = 0; round < 300; ++round) {
      uint16_t day = static_cast<uint16_t>(first_day - 1 + random_() % (day_ - first_day + 3));
      uint32_t second = random_() % 86'400;
      const uint32_t roll = random_() % 10;
      if (!events.empty() && roll < 7) {
        // On an event, a second either side, or a day's edge near it.
        const ModelEvent& near = *events[random_() % events.size()];
        day = near.day;
        second = roll < 6 ? Cap(near.second + random_() % 3 -
                                                      std::min(near.second, 1u))
                          : (random_() % 2 ? 0 : kLastSecond);
      }
      const uint32_t strategy = random_() % 16 == 0 ? 3 : random_() % 3;
      const uint64_t want = tarn::test::ExpectedByTime(events, day, second, strategy);
      const uint64_t got = provider_->GetIterVal(
          Keel::OS::DateTime(int64_t(EpochOf(day, second))), static_cast<Comm::Interface::SearchStrategy>(strategy));
      ++figures_.operations;
      if (got != want) {
        return Diverge("by-time search on day " + std::to_string(day) + " second " +
                       std::to_string(second) + " strategy " + std::to_string(strategy) +
                       ": got " + Describe(got) + ", want " + Describe(want));
      }
    }
  }

  // ProcessBlocks over a random range hands each block from the one of the
  // range's start to the one of its end, and each decodes to its events.
  void CompareBlocks(const std::vector<const ModelEvent*>& events) {
    if (events.empty()) return;
    size_t from = random_() % 3 == 0 ? 0 : random_() % events.size();
    size_t to = random_() % 3 == 0 ? events.size() - 1 : random_() % events.size();
    if (from > to) std::swap(from, to);
    size_t next = from;
    while (next > 0 && RawIterator(events[next - 1]->position).AsKey() ==
                           RawIterator(events[next]->position).AsKey()) {
      --next;
    }
    std::string problem;
    Telemetry::StorageTelemetry telemetry;
    bool ok = provider_->ProcessBlocks(
        events[from]->position, events[to]->position,
        [&](const EventStorageProvider::DecodeToken& token, const Keel::Collections::Buffer& block) {
          ++figures_.operations;
          if (!problem.empty()) return;
          if (next >= events.size() || token.block_key != events[next]->position ||
              token.magic != 0x4B544344u || token.version != 1 || token.file_version != 2) {
            problem = "ProcessBlocks hands block " + Describe(token.block_key);
            return;
          }
          Keel::Collections::Buffer copy, decoded;
          if (!copy.Assign(block) ||
              !EventStorageProvider::DecodeBlock(copy, token.decoded_size, decoded, telemetry)) {
            problem = "a handed block does not decode";
            return;
          }
          RawBlockView view(decoded.Data(), uint32_t(decoded.Size()), token.event_table_offset);
          for (uint32_t e = 0; e < view.EventCount(); ++e, ++next) {
            const uint8_t* data = nullptr;
            uint32_t size = 0;
            if (next >= events.size() || !view.Event(e, data, size) ||
                std::vector<uint8_t>(data, data + size) != events[next]->record ||
                view.Second(e) != events[next]->second) {
              problem = "a handed block holds other events";
              return;
            }
          }
          if (view.EventCount() != token.event_count) problem = "a token's event count differs";
        });
    const bool ends_right =
        next == events.size() ||
        RawIterator(events[next]->position).AsKey() != RawIterator(events[to]->position).AsKey();
    if (!ok || !problem.empty() || !ends_right || next <= to) {
      Diverge(problem.empty() ? "ProcessBlocks stops early" : problem);
    }
  }

  // A position an earlier check read that the model no longer names (its
  // day evicted or wiped) must read nothing, cached or not.
  void CompareStalePositions(const std::vector<const ModelEvent*>& events) {
    std::set<uint64_t> current;
    for (const ModelEvent* e : events) current.insert(e->position);
    Events::GenericEventHolder holder;
    Keel::OS::DateTime time;
    for (uint64_t p : seen_) {
      if (current.count(p) != 0) continue;
      ++figures_.operations;
      if (provider_->GetEvent(p, &holder) || provider_->GetTime(p, time)) {
        return Diverge("the gone position " + Describe(p) + " still reads");
      }
    }
  }

  // A random query, followed through its tokens with a size limit that
  // makes several pages, against the brute-force answer over the model.
  void CompareQuery(const std::vector<const ModelEvent*>& events) {
    std::vector<tarn::test::FedRow> fed;
    for (const ModelEvent* e : events) {
      fed.push_back({e->table, e->row, EpochOf(e->day, e->second)});
    }
    const std::string table = kTables[random_() % 5];
    std::vector<Filter> filters = TimeFilters(events);
    if (!fed.empty()) {
      for (uint32_t n = random_() % 3; n > 0; --n) {
        Filter f = tarn::test::RandomFilter(random_, table, fed);
        if (std::none_of(filters.begin(), filters.end(),
                         [&](const Filter& g) { return g.column == f.column; })) {
          filters.push_back(f);
        }
      }
    }
    const std::string columns = tarn::test::RandomColumns(random_, table);
    const uint32_t status = tarn::test::ExpectedTimeStatus(filters, events.empty());
    auto expected = tarn::test::BruteForce(fed, table, columns, filters);
    if (status != 0) expected.clear();
    size_t bytes = 0;
    for (const RowPtr& row : expected) bytes += row->ByteSizeLong() + 4;
    const uint32_t size_limit =
        uint32_t(std::max<size_t>(4'000, bytes / (1 + random_() % 6)));
    OSQuery::Query query = tarn::test::MakeQuery(table, columns, filters);
    std::vector<RowPtr> got;
    const std::string what =
        "query " + table + " [" + columns + "] " + tarn::test::ConstraintsJson(filters);
    ++figures_.queries;
    for (uint16_t page = 0;; ++page) {
      tarn::test::Reply reply;
      hx::MessageBus::Msg msg;
      try {
        reply.result = queries_->HandleOSQuery(OSQuery::Query(query), msg,
                                                tarn::test::QueryLimits(size_limit));
      } catch (const std::exception& e) {
        return Diverge(what + " throws " + e.what());
      }
      tarn::test::QueryStore::Read(msg, reply);
      ++figures_.pages;
      if (!reply.answer.well_formed) return Diverge(what + ": a malformed page");
      for (RowPtr& row : tarn::test::DecodeRows(reply.answer.rows, table)) got.push_back(row);
      if (reply.answer.status == status && !reply.has_token) break;
      if (reply.answer.status != 8 || !reply.has_token || reply.token.page != page + 1 ||
          reply.token.magic != 0x00014B54u || reply.token.pad != 0 || reply.token.trailer != 0 ||
          reply.answer.row_count == 0) {
        return Diverge(what + ": page " + std::to_string(page) + " has status " +
                       std::to_string(reply.answer.status));
      }
      query.token = reply.token.position;
      query.page = reply.token.page;
    }
    figures_.rows += got.size();
    const std::string difference = tarn::test::CompareRows(got, expected);
    if (!difference.empty()) Diverge(what + ": " + difference);
  }

  // date_time bounds with every operator, at events, block and day edges,
  // in gaps and outside the store, with any millisecond.
  std::vector<Filter> TimeFilters(const std::vector<const ModelEvent*>& events) {
    std::vector<Filter> filters;
    const uint32_t count = random_() % 4 == 0 ? 0 : 1 + random_() % 2;
    for (uint32_t n = 0; n < count; ++n) {
      uint64_t second;
      const uint32_t roll = random_() % 10;
      if (events.empty() || roll == 0) {
        second = EpochOf(model_.OldestDay(day_) - 1 + random_() % 6, random_() % 86'400);
      } else {
        const ModelEvent& near = *events[random_() % events.size()];
        second = roll < 7 ? EpochOf(near.day, near.second) + random_() % 3 - 1
                          : EpochOf(near.day, roll == 9 ? 0 : near.second + random_() % 5000);
      }
      static const uint32_t kOps[] = {2, 4, 8, 16, 32};
      filters.push_back({"date_time", kOps[random_() % 5],
                         std::to_string(second * 1000 + random_() % 1000), "bigint"});
    }
    return filters;
  }

  // ---- Reporting ---------------------------------------------------------

  void Note(std::string step) { steps_.push_back(std::move(step)); }
  void Diverge(const std::string& what) {
    if (failure_.empty()) failure_ = "step " + std::to_string(steps_.size()) + ": " + what;
  }
  static std::string Describe(uint64_t p) {
    if (p == kInvalid) return "none";
    RawIterator it(p);
    return "(" + std::to_string(it.Day()) + "," + std::to_string(it.Block()) + "," +
           std::to_string(it.Event()) + ")";
  }
  static std::string Mismatch(const char* what, size_t i, uint64_t got, const ModelEvent& e) {
    return std::string(what) + " of event " + std::to_string(i) + " at " + Describe(got) +
           ", want " + Describe(e.position) + " second " + std::to_string(e.second);
  }

  uint32_t seed_;
  std::mt19937 random_;
  tarn::test::RowMaker maker_;
  Figures& figures_;
  StoreModel model_;
  Settings settings_;
  tarn::test::TempDir dir_;
  tarn::test::FakeClock clock_;
  std::unique_ptr<StorageManager> manager_;
  std::unique_ptr<EventStorageProvider> provider_;
  std::unique_ptr<OSQuery::QueryService> queries_;
  uint16_t day_ = 9000;
  uint32_t second_ = 0;
  std::set<uint64_t> seen_;
  std::vector<std::string> steps_;
  std::string failure_;
};

TEST(StoreModelTest, EveryReadAndQueryMatchesTheModelThroughRandomWorkloads) {
  const uint32_t only = FromEnvironment("TARN_MODEL_SEED", 0);
  const uint32_t seeds = FromEnvironment("TARN_MODEL_SEEDS", 10);
  const uint32_t steps = FromEnvironment("TARN_MODEL_STEPS", 80);
  Figures figures;
  uint32_t diverged = 0;
  for (uint32_t seed = only != 0 ? only : 1; seed <= (only != 0 ? only : seeds); ++seed) {
    ModelRun run(seed, figures);
    if (!run.Run(steps)) ++diverged;
  }
  std::cout << "store model: " << (only != 0 ? 1 : seeds) << " seeds, " << figures.steps
            << " steps, " << figures.checkpoints << " checkpoints, " << figures.operations
            << " reader operations, " << figures.queries << " queries (" << figures.pages
            << " pages, " << figures.rows << " rows); clock: " << figures.steps_back
            << " steps back within a day, " << figures.earlier_restarts
            << " restarts earlier on the same day, " << figures.future_trips
            << " trips to a far future day, " << figures.refused << " readings before 2000; "
            << diverged << " diverged\n";
  EXPECT_EQ(diverged, 0u);
  EXPECT_GT(figures.rows, 0u);
}

}  // namespace
}  // namespace Tarn::Storage
