#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace palimbo {

/// The receive buffer of an exchange: bytes join at the back and leave at the front.
///
/// Dropping bytes at the front moves nothing; their room is taken back by one move of the
/// rest once it is at least half the buffer, so each byte costs constant work however long
/// the buffer grows, and the room held stays within twice the most bytes held at once.
class RxQueue {
 public:
  size_t size() const { return data_.size() - head_; }
  bool empty() const { return size() == 0; }
  uint8_t operator[](size_t Index) const { return static_cast<uint8_t>(data_[head_ + Index]); }
  /// The bytes held, first to last; valid until the next change.
  std::string_view View() const { return std::string_view(data_).substr(head_); }

  void Append(std::string_view Bytes);
  /// Drops the first `Count` bytes, or all of them when fewer are held.
  void DropFront(size_t Count);
  void clear();

  /// The most bytes held at once since the queue was made.
  size_t PeakSize() const { return peak_; }
  /// Bytes moved so far to take back the room of dropped ones: the queue's only work that
  /// depends on its length.
  uint64_t BytesMoved() const { return moved_; }

 private:
  std::string data_;
  size_t head_ = 0;
  size_t peak_ = 0;
  uint64_t moved_ = 0;
};

}  // namespace palimbo
