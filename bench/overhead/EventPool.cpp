#include "overhead/EventPool.h"

#include <google/protobuf/message.h>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/Record.h"
#include "osquery/RecordBuilder.h"
#include "tarn/synthetic/Synthetic.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Bench {

bool EventPool::Make(uint64_t count, std::string& error) {
  constexpr int64_t kWeekMs = 7 * 86'400'000LL;
  const int64_t now = Tool::RealNowMs();
  Tool::SyntheticEvents events({count, 1, now - kWeekMs, now});
  Events::DynamicEventBuilder builder;
  offsets_.reserve(count);
  while (const google::protobuf::Message* row = events.Next()) {
    if (!Storage::OSQuery::BuildRecord(*row, builder)) {
      error = "a synthetic event does not fit in a record";
      return false;
    }
    offsets_.push_back(bytes_.size());
    bytes_.insert(bytes_.end(), builder.Data(), builder.Data() + builder.Size());
  }
  bytes_.shrink_to_fit();
  return !offsets_.empty();
}

const uint8_t* EventPool::Next(uint32_t& size) {
  const uint8_t* record = bytes_.data() + offsets_[next_];
  size = Events::Record::LoadUInt16(record + Events::Record::kSizeOffset);
  next_ = (next_ + 1) % offsets_.size();
  return record;
}

}  // namespace Tarn::Bench
