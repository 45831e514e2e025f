// The shape of a content rebuilt from an origin and a chain of librsync
// deltas, without reading any content: an ordered list of segments, each a
// range of one source file (the origin, or the literal bytes of a delta).
#pragma once

#include <cstdint>
#include <vector>

namespace patch {

struct Segment {
  uint32_t source = 0;  // 0: the origin; k: the k-th delta of the chain
  uint64_t offset = 0;  // where the bytes start in that source
  uint64_t length = 0;
};

class Layout {
 public:
  // The whole of a source of `size` bytes.
  static Layout Whole(uint32_t source, uint64_t size);

  const std::vector<Segment>& segments() const { return segments_; }
  uint64_t size() const { return size_; }

  // Appends bytes of one source; false when the layout would grow past its
  // limits (a hostile delta can ask for more than memory or 64 bits hold).
  bool Append(const Segment& piece);
  // Appends bytes [from, from + length) of `other`; the range must lie in it.
  bool AppendRange(const Layout& other, uint64_t from, uint64_t length);

 private:
  std::vector<Segment> segments_;
  std::vector<uint64_t> starts_;  // starting offset of each segment
  uint64_t size_ = 0;
};

// Reads the delta open on `fd` (the chain's `source`-th) and gives the layout
// of its result, applied to the content laid out by `basis`. -1 when the
// delta is unreadable, truncated, malformed, or copies outside the basis.
int ApplyDelta(const Layout& basis, int fd, uint32_t source, Layout& out);

}  // namespace patch
