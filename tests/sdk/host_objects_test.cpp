#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Keel/Utils/String.h"
#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/ExternalData.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "Tarn/Module/MapConfigReader.h"
#include "hx/MessageBus/Msg.h"
#include "support/log_capture.h"

namespace {

using Tarn::Module::MapConfigReader;

TEST(MapConfigReader, MissingOrMistypedKeyLeavesTheDefault) {
  MapConfigReader config;
  config.SetUInt32(1, 60);
  config.SetUInt64(2, 209715200ull);
  config.SetBool(3, true);
  config.SetString(4, "/var/lib/tarn");

  uint32_t u32 = 7;
  uint64_t u64 = 8;
  bool flag = false;
  Keel::Utils::String text("default");
  EXPECT_FALSE(config.GetUInt32(99, u32) || config.GetUInt64(99, u64) ||
               config.GetBool(99, flag, 0, 0) || config.GetString(99, text));
  EXPECT_FALSE(config.GetUInt32(2, u32));  // stored as 64-bit
  EXPECT_FALSE(config.GetUInt64(1, u64));  // stored as 32-bit
  EXPECT_FALSE(config.GetBool(1, flag, 0, 0));
  EXPECT_TRUE(u32 == 7 && u64 == 8 && !flag && text == "default");

  EXPECT_TRUE(config.GetUInt32(1, u32) && config.GetUInt64(2, u64) &&
              config.GetBool(3, flag, 0, 0) && config.GetString(4, text));
  EXPECT_TRUE(u32 == 60 && u64 == 209715200ull && flag && text == "/var/lib/tarn");

  config.SetUInt32(1, 61);  // replaces
  config.Remove(3);
  EXPECT_TRUE(config.GetUInt32(1, u32));
  EXPECT_EQ(u32, 61u);
  EXPECT_FALSE(config.Contains(3));
}

TEST(MapConfigReader, StringLongerThanTheCapacityIsNotRead) {
  MapConfigReader config;
  config.SetString(5, std::string(513, 'd'));
  Keel::Utils::String dir;
  ASSERT_TRUE(dir.Create(512));
  ASSERT_TRUE(dir.Assign("keep"));
  EXPECT_FALSE(config.GetString(5, dir));
  EXPECT_EQ(dir, "keep");
  config.SetString(5, std::string(512, 'd'));
  EXPECT_TRUE(config.GetString(5, dir));
  EXPECT_EQ(dir.Length(), 512u);
}

TEST(Msg, KeepsNamedByteFields) {
  hx::MessageBus::Msg msg;
  const char events[] = {1, 0, 0, 0, 0, 'x', 0};
  EXPECT_FALSE(msg.HasField("events"));
  EXPECT_FALSE(msg.GetField("events").has_value());

  ASSERT_TRUE(msg.SetField("events", events, sizeof events));
  ASSERT_TRUE(msg.SetField("token", nullptr, 0));
  auto field = msg.GetField("events");
  ASSERT_TRUE(field.has_value());
  EXPECT_EQ(*field, std::string_view(events, sizeof events));  // NULs kept
  EXPECT_TRUE(msg.HasField("token"));                          // present though empty
  EXPECT_EQ(msg.GetField("token")->size(), 0u);

  ASSERT_TRUE(msg.SetField("events", "ab", 2));
  EXPECT_EQ(*msg.GetField("events"), "ab");
  EXPECT_EQ(msg.FieldCount(), 2u);

  tarn::test::LogCapture log;
  EXPECT_FALSE(msg.SetField("events", nullptr, 3));
  EXPECT_EQ(*msg.GetField("events"), "ab");
  EXPECT_EQ(log.Count(Keel::Log::Error), 1u);

  Tarn::Events::ExternalData none;
  Tarn::Events::ExternalData data(&msg);
  EXPECT_EQ(none.Message(), nullptr);
  EXPECT_EQ(data.Message(), &msg);
}

TEST(GenericEventHolder, CopiesWholeRecordsOnly) {
  Tarn::Events::DynamicEventBuilder b;
  ASSERT_TRUE(b.Begin(42, 1, 99) && b.AddText("held") && b.Finish());
  std::vector<uint8_t> source(b.Data(), b.Data() + b.Size());

  Tarn::Events::GenericEventHolder holder;
  EXPECT_TRUE(holder.Empty());
  ASSERT_TRUE(holder.Store(source.data(), source.size()));
  std::memset(source.data() + 24, 0xAA, source.size() - 24);  // the holder has its own copy
  ASSERT_EQ(holder.Size(), b.Size());
  EXPECT_EQ(std::memcmp(holder.Data(), b.Data(), b.Size()), 0);
  EXPECT_EQ(holder.Event().TypeId(), 42u);
  EXPECT_EQ(holder.Event().Header().TimeStampMs(), 99u);

  tarn::test::LogCapture log;
  EXPECT_FALSE(holder.Store(b.Data(), b.Size() + 1));
  EXPECT_TRUE(holder.Empty());  // a refused record does not leave the old one
  EXPECT_EQ(holder.Data(), nullptr);
  EXPECT_FALSE(holder.Store(nullptr, 24));
  EXPECT_EQ(log.Count(Keel::Log::Error), 2u);
  ASSERT_TRUE(holder.Store(b.Data(), b.Size()));
  EXPECT_EQ(holder.Size(), b.Size());
}

}  // namespace
