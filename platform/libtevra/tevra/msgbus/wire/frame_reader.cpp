#include "tevra/msgbus/wire/frame_reader.h"

#include <algorithm>
#include <cstring>

#include "tevra/msgbus/wire/frame.h"

namespace tevra::msgbus::wire {
namespace {

// Nearly every message fits, so that it takes one read.
constexpr size_t kUsualBytes = 4096;

}  // namespace

std::span<char> FrameReader::Space() {
  if (begin_ == end_) {
    begin_ = end_ = 0;
    // An idle connection does not hold on to the memory of a large message.
    if (buffer_.size() != kUsualBytes) std::vector<char>(kUsualBytes).swap(buffer_);
  } else if (begin_ > 0) {
    memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (end_ == buffer_.size()) {
    const size_t limit = std::max(max_body_bytes_ + kLengthBytes, kUsualBytes);
    buffer_.resize(std::max(std::min(buffer_.size() * 2, limit), end_ + 1));
  }
  return {buffer_.data() + end_, buffer_.size() - end_};
}

FrameReader::State FrameReader::Next(std::string_view* body) {
  if (end_ - begin_ < kLengthBytes) return State::kNeedsMore;
  const size_t length = LoadNumber(buffer_.data() + begin_);
  if (length > max_body_bytes_) return State::kTooLong;
  if (end_ - begin_ - kLengthBytes < length) return State::kNeedsMore;
  *body = {buffer_.data() + begin_ + kLengthBytes, length};
  begin_ += kLengthBytes + length;
  return State::kFrame;
}

}  // namespace tevra::msgbus::wire
