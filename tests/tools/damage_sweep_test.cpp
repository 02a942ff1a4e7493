// Damage at rest, one stretch of bytes at a time. A store of three days
// (many blocks, and a block waiting in the shutdown file) is built once.
// Then, for every block and every kind of damage (a header word zeroed or
// flipped, a payload byte flipped, bytes cut out of a block, the file cut at
// the block's edge or inside it, the block's index record damaged), for
// each day file's header and for damage to the shutdown file, a copy of the
// store is damaged and:
// - `tarn verify` names the damaged file;
// - the store starts again;
// - every event reads back through walks and through ProcessBlocks, except
//   those of the damaged block (and, for a cut file, of the blocks the cut
//   took), which may be lost, and only those: none where nothing the events
//   lie in was touched;
// - where damaged bytes stay in a day file and cost events, a read fails on
//   their block: the store never forgets a block it cannot read.
//
// TARN_DAMAGE_LONG=1 flips every bit of each header word and index field,
// and the payload at more places (by hand: about ten times as many cases).

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Tarn/Events/Base.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "manager/format/DayFileReader.h"
#include "manager/format/FinalFile.h"
#include "manager/format/StorageHelper.h"
#include "manager/index/Index.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/writer/StorageManager.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"
#include "tool_runner.h"

namespace Tarn::Storage {
namespace {

using tarn::test::EpochOf;
using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;
using Tags = std::set<uint32_t>;
using Files = std::map<std::string, std::string>;

constexpr uint16_t kFirstDay = 9000;
constexpr uint32_t kBlocksPerDay[] = {7, 5, 4};

Settings SweepSettings() {
  Settings s = Settings::default_();
  s.block_buffer_size = 102'400;
  s.max_days = 10;
  return s;
}

struct BlockRef {
  std::string file;
  uint16_t day = 0;
  uint64_t offset = 0;
  BlockHeader header;
  uint32_t record = 0;  // its record's number in the index file
  Tags tags;
};

// The undamaged store: its files, its blocks in index order, and its events.
struct Pristine {
  Files files;
  std::vector<BlockRef> blocks;
  Tags all;
  Tags final_tags;
  uint16_t last_day = 0;
};

Tags TagsOf(const uint8_t* raw, uint32_t raw_size, uint32_t table_offset) {
  Tags tags;
  RawBlockView view(raw, raw_size, table_offset);
  for (uint32_t i = 0; i < view.EventCount(); ++i) {
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    if (view.Event(i, data, size)) tags.insert(tarn::test::TagOf({data, data + size}));
  }
  return tags;
}

Files Snapshot(const std::string& directory) {
  Files files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::string name = entry.path().filename().string();
    if (name != StorageManager::kLockFileName) files[name] = ReadWholeFile(entry.path().string());
  }
  return files;
}

void Restore(const Files& files, const std::string& directory) {
  for (const auto& [name, bytes] : files) WriteWholeFile(directory + "/" + name, bytes);
}

// Three days of events in many blocks, and a stop with a block left open.
void BuildPristine(Pristine& out) {
  tarn::test::TempDir dir;
  tarn::test::FakeClock clock(EpochOf(kFirstDay, 100));
  std::mt19937 random(11);
  uint32_t tag = 0;
  {
    StorageManager manager;
    ASSERT_TRUE(manager.Create(SweepSettings(), &clock, 0, dir.path().c_str()));
    for (uint16_t d = 0; d < std::size(kBlocksPerDay); ++d) {
      uint32_t second = 100;
      uint64_t bytes = 0;
      while (bytes < uint64_t{kBlocksPerDay[d]} * 95'000) {
        const uint32_t size = 600 + random() % 1800;
        second += random() % 3;
        clock.SetDay(kFirstDay + d, second);
        std::vector<uint8_t> record = tarn::test::MakeEvent(tag, size);
        Events::Objects::Base event(record.data(), record.size());
        ASSERT_TRUE(manager.AddEvent(event));
        out.all.insert(tag++);
        bytes += size + 8;
      }
      if (d + 1u < std::size(kBlocksPerDay)) {
        ASSERT_TRUE(manager.Flush());
      }
    }
    ASSERT_TRUE(manager.Stop());
  }
  out.files = Snapshot(dir.path());
  out.last_day = kFirstDay + std::size(kBlocksPerDay) - 1;

  Index index;
  Settings settings = SweepSettings();
  Keel::Utils::String path(dir.File(Index::FILENAME));
  ASSERT_TRUE(index.try_load_existing(settings, path));
  uint32_t record = 0;
  index.tree().Iterate(
      [&](const uint16_t& day, DayInfo& info, void*, bool&) {
        DayFileReader reader;
        DayFileCheck check;
        const std::string name = Utils::DayFileName(day, 2);
        if (!reader.Open(dir.File(name), check)) return false;
        for (uint32_t b = 0; b < info.GetBlockCount(); ++b) {
          BlockRef ref{name, day, info.GetBlock(b)->block_offset, {}, record++, {}};
          Keel::Collections::Buffer raw;
          if (!reader.ReadHeader(ref.offset, ref.header) ||
              !reader.Decode(ref.offset, ref.header, raw)) {
            return false;
          }
          ref.tags = TagsOf(raw.Data(), ref.header.raw_size, ref.header.table_offset);
          out.blocks.push_back(std::move(ref));
        }
        return true;
      },
      nullptr);
  Keel::Collections::Buffer raw;
  uint32_t table_offset = 0, count = 0;
  uint16_t day = 0;
  ASSERT_EQ(ReadFinalFile(dir.File(Utils::kFinalFileName), raw, table_offset, count, day),
            FinalFileState::Ok);
  out.final_tags = TagsOf(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset);
  Tags stored;
  for (const BlockRef& b : out.blocks) stored.insert(b.tags.begin(), b.tags.end());
  stored.insert(out.final_tags.begin(), out.final_tags.end());
  ASSERT_EQ(stored, out.all) << "the pristine store holds every event once";
}

// What a damage may cost: exactly the block's events (the damage cannot go
// unnoticed), some of them (a flipped bit the block may survive), or none.
enum class Loss { kExactly, kAtMost };

struct Damage {
  std::string what;
  std::string file;  // the file damaged, which `tarn verify` must name
  Loss loss = Loss::kExactly;
  Tags lost;         // what the damage may cost
  bool visible = true;  // whether verify can see it
  // Whether the damaged bytes stay in a day file: a reader must then meet
  // a block it cannot read wherever events were lost, not miss them quietly.
  bool stays = false;
  std::function<void(Files&)> apply;
  // What verify's report must hold: the file's name, or for a damaged index
  // record any fault (it names the block the record misplaces).
  std::string Named() const { return file == Index::FILENAME ? "FAULT" : file; }
};

void PutWord(std::string& bytes, uint64_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}
uint32_t GetWord(const std::string& bytes, uint64_t at) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
  return value;
}

