#include "osquery/Converter.h"

#include "Keel/Log.h"
#include "osquery/Generated.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNoConverter = 40,  // a = type id
};

}  // namespace

google::protobuf::Message* ConvertEvent(google::protobuf::Arena* arena,
                                        const Events::Objects::Base& event,
                                        const ColumnSelection& columns) {
  int index = TableIndex(event.TypeId());
  if (index < 0) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kNoConverter, event.TypeId(), 0, 0);
    return nullptr;
  }
  return kConverters[index](arena, Events::EventReader(event), columns);
}

}  // namespace Tarn::Storage::OSQuery
