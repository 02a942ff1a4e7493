#include "tarn/host/EventFeed.h"

#include <google/protobuf/message.h>

#include "osquery/RecordBuilder.h"
#include "tarn/host/RecordFit.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

constexpr int64_t kFirstStorableMs = 946'684'800'000;  // 2000-01-01T00:00:00Z

int64_t SecondOf(int64_t ms) { return ms / 1000; }

int64_t TimeOf(const google::protobuf::Message& row) {
  const auto* descriptor = row.GetDescriptor();
  const auto* field = descriptor->FindFieldByName("date_time");
  if (field == nullptr) return -1;
  return static_cast<int64_t>(row.GetReflection()->GetUInt64(row, field));
}

}  // namespace

EventFeed::EventFeed(ModuleHost& host, int64_t newest_stored_ms)
    : host_(host), newest_ms_(newest_stored_ms), newest_from_store_(newest_stored_ms > 0) {}

bool EventFeed::Add(const google::protobuf::Message& row, std::string& error) {
  const int64_t time_ms = TimeOf(row);
  if (time_ms < kFirstStorableMs) {
    error = "date_time " + std::to_string(time_ms) +
            " lies before 2000-01-01, the first day the store can hold";
    return false;
  }
  const int64_t now_ms = RealNowMs();
  if (time_ms > now_ms) {
    error = "date_time " + FormatTime(time_ms, true) + " lies in the future (now is " +
            FormatTime(now_ms) +
            "): a store holding a day ahead of the clock wipes itself at its next start";
    return false;
  }
  if (SecondOf(time_ms) < SecondOf(newest_ms_)) {
    error =
        "date_time " + FormatTime(time_ms, true) + " is earlier than " +
        FormatTime(newest_ms_, true) +
        (newest_from_store_ ? ", the newest event already in the store" : ", the event before it") +
        "; the store keeps events in time order (--sort orders a file first; older events "
        "go into a store of their own)";
    return false;
  }
  const bool whole = Storage::OSQuery::BuildRecord(row, builder_);
  if (!whole && !BuildCutToFit(row, builder_)) {
    error = "the event does not fit in one record (65,535 bytes), even with its texts cut";
    return false;
  }
  if (!host_.Feed(builder_.Data(), builder_.Size(), time_ms)) {
    error = "the store refused the event (run with --verbose to see its log records)";
    return false;
  }
  if (SecondOf(time_ms) > SecondOf(newest_ms_)) newest_from_store_ = false;
  newest_ms_ = std::max(newest_ms_, time_ms);
  ++stored_;
  cut_ += whole ? 0 : 1;
  record_bytes_ += builder_.Size();
  return true;
}

}  // namespace Tarn::Tool
