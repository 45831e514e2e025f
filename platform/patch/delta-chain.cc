#include "delta-chain.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "logger.h"

namespace patch {
namespace {

// The librsync delta stream: a big-endian magic number, then commands of
// one opcode byte and big-endian parameters, ending with a zero opcode.
constexpr uint32_t kDeltaMagic = 0x72730236;
constexpr uint8_t kOpEnd = 0x00;
constexpr uint8_t kOpLiteralMaxInline = 0x40;  // 0x01..0x40: literal of that many bytes
constexpr uint8_t kOpLiteralN1 = 0x41;         // 0x41..0x44: length of 1, 2, 4, 8 bytes
constexpr uint8_t kOpCopyN1N1 = 0x45;          // 0x45..0x54: position and length widths
constexpr uint8_t kOpCopyN8N8 = 0x54;

// Enough for tens of millions of edits; beyond that the delta is not ours.
constexpr size_t kMaxSegments = size_t{1} << 25;
constexpr size_t kReadAhead = 1 << 20;

// Buffered reading of the command stream; literal data is skipped over, as
// only its position matters here.
class CommandReader {
 public:
  explicit CommandReader(int fd) : fd_(fd) {}

  int Open() {
    struct stat st;
    if (fstat(fd_, &st) < 0 || !S_ISREG(st.st_mode)) return -1;
    size_ = static_cast<uint64_t>(st.st_size);
    buf_ = std::make_unique_for_overwrite<uint8_t[]>(kReadAhead);
    return 0;
  }

  uint64_t position() const { return pos_; }

  // A big-endian number of `width` bytes (1 to 8).
  bool Number(unsigned width, uint64_t& value) {
    if (!Fill(width)) return false;
    value = 0;
    for (unsigned i = 0; i < width; ++i) value = (value << 8) | buf_[pos_ - buf_at_ + i];
    pos_ += width;
    return true;
  }

  bool Skip(uint64_t n) {
    if (n > size_ - pos_) return false;
    pos_ += n;
    return true;
  }

 private:
  // Makes `n` bytes at the current position available in the buffer.
  bool Fill(unsigned n) {
    if (n > size_ - pos_) return false;
    if (pos_ >= buf_at_ && pos_ + n <= buf_at_ + buf_len_) return true;
    const size_t want = static_cast<size_t>(std::min<uint64_t>(kReadAhead, size_ - pos_));
    size_t got = 0;
    while (got < want) {
      const ssize_t r = pread(fd_, buf_.get() + got, want - got, static_cast<off_t>(pos_ + got));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) break;
      got += static_cast<size_t>(r);
    }
    buf_at_ = pos_;
    buf_len_ = got;
    return got >= n;
  }

  int fd_;
  uint64_t size_ = 0;
  uint64_t pos_ = 0;
  std::unique_ptr<uint8_t[]> buf_;
  uint64_t buf_at_ = 0;
  size_t buf_len_ = 0;
};

}  // namespace

Layout Layout::Whole(uint32_t source, uint64_t size) {
  Layout layout;
  layout.Append({source, 0, size});
  return layout;
}

bool Layout::Append(const Segment& piece) {
  if (piece.length == 0) return true;
  uint64_t end = 0;
  if (__builtin_add_overflow(size_, piece.length, &end)) return false;
  // Pieces that continue each other in one source stay one segment, so an
  // unchanged stretch costs one copy however many deltas cross it.
  if (!segments_.empty()) {
    Segment& last = segments_.back();
    if (last.source == piece.source && last.offset + last.length == piece.offset) {
      last.length += piece.length;
      size_ = end;
      return true;
    }
  }
  if (segments_.size() >= kMaxSegments) return false;
  segments_.push_back(piece);
  starts_.push_back(size_);
  size_ = end;
  return true;
}

bool Layout::AppendRange(const Layout& other, uint64_t from, uint64_t length) {
  if (length == 0) return true;
  auto it = std::upper_bound(other.starts_.begin(), other.starts_.end(), from);
  size_t i = static_cast<size_t>(it - other.starts_.begin()) - 1;
  while (length > 0) {
    const Segment& seg = other.segments_[i];
    const uint64_t skip = from - other.starts_[i];
    const uint64_t take = std::min(length, seg.length - skip);
    if (!Append({seg.source, seg.offset + skip, take})) return false;
    from += take;
    length -= take;
    ++i;
  }
  return true;
}

int ApplyDelta(const Layout& basis, int fd, uint32_t source, Layout& out) {
  out = Layout();
  CommandReader in(fd);
  uint64_t magic = 0;
  if (in.Open() < 0) return -1;
  if (!in.Number(4, magic) || magic != kDeltaMagic) {
    LOG_ERROR("delta %u is not a delta (magic %#llx)\n", source,
              static_cast<unsigned long long>(magic));
    return -1;
  }
  for (;;) {
    uint64_t op = 0;
    if (!in.Number(1, op)) {
      LOG_ERROR("delta %u ends without its end command\n", source);
      return -1;
    }
    if (op == kOpEnd) return 0;
    if (op <= kOpCopyN8N8 && op >= kOpCopyN1N1) {
      const unsigned k = static_cast<unsigned>(op - kOpCopyN1N1);
      uint64_t where = 0, length = 0;
      if (!in.Number(1u << (k / 4), where) || !in.Number(1u << (k % 4), length)) {
        LOG_ERROR("delta %u is truncated in a copy\n", source);
        return -1;
      }
      if (where > basis.size() || length > basis.size() - where) {
        LOG_ERROR("delta %u copies %llu bytes at %llu from a basis of %llu\n", source,
                  static_cast<unsigned long long>(length), static_cast<unsigned long long>(where),
                  static_cast<unsigned long long>(basis.size()));
        return -1;
      }
      if (!out.AppendRange(basis, where, length)) {
        LOG_ERROR("delta %u makes a content too large or too fragmented\n", source);
        return -1;
      }
      continue;
    }
    uint64_t length = op;
    if (op > kOpLiteralMaxInline) {
      if (op > kOpLiteralN1 + 3 || !in.Number(1u << (op - kOpLiteralN1), length)) {
        LOG_ERROR("delta %u has a bad command %#llx\n", source,
                  static_cast<unsigned long long>(op));
        return -1;
      }
    }
    const uint64_t at = in.position();
    if (!in.Skip(length)) {
      LOG_ERROR("delta %u is truncated in a literal\n", source);
      return -1;
    }
    if (!out.Append({source, at, length})) {
      LOG_ERROR("delta %u makes a content too large or too fragmented\n", source);
      return -1;
    }
  }
}

}  // namespace patch
