// The single-event request (type 186): one stored event, named by its time,
// its position or as the last one, copied whole into the requester's
// buffer. Nothing is copied unless all of it fits.

#include <cstring>

#include "Keel/Log.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "Tarn/Events/Record.h"
#include "Tarn/Events/StorageQuery.h"
#include "manager/reader/EventStorageProvider.h"

namespace Tarn::Storage {

namespace {

using Events::Objects::StorageQuery;

enum Message : uint32_t {
  kNullRequest = 140,
  kUnknownKind = 141,       // a = kind
  kNoPosition = 142,        // a = kind, b = time in ms
  kEventUnreadable = 143,   // a = position
  kDestinationSmall = 144,  // a = event size, b = capacity
  kNoDestination = 145,     // a = capacity
};

void Log(Message message, uint64_t a = 0, uint64_t b = 0) {
  KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, message, a, b, 0);
}

}  // namespace

bool EventStorageProvider::HandleQuery(StorageQuery* query, Events::ExternalData*) {
  if (query == nullptr) {
    Log(kNullRequest);
    return false;
  }
  query->copied = 0;
  uint64_t position = InvalidIterVal;
  switch (query->kind) {
    case StorageQuery::kByTime:
      position = GetIterVal(Keel::OS::DateTime(static_cast<int64_t>(query->time_ms / 1000)));
      break;
    case StorageQuery::kByPosition:
      position = query->position;
      break;
    case StorageQuery::kLast:
      position = GetLastIterVal();
      break;
    default:
      Log(kUnknownKind, query->kind);
      return false;
  }
  if (!IsValid(position)) {
    Log(kNoPosition, query->kind, query->time_ms);
    return false;
  }
  Events::GenericEventHolder holder;
  if (!GetEvent(position, &holder)) {
    Log(kEventUnreadable, position);
    return false;
  }
  // The holder took the record only when its size word matched its length.
  const uint32_t size = Events::Record::LoadUInt16(holder.Data() + Events::Record::kSizeOffset);
  if (size > query->capacity) {
    Log(kDestinationSmall, size, query->capacity);
    return false;
  }
  if (query->destination == nullptr) {
    Log(kNoDestination, query->capacity);
    return false;
  }
  std::memcpy(query->destination, holder.Data(), size);
  query->copied = size;
  return true;
}

}  // namespace Tarn::Storage
