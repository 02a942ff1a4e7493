#include "tarn/import/ImportInputs.h"

#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

namespace Tarn::Tool {
namespace {

namespace fs = std::filesystem;

// An archive inside an archive inside ... is read this deep.
constexpr int kMaxNesting = 4;
// A member that unpacks to more is refused: a small archive may unpack to
// far more than memory holds.
constexpr uint64_t kMaxMemberBytes = uint64_t{2} << 30;

enum class Magic { kEvtx, kZip, kGzip, kText, kUnknown };


bool StartsWith(std::string_view bytes, std::string_view prefix) {
  return bytes.substr(0, prefix.size()) == prefix;
}

Magic MagicOf(std::string_view head) {
  using namespace std::string_view_literals;
  if (StartsWith(head, "ElfFile\0"sv)) return Magic::kEvtx;
  if (StartsWith(head, "PK\x03\x04"sv) || StartsWith(head, "PK\x05\x06"sv)) return Magic::kZip;
  if (StartsWith(head, "\x1f\x8b"sv)) return Magic::kGzip;
  if (StartsWith(head, "\xEF\xBB\xBF"sv)) head.remove_prefix(3);
  const size_t first = head.find_first_not_of(" \t\r\n");
  if (first != std::string_view::npos && (head[first] == '{' || head[first] == '[')) {
    return Magic::kText;
  }
  return Magic::kUnknown;
}

// What a document of no known kind is, in words.
std::string WhatItIs(std::string_view head, bool whole) {
  using namespace std::string_view_literals;
  if (head.find_first_not_of(" \t\r\n") == std::string_view::npos && whole) return "is empty";
  if (StartsWith(head, "\xFF\xFE"sv) || StartsWith(head, "\xFE\xFF"sv)) {
    return "is UTF-16 text; the import reads JSON in UTF-8";
  }
  if (StartsWith(head, "\x7f" "ELF"sv)) return "is a program, not an event log";
  std::string shown;
  char hex[4];
  for (size_t i = 0; i < std::min<size_t>(head.size(), 8); ++i) {
    std::snprintf(hex, sizeof hex, "%02x ", static_cast<unsigned char>(head[i]));
    shown += hex;
  }
  if (!shown.empty()) shown.pop_back();
  return "is not an event log: it starts with bytes " + shown +
         ", which is neither an .evtx file, JSON text, nor a .zip or .gz archive";
}

using Reader = std::unique_ptr<archive, decltype(&archive_read_free)>;

std::string ArchiveError(archive* reader) {
  const char* text = archive_error_string(reader);
  return text != nullptr ? text : "unknown error";
}

// A reader of a .zip, or of a .gz (one file, unnamed).
Reader NewReader(Magic magic) {
  Reader reader(archive_read_new(), &archive_read_free);
  if (magic == Magic::kZip) {
    archive_read_support_format_zip(reader.get());
  } else {
    archive_read_support_filter_gzip(reader.get());
    archive_read_support_format_raw(reader.get());
  }
  return reader;
}

class Documents {
 public:
  Documents(const std::string& standard_input, const DocumentSink& sink)
      : standard_input_(standard_input), sink_(sink) {}

  bool Path(const std::string& path);

 private:
  // `in_folder`: found in a folder rather than named.
  bool File(const fs::path& path, const std::string& name, bool in_folder);
  bool Bytes(std::string name, std::string bytes, int depth);
  bool Members(archive* reader, const std::string& name, Magic magic, int depth);
  bool Deliver(InputDocument document) { return sink_.each(document); }
  void Problem(const std::string& name, const std::string& what) { sink_.problem(name, what); }

  const std::string& standard_input_;
  const DocumentSink& sink_;
};

bool Documents::Path(const std::string& path) {
  if (path == "-") return Bytes("standard input", standard_input_, 0);
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (ec || !fs::exists(status)) {
    Problem(path, "does not exist");
    return true;
  }
  if (!fs::is_directory(status)) return File(path, path, false);
  // A folder: its files, in name order, so that a run is repeatable.
  std::vector<fs::path> files;
  for (fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, ec),
       end;
       !ec && it != end; it.increment(ec)) {
    if (it->is_regular_file(ec)) files.push_back(it->path());
  }
  if (ec) Problem(path, "cannot be listed whole: " + ec.message());
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    if (!File(file, file.string(), true)) return false;
  }
  return true;
}