bool LongMode() {
  const char* text = std::getenv("TARN_DAMAGE_LONG");
  return text != nullptr && std::atoi(text) > 0;
}

std::vector<Damage> BlockDamages(const Pristine& p, size_t which) {
  const BlockRef& b = p.blocks[which];
  const uint64_t payload = b.offset + kBlockHeaderSize;
  Tags from_here;  // this block and every later one of its file
  for (size_t i = which; i < p.blocks.size() && p.blocks[i].file == b.file; ++i) {
    from_here.insert(p.blocks[i].tags.begin(), p.blocks[i].tags.end());
  }
  std::vector<Damage> out;
  auto add = [&](std::string what, Loss loss, const Tags& lost, std::function<void(std::string&)> f,
                 std::string file = "") {
    out.push_back({what, file.empty() ? b.file : file, loss, lost, true, file.empty(),
                   [name = file.empty() ? b.file : file, f](Files& files) { f(files[name]); }});
  };
  const char* const kWords[] = {"stored_size", "raw_size", "table_offset"};
  const std::vector<uint32_t> bits =
      LongMode() ? std::vector<uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                         17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31}
                 : std::vector<uint32_t>{0, 9, 30};
  for (uint32_t w = 0; w < 3; ++w) {
    const uint64_t at = b.offset + 4 * w;
    add(std::string(kWords[w]) + " zeroed", Loss::kExactly, b.tags,
        [at](std::string& f) { PutWord(f, at, 0); });
    for (uint32_t bit : bits) {
      add(std::string(kWords[w]) + " bit " + std::to_string(bit) + " flipped", Loss::kAtMost,
          b.tags, [at, bit](std::string& f) { PutWord(f, at, GetWord(f, at) ^ (1u << bit)); });
    }
  }
  std::vector<uint64_t> places = {0, b.header.stored_size / 2, b.header.stored_size - 1};
  if (LongMode()) {
    for (uint64_t k = 1; k < 16; ++k) places.push_back(b.header.stored_size * k / 16);
  }
  for (uint64_t place : places) {
    add("payload byte " + std::to_string(place) + " flipped", Loss::kExactly, b.tags,
        [at = payload + place](std::string& f) { f[at] = static_cast<char>(~f[at]); });
  }
  add("100 payload bytes cut out", Loss::kExactly, b.tags,
      [at = payload + b.header.stored_size / 2](std::string& f) { f.erase(at, 100); });
  // A cut takes the blocks' bytes away: the store can only log it.
  add("file cut at the block's start", Loss::kExactly, from_here,
      [at = b.offset](std::string& f) { f.resize(at); });
  out.back().stays = false;
  add("file cut inside the block", Loss::kExactly, from_here,
      [at = payload + b.header.stored_size / 3](std::string& f) { f.resize(at); });
  out.back().stays = false;

  // The block's index record: nothing in the day files is touched, so
  // nothing may be lost.
  const uint64_t record = Index::kHeaderSize + uint64_t{b.record} * Index::kRecordSize;
  struct Field {
    const char* name;
    uint32_t byte, bit;
  };
  std::vector<Field> fields = {{"offset", 0, 4},  {"offset", 1, 0},  {"day", 4, 0},
                               {"day", 5, 7},     {"version", 6, 0}, {"version", 6, 1},
                               {"count", 7, 1},   {"count", 9, 0},   {"start second", 10, 3},
                               {"end second", 13, 2}};
  if (LongMode()) {
    fields.clear();
    for (uint32_t byte = 0; byte < Index::kRecordSize; ++byte) {
      for (uint32_t bit = 0; bit < 8; ++bit) fields.push_back({"record", byte, bit});
    }
  }
  for (const Field& field : fields) {
    add(std::string("index record ") + field.name + " byte " + std::to_string(field.byte) +
            " bit " + std::to_string(field.bit) + " flipped",
        Loss::kExactly, {},
        [at = record + field.byte, bit = field.bit](std::string& f) {
          f[at] = static_cast<char>(f[at] ^ (1 << bit));
        },
        Index::FILENAME);
    // The packed field's top five bits are unused: nothing can tell.
    out.back().visible = !(field.byte == 14 && field.bit >= 3);
  }
  return out;
}

