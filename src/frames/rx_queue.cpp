#include "frames/rx_queue.h"

#include <algorithm>

namespace palimbo {

void RxQueue::Append(std::string_view Bytes) {
  if (Bytes.empty()) return;
  // Each byte moved here stands for one dropped before it, so the moves stay linear.
  if (head_ > 0 && head_ >= size()) {
    moved_ += size();
    data_.erase(0, head_);
    head_ = 0;
  }
  data_.append(Bytes);
  peak_ = std::max(peak_, size());
}

void RxQueue::DropFront(size_t Count) {
  head_ += std::min(Count, size());
  if (head_ == data_.size()) clear();
}

void RxQueue::clear() {
  data_.clear();
  head_ = 0;
}

}  // namespace palimbo
