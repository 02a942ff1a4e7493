#pragma once

// What `tarn ingest --from` was given, as the documents inside it: files,
// folders (read recursively, in name order), standard input ("-"), and the
// members of .zip and .gz archives, each known by its first bytes rather
// than by its name.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Tarn::Tool {

enum class DocumentKind : uint8_t {
  kEvtx,  // a native event log file
  kText,  // text: JSON of one of the forms the import reads
};

struct InputDocument {
  std::string name;  // for messages: "logs.zip:Security.evtx"
  DocumentKind kind = DocumentKind::kText;
  std::string path;   // a file holding it, when it lies on disk as it is
  std::string bytes;  // else its bytes, read from an archive or a stream
};

struct DocumentSink {
  // A document; false stops the walk.
  std::function<bool(InputDocument&)> each;
  // A path or member that is no document the import reads, and what it is.
  std::function<void(const std::string& name, const std::string& what)> problem;
  // A file found in a folder that is no event log (a README beside the
  // logs): passed over without a problem.
  std::function<void(const std::string& name)> passed_over;
};

// Hands each document to the sink, one at a time ("-" is `standard_input`);
// the documents after a problem still come. False when `each` said stop.
bool ForEachDocument(const std::vector<std::string>& paths, const std::string& standard_input,
                     const DocumentSink& sink);

// A file with `bytes` in the temporary folder, removed with the object.
class TemporaryCopy {
 public:
  explicit TemporaryCopy(const std::string& bytes);
  ~TemporaryCopy();
  TemporaryCopy(const TemporaryCopy&) = delete;
  TemporaryCopy& operator=(const TemporaryCopy&) = delete;

  // Empty when it could not be written (`error` says why).
  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }

 private:
  std::string path_;
  std::string error_;
};

}  // namespace Tarn::Tool
