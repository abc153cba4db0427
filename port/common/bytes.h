// Bounded views over memory, and the readers and writers for everything
// kestrd puts on or takes off the wire. Every encoder and decoder of frames,
// TLVs, WSC attributes and database requests goes through these classes, so
// a length taken from the network can never move a pointer outside the bytes
// that were received or the storage that was provided. This is the one file
// of kestrd that offsets raw pointers; everything else asks a view.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestr {

// `size()` objects at `data()`, like a C++20 std::span. Sub-views are
// clamped to the view: asking for more than it holds yields what it holds.
template <typename T>
class Span {
  public:
    constexpr Span() = default;
    constexpr Span(T* data, size_t size) : p_(data), n_(data == nullptr ? 0 : size) {}
    template <size_t N>
    constexpr Span(T (&array)[N]) : p_(array), n_(N) {}  // NOLINT: a view of the array
    // A view of mutable objects is a view of const ones too.
    template <typename U>
    constexpr Span(Span<U> other) : p_(other.data()), n_(other.size()) {}  // NOLINT

    constexpr T* data() const { return p_; }
    constexpr size_t size() const { return n_; }
    constexpr bool empty() const { return n_ == 0; }
    constexpr T* begin() const { return p_; }
    constexpr T* end() const { return p_ + n_; }
    T& operator[](size_t i) const {
        assert(i < n_);
        return p_[i];
    }

    // From `offset` on, at most `len` objects.
    constexpr Span subspan(size_t offset, size_t len = SIZE_MAX) const {
        if (offset > n_)
            offset = n_;
        const size_t left = n_ - offset;
        return Span(p_ + offset, len < left ? len : left);
    }
    constexpr Span first(size_t len) const { return subspan(0, len); }

  private:
    T* p_ = nullptr;
    size_t n_ = 0;
};

using ConstBytes = Span<const uint8_t>;

// The object of type Outer whose member at `offset` (offsetof) is `member`:
// how an intrusive list gets from a link back to the record that holds it.
template <typename Outer, typename Member>
Outer* outer_of(Member* member, size_t offset) {
    return reinterpret_cast<Outer*>(reinterpret_cast<char*>(member) - offset);
}
using MutableBytes = Span<uint8_t>;

constexpr uint16_t load_be16(const uint8_t* p) {
    return static_cast<uint16_t>((static_cast<uint16_t>(p[0]) << 8) | p[1]);
}
constexpr uint32_t load_be32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}
inline void store_be16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline void store_be32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// A read-only view of received bytes with a cursor. Every getter either
// consumes exactly what it returns or fails and consumes nothing.
class ByteReader {
  public:
    ByteReader() = default;
    ByteReader(const void* data, size_t len) : p_(static_cast<const uint8_t*>(data)), n_(len) {
        if (p_ == nullptr)
            n_ = 0;
    }

    size_t remaining() const { return n_; }
    bool empty() const { return n_ == 0; }
    const uint8_t* data() const { return p_; }

    bool u8(uint8_t* out) {
        if (n_ < 1)
            return false;
        *out = p_[0];
        advance(1);
        return true;
    }
    bool u16(uint16_t* out) {
        if (n_ < 2)
            return false;
        *out = load_be16(p_);
        advance(2);
        return true;
    }
    bool u32(uint32_t* out) {
        if (n_ < 4)
            return false;
        *out = load_be32(p_);
        advance(4);
        return true;
    }
    bool bytes(void* out, size_t len) {
        if (n_ < len)
            return false;
        if (len != 0)
            std::memcpy(out, p_, len);
        advance(len);
        return true;
    }
    bool skip(size_t len) {
        if (n_ < len)
            return false;
        advance(len);
        return true;
    }
    // Hands out the next `len` bytes as a reader of their own, so a nested
    // value can never be read past its own end.
    bool sub(size_t len, ByteReader* out) {
        if (n_ < len)
            return false;
        *out = ByteReader(p_, len);
        advance(len);
        return true;
    }
    // A value preceded by its 16-bit big-endian length.
    bool u16_length_prefixed(ByteReader* out) {
        if (n_ < 2)
            return false;
        const size_t len = load_be16(p_);
        if (n_ - 2 < len)
            return false;
        advance(2);
        return sub(len, out);
    }
    // The bytes from `offset` on, without moving this reader (a header field
    // at a fixed place); empty when the reader is shorter.
    ByteReader from(size_t offset) const {
        return offset <= n_ ? ByteReader(p_ + offset, n_ - offset) : ByteReader();
    }
    ConstBytes bytes_view() const { return ConstBytes(p_, n_); }

