#include "tarn/sql/RowFeed.h"

#include "tarn/sql/ScanCache.h"
#include "tarn/sql/SlicedScans.h"

namespace Tarn::Tool {
namespace {

// The rows of answers already had, in order. It owns them, so a row it gave
// stays valid until it is asked for the next one after the last.
class AnswerRows {
 public:
  void Reset(std::vector<QueryAnswer> answers) {
    answers_ = std::move(answers);
    answer_ = 0;
    row_ = 0;
  }
  bool Next(FedRow& row) {
    for (; answer_ < answers_.size(); ++answer_, row_ = 0) {
      const QueryAnswer& answer = answers_[answer_];
      if (row_ < answer.rows.size()) {
        row = {answer.rows[row_], row_ < answer.positions.size() ? answer.positions[row_] : 0};
        ++row_;
        return true;
      }
    }
    return false;
  }
  // The last page had, when there is one.
  const QueryAnswer* Last() const { return answers_.empty() ? nullptr : &answers_.back(); }

 private:
  std::vector<QueryAnswer> answers_;
  size_t answer_ = 0;
  size_t row_ = 0;
};

class Streamed : public RowFeed {
 public:
  Streamed(QueryClient& client, QueryRequest request)
      : client_(client), request_(std::move(request)) {
    request_.with_positions = true;
  }

  bool Next(FedRow& row, std::string& error) override {
    for (;;) {
      if (rows_.Next(row)) return true;
      const QueryAnswer* last = rows_.Last();
      if (asked_ && (last == nullptr || last->status != QueryAnswer::kPartial)) return false;
      if (asked_) {
        request_.token = last->next_token;
        request_.page = last->next_page;
      }
      asked_ = true;
      std::vector<QueryAnswer> page(1);
      if (!client_.AskAround(request_, page.back(), error)) return false;
      if (!page.back().HasRows()) {
        error = request_.table + ": " + client_.Explain(page.back());
        return false;
      }
      rows_.Reset(std::move(page));
    }
  }

 private:
  QueryClient& client_;
  QueryRequest request_;
  bool asked_ = false;
  AnswerRows rows_;  // the page being read
};

class Sliced : public RowFeed {
 public:
  Sliced(QueryClient& client, std::shared_ptr<SlicedScans> sliced, size_t scan)
      : client_(client), sliced_(std::move(sliced)), scan_(scan) {}

  bool Next(FedRow& row, std::string& error) override {
    for (;;) {
      if (streamed_ != nullptr) {
        if (streamed_->Next(row, error)) return true;
        if (!error.empty()) return false;
        streamed_.reset();
      }
      if (rows_.Next(row)) return true;
      rows_.Reset({});  // the slice's rows are read
      if (part_ != nullptr && !part_->rest.table.empty()) {
        // The pages a worker left when the rows held reached the budget.
        streamed_ = StreamedRows(client_, part_->rest);
        part_.reset();
        continue;
      }
      part_.reset();
      if (next_slice_ >= sliced_->SliceCount()) return false;
      std::shared_ptr<SlicePart> part = sliced_->Take(scan_, next_slice_++);
      switch (part->state) {
        case SlicePart::State::kDone:
          rows_.Reset(std::move(part->answers));
          part_ = std::move(part);
          break;
        case SlicePart::State::kFailed:
          error = part->request.table + ": " + part->error;
          return false;
        default:
          // No worker got to it: asked for here, page by page.
          if (!part->request.table.empty()) streamed_ = StreamedRows(client_, part->request);
          break;
      }
    }
  }

 private:
  QueryClient& client_;
  std::shared_ptr<SlicedScans> sliced_;
  size_t scan_;
  size_t next_slice_ = 0;
  std::shared_ptr<SlicePart> part_;
  AnswerRows rows_;
  std::unique_ptr<RowFeed> streamed_;
};

class Kept : public RowFeed {
 public:
  Kept(std::shared_ptr<KeptScan> kept, bool picked, const uint32_t* pick,
       const uint32_t* pick_end, size_t first, size_t last)
      : kept_(std::move(kept)),
        picked_(picked),
        pick_(pick),
        pick_end_(pick_end),
        row_(first),
        row_end_(last) {}

  bool Next(FedRow& row, std::string&) override {
    size_t i = 0;
    if (picked_) {
      if (pick_ == pick_end_) return false;
      i = *pick_++;
    } else {
      if (row_ >= row_end_) return false;
      i = row_++;
    }
    row = {kept_->Row(i), kept_->Position(i)};
    return true;
  }

 private:
  std::shared_ptr<KeptScan> kept_;
  bool picked_;
  const uint32_t* pick_;
  const uint32_t* pick_end_;
  size_t row_;
  size_t row_end_;
};

}  // namespace

std::unique_ptr<RowFeed> StreamedRows(QueryClient& client, QueryRequest request) {
  return std::make_unique<Streamed>(client, std::move(request));
}

std::unique_ptr<RowFeed> SlicedRows(QueryClient& client, std::shared_ptr<SlicedScans> sliced,
                                    size_t scan) {
  return std::make_unique<Sliced>(client, std::move(sliced), scan);
}

std::unique_ptr<RowFeed> KeptRows(std::shared_ptr<KeptScan> kept, bool picked,
                                  const uint32_t* pick, const uint32_t* pick_end, size_t first,
                                  size_t last) {
  return std::make_unique<Kept>(std::move(kept), picked, pick, pick_end, first, last);
}

}  // namespace Tarn::Tool
