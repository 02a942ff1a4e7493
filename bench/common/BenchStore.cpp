#include "common/BenchStore.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "Tarn/Events/Base.h"
#include "manager/writer/Settings.h"

namespace Tarn::Bench {

BenchStore::~BenchStore() {
  reader_.reset();
  manager_.Stop();
  std::error_code ignored;
  if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

void BenchStore::FreshReader() {
  reader_ = std::make_unique<Storage::EventStorageProvider>(manager_, manager_.telemetry());
  reader_->Create();
}

bool BenchStore::Fill(const StoreShape& shape, const RecordSource& next) {
  const uint64_t per_day = shape.bytes / shape.record_bytes / shape.days + 1;
  for (uint16_t d = 0; d < shape.days; ++d) {
    for (uint64_t i = 0; i < per_day; ++i) {
      const auto second = static_cast<uint32_t>(i * 86'400 / per_day);
      clock_.now = Storage::ToEpochSeconds(kFirstDay + d, second);
      const std::vector<uint8_t>& record = next(clock_.now * 1000 + i % 1000);
      Events::Objects::Base event(record.data(), record.size());
      if (!manager_.AddEvent(event)) return false;
    }
  }
  return manager_.Flush();
}

bool BenchStore::Build(const StoreShape& shape, const RecordSource& next) {
  std::string pattern =
      (std::filesystem::temp_directory_path() / (std::string("tarn-") + shape.name + "-XXXXXX"))
          .string();
  if (mkdtemp(pattern.data()) == nullptr) return false;
  directory_ = pattern;
  Storage::Settings settings = Storage::Settings::default_();
  settings.max_storage_size = 2 * shape.bytes + (50u << 20);
  settings.block_buffer_size = shape.block_size;
  if (!manager_.Create(settings, &clock_, 0, directory_.c_str()) || !Fill(shape, next)) {
    return false;
  }
  FreshReader();
  ok = Survey();
  std::fprintf(stderr, "store: %llu events, %u blocks, %.1f MiB raw\n",
               static_cast<unsigned long long>(events), blocks, raw_bytes / 1048576.0);
  return ok;
}

bool BenchStore::Survey(const BlockVisitor& visit) {
  events = 0;
  raw_bytes = 0;
  blocks = 0;
  reader_->ProcessBlocks(reader_->GetFirstIterVal(), reader_->GetLastIterVal(),
                         [&](const Storage::EventStorageProvider::DecodeToken& token,
                             const Keel::Collections::Buffer& stored) {
                           raw_bytes += token.decoded_size;
                           events += token.event_count;
                           ++blocks;
                           if (visit) visit(token, stored);
                         });
  return events != 0;
}

}  // namespace Tarn::Bench
