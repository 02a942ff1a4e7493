#pragma once

// Reading a query's range around a block the store cannot read.
//
// The store answers a query whose range holds a block it cannot read with
// status 5 and no rows. The rest of the range is still there, and an
// analyst wants it, told which block was left out. The block is found from
// the store's log (a scan that met it) or, when finding where the range
// starts or ends met it, from the index file and a read of the range's
// first and last blocks. Then the query is asked again in pieces that do
// not touch it:
// - before it: the same query ending one second before the last second of
//   the block ahead of it; the events of that second that lie ahead of the
//   block are read here, through the store's reader, and matched and turned
//   into rows by the store's own code, as its scan would;
// - after it: from the first event past the block, by a token the caller
//   follows as it follows any partial answer; when the block holds the
//   range's first second, by the same query starting a second after the
//   block's last, plus that second's events past the block, read here.
// While the piece before the block has more pages, its partial answer is
// given back: the caller asks on with its token and the whole query, meets
// the block again and comes back here, until the block lies behind it. A
// piece may meet another unreadable block and is read around in turn.

#include <string>

#include "tarn/host/QueryClient.h"

namespace Tarn::Comm::Interface {
class IEventStorage;
}

namespace Tarn::Tool {

// Answers `request`, whose store answer was status 5, around the block the
// store could not read; leaves `answer` as it is when no block is to blame.
// False with `error` when a piece cannot be asked.
bool ReadAround(QueryClient& client, Comm::Interface::IEventStorage& storage,
                const std::string& store, const QueryRequest& request, QueryAnswer& answer,
                std::string& error);

}  // namespace Tarn::Tool
