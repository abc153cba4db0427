// Storage for key material that is wiped when it goes out of scope, so no
// path out of a function (early return included) leaves a secret behind on
// the stack or in a freed heap block.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "wsc/encrypt/buffobj.h"

namespace kestr {

template <size_t N>
struct SecretBytes {
    uint8_t bytes[N] = {};

    SecretBytes() = default;
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    ~SecretBytes() { OPENSSL_cleanse(bytes, N); }

    uint8_t* data() { return bytes; }
    const uint8_t* data() const { return bytes; }
    static constexpr size_t size() { return N; }
};

// Wipes `len` bytes at `p` when the scope ends, for typed key material such
// as round-key arrays.
class WipeOnExit {
  public:
    WipeOnExit(void* p, size_t len) : p_(p), len_(len) {}
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;
    ~WipeOnExit() { OPENSSL_cleanse(p_, len_); }

  private:
    void* p_;
    size_t len_;
};

// Wipes an object's valid bytes before freeing it. Wrapped caller storage is
// wiped as well: the buffer objects of the key derivation only ever wrap the
// derivation's own secrets.
struct WipingBufferObjDeleter {
    void operator()(BufferObj* b) const {
        if (b == nullptr)
            return;
        if (b->pBase != nullptr && b->m_dataLength != 0)
            OPENSSL_cleanse(b->pBase, b->m_dataLength);
        buffobj_del(b);
    }
};
using SecretBufferObj = std::unique_ptr<BufferObj, WipingBufferObjDeleter>;

struct BufferObjDeleter {
    void operator()(BufferObj* b) const { buffobj_del(b); }
};
using BufferObjPtr = std::unique_ptr<BufferObj, BufferObjDeleter>;

}  // namespace kestr
