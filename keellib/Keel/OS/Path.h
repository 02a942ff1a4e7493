#pragma once

#include <string>
#include <string_view>

#include "Keel/Export.h"

// Path text only; nothing here touches the disk. Separators are '/'.
namespace Keel::OS::Path {

// "a" + "b" -> "a/b", without doubling a separator; an empty side yields the
// other one.
KEEL_API std::string Join(std::string_view a, std::string_view b);
// The part after the last separator ("dir/x.db" -> "x.db").
KEEL_API std::string FileName(std::string_view path);
// The part before the last separator: "dir/x.db" -> "dir", "/x" -> "/",
// "x.db" -> "".
KEEL_API std::string Directory(std::string_view path);

// Where the agent keeps its data: the path a host set, else
// $TARN_PERSISTENT_PATH, else $XDG_DATA_HOME/tarn, else $HOME/.local/share/tarn
// (empty variables count as unset). Empty, with a log record, when none
// applies.
KEEL_API std::string GetPersistentPath();
// Makes every later GetPersistentPath return `path`; empty undoes it.
KEEL_API void SetPersistentPath(std::string_view path);

// Replaces every "${P}" in `path_template` with the persistent path. False
// (logged) when the template needs the persistent path and there is none.
KEEL_API bool Expand(std::string_view path_template, std::string& out);

}  // namespace Keel::OS::Path
