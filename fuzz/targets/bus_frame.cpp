// A stream of bytes is the same frames however it is cut, and what was read is written as the same
// bytes again.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tevra/msgbus/wire/frame.h"
#include "tevra/msgbus/wire/frame_reader.h"

namespace {

using namespace tevra::msgbus;
using wire::FrameReader;

constexpr size_t kMaxBody = 1000;

struct Reading {
  std::vector<std::string> bodies;
  bool too_long = false;

  bool operator==(const Reading&) const = default;
};

// Takes the stream in pieces of a length that `seed` decides, whole for 0.
Reading Read(std::string_view stream, uint32_t seed) {
  FrameReader reader(kMaxBody);
  Reading reading;
  while (!stream.empty() && !reading.too_long) {
    const size_t piece = seed == 0 ? stream.size() : 1 + (seed >> 16) % 40;
    seed = seed == 0 ? 0 : (seed * 1664525 + 1013904223) | 1;
    const auto space = reader.Space();
    const size_t count = std::min({piece, space.size(), stream.size()});
    std::copy_n(stream.data(), count, space.data());
    reader.Took(count);
    stream.remove_prefix(count);
    std::string_view body;
    FrameReader::State state;
    while ((state = reader.Next(&body)) == FrameReader::State::kFrame) {
      reading.bodies.emplace_back(body);
    }
    reading.too_long = state == FrameReader::State::kTooLong;
  }
  return reading;
}

void CheckRoundTrip(const std::string& body) {
  const auto frame = wire::ParseBody(body);
  if (!frame) return;
  MsgBusMsg message(std::string(frame->interface), std::string(frame->member), "");
  if (!wire::ReadValues(frame->values, &message)) return;
  std::string written;
  wire::AppendFrame(&written, *frame, message.Body());
  if (written.substr(wire::kLengthBytes) != body) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view stream(reinterpret_cast<const char*>(data), size);
  const Reading whole = Read(stream, 0);
  const uint32_t seed = 2654435761u * static_cast<uint32_t>(size) | 1;
  if (Read(stream, seed) != whole) std::abort();
  for (const std::string& body : whole.bodies) CheckRoundTrip(body);
  return 0;
}
