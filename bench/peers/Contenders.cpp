#include "peers/Contender.h"

namespace Tarn::Bench {

// Each in its own file.
std::unique_ptr<Contender> MakeTarnContender(const std::string& directory);
std::unique_ptr<Contender> MakeRocksContender(const std::string& directory, bool zstd);
std::unique_ptr<Contender> MakeSqliteContender(const std::string& directory);
std::unique_ptr<Contender> MakeJsonLinesContender(const std::string& directory,
                                                  const std::string& name);

std::unique_ptr<Contender> MakeContender(const std::string& name, const std::string& directory) {
  if (name == "tarn") return MakeTarnContender(directory);
  if (name == "rocksdb-zstd") return MakeRocksContender(directory, true);
  if (name == "rocksdb-lz4") return MakeRocksContender(directory, false);
  if (name == "sqlite") return MakeSqliteContender(directory);
  return MakeJsonLinesContender(directory, name);
}

}  // namespace Tarn::Bench