    // A record that says its own length: a header of `header_len` bytes with
    // a 16-bit big-endian value length at `length_at`, then the value. The
    // record must already be known to lie in readable memory of that length
    // (a TLV or attribute handed out by a bounded walk): this is how a bare
    // pointer from such a walk becomes a view again.
    static ByteReader self_delimited(const void* record, size_t length_at, size_t header_len) {
        if (record == nullptr)
            return ByteReader();
        const auto* p = static_cast<const uint8_t*>(record);
        return ByteReader(p, header_len + load_be16(p + length_at));
    }

  private:
    void advance(size_t k) {
        p_ += k;
        n_ -= k;
    }
    const uint8_t* p_ = nullptr;
    size_t n_ = 0;
};

// Appends to caller storage of fixed capacity. The first append that does not
// fit sets a sticky error flag and writes nothing; later appends are ignored,
// so a chain of appends is checked once, at the end, with ok().
class ByteWriter {
  public:
    ByteWriter(void* data, size_t capacity)
        : p_(static_cast<uint8_t*>(data)), cap_(data == nullptr ? 0 : capacity) {}
    explicit ByteWriter(MutableBytes out) : ByteWriter(out.data(), out.size()) {}

    bool ok() const { return !failed_; }
    size_t size() const { return len_; }
    size_t room() const { return failed_ ? 0 : cap_ - len_; }
    uint8_t* data() const { return p_; }
    // What has been written so far.
    ConstBytes written() const { return ConstBytes(p_, len_); }

    ByteWriter& u8(uint8_t v) { return put(&v, 1); }
    ByteWriter& u16(uint16_t v) {
        uint8_t b[2];
        store_be16(b, v);
        return put(b, 2);
    }
    ByteWriter& u32(uint32_t v) {
        uint8_t b[4];
        store_be32(b, v);
        return put(b, 4);
    }
    ByteWriter& bytes(const void* src, size_t len) { return put(src, len); }
    ByteWriter& bytes(ConstBytes src) { return put(src.data(), src.size()); }
    ByteWriter& zeros(size_t len) {
        if (!reserve(len))
            return *this;
        std::memset(p_ + len_, 0, len);
        len_ += len;
        return *this;
    }

    // Opens a 16-bit big-endian length field whose value is filled in by
    // end_u16_length() once the value has been written.
    size_t begin_u16_length() {
        const size_t at = len_;
        u16(0);
        return at;
    }
    ByteWriter& end_u16_length(size_t at) {
        if (failed_)
            return *this;
        const size_t value_len = len_ - at - 2;
        if (value_len > 0xFFFF) {
            failed_ = true;
            return *this;
        }
        store_be16(p_ + at, static_cast<uint16_t>(value_len));
        return *this;
    }
    void fail() { failed_ = true; }

  private:
    bool reserve(size_t len) {
        if (failed_ || cap_ - len_ < len) {
            failed_ = true;
            return false;
        }
        return true;
    }
    ByteWriter& put(const void* src, size_t len) {
        if (!reserve(len))
            return *this;
        if (len != 0)
            std::memcpy(p_ + len_, src, len);
        len_ += len;
        return *this;
    }
    uint8_t* p_;
    size_t cap_;
    size_t len_ = 0;
    bool failed_ = false;
};

}  // namespace kestr
