// tarn dump-index: the day index as JSON, read from the index file directly.
// It only reads, and the index file is replaced whole when the store saves
// it, so it also works while a store runs (showing its last saved index).

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>

#include "Keel/Utils/TreeContainer.h"
#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/cli/TextForms.h"
#include "tarn/offline/StoreFiles.h"

namespace Tarn::Tool {
namespace {

struct DumpIndexOptions {
  std::string store;
  std::string out;  // empty or "-": standard output
};

int RunDumpIndex(const DumpIndexOptions& options) {
  Storage::Index index;
  uint32_t records = 0;
  switch (LoadIndexFile(options.store, index, records)) {
    case IndexState::kMissing:
      PrintError("there is no storage.index.db in " + options.store +
                 " (`tarn recover` rebuilds it from the day files)");
      return 1;
    case IndexState::kUnusable:
      PrintError("storage.index.db in " + options.store +
                 " cannot be read (`tarn recover` rebuilds it from the day files)");
      return 1;
    case IndexState::kLoaded: break;
  }
  // The file does not keep the versions' sizes; the running store takes
  // them from the files, and so does this dump.
  StoreListing listing;
  std::string error;
  if (ListStore(options.store, listing, error)) {
    for (const DayFileEntry& file : listing.day_files) {
      Storage::DayInfo* info = index.tree().SearchUnsafe(file.day);
      if (info != nullptr && info->HasVersion(file.version)) {
        info->setOnDiskSize(file.version, file.size);
      }
    }
  }
  Keel::Utils::TreeContainer document;
  if (!index.Dump(document)) {
    PrintError("the index could not be turned into a document");
    return 1;
  }
  std::string text = document.Dump(2) + "\n";
  // A reading command leaves the store directory as it found it.
  if (options.out.empty() || options.out == "-") {
    std::fputs(text.c_str(), stdout);
    return 0;
  }
  const std::string& path = options.out;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.good()) {
    PrintError("cannot write " + path);
    return 1;
  }
  std::printf("wrote %s (%s, %s)\n", path.c_str(), Counted(index.tree().GetCount(), "day").c_str(),
              Counted(IndexedBlocks(index), "block").c_str());
  return 0;
}

class DumpIndexCommand : public Command {
 public:
  CLI::App* Add(CLI::App& app) override {
    CLI::App* command = app.add_subcommand("dump-index", "Print the day index as JSON");
    command->footer(kOfflineNote);
    AddStoreOption(command, options_.store);
    command->add_option("-o,--out", options_.out,
                        "write to this file instead of standard output");
    return command;
  }

  int Run() override {
    options_.store = AbsoluteStore(options_.store);
    return RunDumpIndex(options_);
  }

 private:
  DumpIndexOptions options_;
};

}  // namespace

std::unique_ptr<Command> MakeDumpIndexCommand() { return std::make_unique<DumpIndexCommand>(); }

}  // namespace Tarn::Tool