// A day file's own header: its blocks are framed and checked on their own,
// so the store writes a fresh header at its start and loses nothing.
std::vector<Damage> HeaderDamages(const Pristine& p) {
  std::set<std::string> day_files;
  for (const BlockRef& b : p.blocks) day_files.insert(b.file);
  std::vector<Damage> out;
  for (const std::string& file : day_files) {
    for (const auto& [what, byte] : {std::pair{"magic", 0}, std::pair{"reserved word", 5},
                                     std::pair{"version", 8}, std::pair{"trailer", 19}}) {
      const int at = byte;  // a lambda cannot capture a binding
      out.push_back({std::string("day file header ") + what + " flipped", file, Loss::kExactly,
                     {}, true, true,
                     [file, at](Files& files) { files[file][at] ^= 0x10; }});
    }
  }
  return out;
}

std::vector<Damage> FinalDamages(const Pristine& p) {
  std::vector<Damage> out;
  auto add = [&](std::string what, bool visible, std::function<void(std::string&)> f) {
    out.push_back({what, Utils::kFinalFileName, Loss::kAtMost, p.final_tags, visible, false,
                   [f](Files& files) { f(files[Utils::kFinalFileName]); }});
  };
  add("shutdown magic zeroed", true, [](std::string& f) { PutWord(f, 0, 0); });
  add("shutdown version flipped", true, [](std::string& f) { f[4] ^= 1; });
  add("shutdown table offset flipped", true, [](std::string& f) { f[32] ^= 4; });
  add("shutdown event count flipped", true, [](std::string& f) { f[36] ^= 1; });
  add("shutdown raw size flipped", true, [](std::string& f) { f[40] ^= 1; });
  // Filed on another day: nothing is lost, and nothing can tell.
  add("shutdown day flipped", false, [](std::string& f) { f[44] ^= 1; });
  add("shutdown cut short", true, [](std::string& f) { f.resize(f.size() - 9); });
  add("shutdown first record's length flipped", true, [](std::string& f) { f[46 + 10] ^= 1; });
  // Without a checksum a flipped byte inside a record's text cannot be
  // seen; the event is stored as it now reads.
  add("shutdown record text flipped", false, [](std::string& f) { f[46 + 40] ^= 1; });
  const uint32_t entry_at = 46 + GetWord(std::string(p.files.at(Utils::kFinalFileName)), 32);
  add("shutdown entry offset flipped", true, [entry_at](std::string& f) { f[entry_at + 8] ^= 2; });
  add("shutdown entry second out of the day", true, [entry_at](std::string& f) {
    f[entry_at + 4] = f[entry_at + 5] = 0;  // inverted: second 0x1FFFF
    f[entry_at + 6] = static_cast<char>(0xFE);
  });
  return out;
}