bool Documents::File(const fs::path& path, const std::string& name, bool in_folder) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    Problem(name, std::string("cannot be read: ") + std::strerror(errno));
    return true;
  }
  std::string head(8, '\0');
  in.read(head.data(), static_cast<std::streamsize>(head.size()));
  head.resize(static_cast<size_t>(in.gcount()));
  const Magic magic = MagicOf(head);
  if (magic == Magic::kEvtx) return Deliver({name, DocumentKind::kEvtx, path.string(), ""});
  if (magic == Magic::kUnknown && in_folder) {
    sink_.passed_over(name);
    return true;
  }
  if (magic == Magic::kZip || magic == Magic::kGzip) {
    Reader reader = NewReader(magic);
    if (archive_read_open_filename(reader.get(), path.c_str(), 1 << 16) != ARCHIVE_OK) {
      Problem(name, "cannot be opened as an archive: " + ArchiveError(reader.get()));
      return true;
    }
    return Members(reader.get(), name, magic, 1);
  }
  in.clear();  // a file shorter than the head read is at its end
  in.seekg(0);
  std::string bytes(std::istreambuf_iterator<char>(in), {});
  return Bytes(name, std::move(bytes), 0);
}

bool Documents::Bytes(std::string name, std::string bytes, int depth) {
  const Magic magic = MagicOf(std::string_view(bytes).substr(0, 64));
  switch (magic) {
    case Magic::kEvtx: return Deliver({std::move(name), DocumentKind::kEvtx, "", std::move(bytes)});
    case Magic::kText: return Deliver({std::move(name), DocumentKind::kText, "", std::move(bytes)});
    case Magic::kUnknown:
      Problem(name, WhatItIs(std::string_view(bytes).substr(0, 64), true));
      return true;
    case Magic::kZip:
    case Magic::kGzip: break;
  }
  if (depth >= kMaxNesting) {
    Problem(name, "is an archive nested deeper than " + std::to_string(kMaxNesting));
    return true;
  }
  Reader reader = NewReader(magic);
  if (archive_read_open_memory(reader.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) {
    Problem(name, "cannot be opened as an archive: " + ArchiveError(reader.get()));
    return true;
  }
  return Members(reader.get(), name, magic, depth + 1);
}

// Reads an open archive's members into documents of their own; `depth`
// archives hold this one.
bool Documents::Members(archive* reader, const std::string& name, Magic magic, int depth) {
  archive_entry* entry = nullptr;
  for (;;) {
    const int read = archive_read_next_header(reader, &entry);
    if (read == ARCHIVE_EOF) return true;
    if (read != ARCHIVE_OK && read != ARCHIVE_WARN) {
      Problem(name, "is a damaged archive: " + ArchiveError(reader));
      return true;
    }
    if (archive_entry_filetype(entry) != AE_IFREG && magic == Magic::kZip) continue;
    const char* inner = archive_entry_pathname(entry);
    const std::string member =
        name + (magic == Magic::kZip ? ":" + std::string(inner != nullptr ? inner : "?") : "");
    std::string bytes;
    char buffer[1 << 16];
    la_ssize_t n = 0;
    while ((n = archive_read_data(reader, buffer, sizeof buffer)) > 0) {
      if (bytes.size() + static_cast<size_t>(n) > kMaxMemberBytes) break;
      bytes.append(buffer, static_cast<size_t>(n));
    }
    if (n > 0) {
      Problem(member, "unpacks to more than " + std::to_string(kMaxMemberBytes >> 30) + " GiB");
      continue;
    }
    if (n < 0) {
      Problem(member, "cannot be unpacked: " + ArchiveError(reader));
      if (magic != Magic::kZip) return true;
      continue;
    }
    if (!Bytes(member, std::move(bytes), depth)) return false;
  }
}

}  // namespace

bool ForEachDocument(const std::vector<std::string>& paths, const std::string& standard_input,
                     const DocumentSink& sink) {
  Documents documents(standard_input, sink);
  for (const std::string& path : paths) {
    if (!documents.Path(path)) return false;
  }
  return true;
}

TemporaryCopy::TemporaryCopy(const std::string& bytes) {
  const char* dir = std::getenv("TMPDIR");
  std::string pattern = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") +
                        "/tarn-import-XXXXXX";
  const int fd = ::mkstemp(pattern.data());
  if (fd < 0) {
    error_ = "no temporary file in " + pattern.substr(0, pattern.rfind('/')) + ": " +
             std::strerror(errno);
    return;
  }
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  ::close(fd);
  if (done != bytes.size()) {
    error_ = "cannot write a temporary copy: " + std::string(std::strerror(errno));
    ::unlink(pattern.c_str());
    return;
  }
  path_ = pattern;
}

TemporaryCopy::~TemporaryCopy() {
  if (!path_.empty()) ::unlink(path_.c_str());
}

}  // namespace Tarn::Tool
