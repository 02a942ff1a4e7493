#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/EventReader.h"
#include "Tarn/Events/QueryRecord.h"
#include "Tarn/Events/StorageQuery.h"

namespace Tarn::Events {
namespace {

std::vector<uint8_t> Build(const QueryRecord& query) {
  DynamicEventBuilder b;
  EXPECT_TRUE(query.Write(b, 5000));
  return std::vector<uint8_t>(b.Data(), b.Data() + b.Size());
}

TEST(QueryRecord, RoundTripsWithItsFixedLayout) {
  QueryRecord q;
  q.local = true;
  q.page = 3;
  q.token = 0x0000000100020003ull;
  q.table = "edr_process_create";
  q.columns = "pid,path";
  q.constraints = R"({"date_time":[{"op":">","value":"1"}]})";
  std::vector<uint8_t> record = Build(q);

  EventReader r(record.data(), record.size());
  ASSERT_TRUE(r.Valid());
  EXPECT_EQ(r.UInt32(0), 221u);
  EXPECT_EQ(r.UInt8(24), 1u);
  EXPECT_EQ(r.UInt8(25), 0u);
  EXPECT_EQ(r.UInt16(26), 3u);
  EXPECT_EQ(r.UInt32(28), 0u);
  EXPECT_EQ(r.UInt64(32), q.token);
  EXPECT_EQ(r.UInt16(40), 46u);  // three text offsets end the fixed part; the table comes first

  QueryRecord back;
  ASSERT_TRUE(back.Read(record.data(), record.size()));
  EXPECT_TRUE(back.local);
  EXPECT_EQ(back.page, 3u);
  EXPECT_EQ(back.token, q.token);
  EXPECT_EQ(back.table, q.table);
  EXPECT_EQ(back.columns, q.columns);
  EXPECT_EQ(back.constraints, q.constraints);

  // Defaults: no token, all columns.
  QueryRecord plain;
  plain.table = "edr_file_create";
  std::vector<uint8_t> bytes = Build(plain);
  EXPECT_EQ(EventReader(bytes.data(), bytes.size()).UInt64(32), UINT64_MAX);  // all ones
  ASSERT_TRUE(back.Read(bytes.data(), bytes.size()));
  EXPECT_FALSE(back.local);
  EXPECT_EQ(back.token, UINT64_MAX);
  EXPECT_EQ(back.columns, "");
}

TEST(QueryRecord, ReadRefusesWhatIsNotAQuery) {
  QueryRecord q;
  q.table = "edr_dns";
  std::vector<uint8_t> good = Build(q);
  QueryRecord out;
  out.page = 77;

  EXPECT_FALSE(out.Read(good.data(), good.size() - 1));  // size field disagrees
  std::vector<uint8_t> other = good;
  other[0] = 220;
  EXPECT_FALSE(out.Read(other.data(), other.size()));

  // A type-221 record without the whole fixed part.
  DynamicEventBuilder b;
  ASSERT_TRUE(b.Begin(221, 1, 0) && b.AddUInt64(0) && b.Finish());
  EXPECT_FALSE(out.Read(b.Data(), b.Size()));
  EXPECT_EQ(out.page, 77u);  // untouched

  // Text offsets out of range make empty texts, not a refusal.
  std::vector<uint8_t> hostile = good;
  hostile[40] = 0xFF;
  hostile[41] = 0xFF;
  ASSERT_TRUE(out.Read(hostile.data(), hostile.size()));
  EXPECT_EQ(out.table, "");
}

TEST(StorageQuery, TravelsAsANeverStoredType186Event) {
  Objects::StorageQuery query;
  uint8_t destination[64];
  query.kind = Objects::StorageQuery::kByPosition;
  query.position = 0x10000000005ull;
  query.destination = destination;
  query.capacity = sizeof destination;

  Objects::Base* event = &query;
  EXPECT_EQ(event->TypeId(), 186u);
  EXPECT_TRUE(event->DoNotStore());
  EXPECT_TRUE(event->Header().Valid());
  // A receiver that routed by type gets the request back.
  auto* back = static_cast<Objects::StorageQuery*>(event);
  EXPECT_EQ(back->position, 0x10000000005ull);
  EXPECT_EQ(back->copied, 0u);
  // The header lives inside the object, so it stays valid with it.
  EXPECT_GE(event->Data(), reinterpret_cast<const uint8_t*>(&query));
  EXPECT_LE(event->Data() + event->Size(), reinterpret_cast<const uint8_t*>(&query + 1));
}

}  // namespace
}  // namespace Tarn::Events