// Reads every event the restarted store hands out, by walking and by
// ProcessBlocks; a divergence is added to `problems`. `told` says whether
// a read failed on a block.
Tags ReadBack(StorageManager& manager, std::vector<std::string>& problems, bool& told) {
  told = false;
  EventStorageProvider reader(manager, manager.telemetry());
  if (!reader.Create()) {
    problems.push_back("the reader does not start");
    return {};
  }
  Tags walked;
  Events::GenericEventHolder holder;
  uint64_t first = reader.GetFirstIterVal();
  uint64_t last = first;
  for (uint64_t p = first; p != RawIterator::Invalid; reader.Increment(p)) {
    last = p;
    if (!reader.GetEvent(p, &holder)) {  // a block that no longer decodes
      told = true;
      continue;
    }
    const uint32_t tag = tarn::test::TagOf({holder.Data(), holder.Data() + holder.Size()});
    if (!walked.insert(tag).second) problems.push_back("event " + std::to_string(tag) + " twice");
  }
  if (last != reader.GetLastIterVal()) problems.push_back("the walk stops before the end");
  // ProcessBlocks ends at a block it cannot read, as a reader of blocks
  // would see it; such a reader goes on after that block.
  Tags handed;
  Telemetry::StorageTelemetry telemetry;
  auto after_block = [&reader](uint64_t p) {
    const uint64_t key = RawIterator(p).AsKey();
    while (p != RawIterator::Invalid && RawIterator(p).AsKey() == key) reader.Increment(p);
    return p;
  };
  uint32_t unreadable = 0;
  for (uint64_t from = first; from != RawIterator::Invalid;) {
    uint64_t sent = RawIterator::Invalid;
    const bool done = reader.ProcessBlocks(
        from, last, [&](const EventStorageProvider::DecodeToken& token,
                        const Keel::Collections::Buffer& block) {
          sent = token.block_key;
          Keel::Collections::Buffer copy, decoded;
          if (!copy.Assign(block) ||
              !EventStorageProvider::DecodeBlock(copy, token.decoded_size, decoded, telemetry)) {
            return;
          }
          Tags tags = TagsOf(decoded.Data(), static_cast<uint32_t>(decoded.Size()),
                             token.event_table_offset);
          handed.insert(tags.begin(), tags.end());
        });
    if (done) break;
    told = true;
    from = after_block(sent == RawIterator::Invalid ? from : after_block(sent));
    if (++unreadable > 2) {
      problems.push_back("ProcessBlocks fails at more than the damaged block");
      break;
    }
  }
  if (handed != walked) problems.push_back("ProcessBlocks hands other events than the walk");
  return walked;
}

std::string Describe(const Tags& tags) {
  if (tags.empty()) return "none";
  return std::to_string(tags.size()) + " from event " + std::to_string(*tags.begin());
}

struct Figures {
  uint32_t cases = 0, blocks = 0, restarts = 0, verified = 0;
  uint64_t lost_beyond = 0;
  std::set<std::string> kinds;
};

// One damage on a fresh copy of the store; every divergence is returned.
std::vector<std::string> RunCase(const Pristine& p, const Damage& damage, Figures& figures) {
  std::vector<std::string> problems;
  tarn::test::TempDir dir;
  Files files = p.files;
  damage.apply(files);
  Restore(files, dir.path());
  ++figures.cases;

  tarn::test::TempDir scratch;
  tarn::test::ToolRun verify = tarn::test::Tool::Run({"verify", "--store", dir.path()},
                                                     scratch.path());
  if (damage.visible) {
    ++figures.verified;
    if (verify.status != 1 || verify.out.find(damage.Named()) == std::string::npos) {
      problems.push_back("tarn verify does not name " + damage.Named() + " (exit " +
                         std::to_string(verify.status) + ")");
    }
  }

  tarn::test::FakeClock clock(EpochOf(p.last_day, 86'000));
  StorageManager manager;
  if (!manager.Create(SweepSettings(), &clock, 0, dir.path().c_str())) {
    problems.push_back("the store does not start");
    return problems;
  }
  ++figures.restarts;
  bool told = false;
  const Tags read = ReadBack(manager, problems, told);
  Tags lost, stray;
  for (uint32_t tag : p.all) {
    if (read.count(tag) == 0) lost.insert(tag);
  }
  for (uint32_t tag : read) {
    if (p.all.count(tag) == 0) stray.insert(tag);
  }
  Tags beyond;
  for (uint32_t tag : lost) {
    if (damage.lost.count(tag) == 0) beyond.insert(tag);
  }
  figures.lost_beyond += beyond.size();
  if (!stray.empty()) problems.push_back("events nobody stored read back: " + Describe(stray));
  if (!beyond.empty()) problems.push_back("lost beyond the damage: " + Describe(beyond));
  if (damage.stays && !lost.empty() && !told) {
    problems.push_back("lost " + Describe(lost) + " without a word: no read fails");
  }
  if (damage.loss == Loss::kExactly && lost != damage.lost) {
    problems.push_back("lost " + Describe(lost) + ", the damage took " + Describe(damage.lost));
  }
  // And the store goes on taking events.
  std::vector<uint8_t> record = tarn::test::MakeEvent(999'999, 500);
  Events::Objects::Base event(record.data(), record.size());
  if (!manager.AddEvent(event) || !manager.Flush()) problems.push_back("the store takes no event");
  return problems;
}

TEST(DamageSweep, EveryIntactBlockSurvivesOneDamagedStretch) {
  Pristine pristine;
  BuildPristine(pristine);
  if (HasFatalFailure()) return;
  {
    tarn::test::TempDir dir, scratch;
    Restore(pristine.files, dir.path());
    tarn::test::ToolRun verify = tarn::test::Tool::Run({"verify", "--store", dir.path()},
                                                       scratch.path());
    ASSERT_EQ(verify.status, 0) << verify.out;
  }
  Figures figures;
  std::vector<Damage> damages = FinalDamages(pristine);
  for (Damage& damage : HeaderDamages(pristine)) damages.push_back(std::move(damage));
  for (size_t b = 0; b < pristine.blocks.size(); ++b) {
    std::vector<Damage> more = BlockDamages(pristine, b);
    damages.insert(damages.end(), more.begin(), more.end());
    ++figures.blocks;
  }
  uint32_t failed = 0;
  for (const Damage& damage : damages) {
    figures.kinds.insert(damage.what.substr(0, damage.what.find(" bit ")));
    for (const std::string& problem : RunCase(pristine, damage, figures)) {
      if (++failed <= 40) ADD_FAILURE() << damage.what << " in " << damage.file << ": " << problem;
    }
  }
  std::printf("damage sweep: %u blocks damaged, %zu kinds of damage, %u cases, %u restarts, "
              "%u verify runs, events lost beyond the damaged blocks: %llu\n",
              figures.blocks, figures.kinds.size(), figures.cases, figures.restarts,
              figures.verified, static_cast<unsigned long long>(figures.lost_beyond));
  EXPECT_EQ(failed, 0u);
  EXPECT_GE(figures.blocks, 12u);  // several per day, the first and last of each file among them
}

}  // namespace
}  // namespace Tarn::Storage
