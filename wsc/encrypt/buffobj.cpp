#include "wsc/encrypt/buffobj.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "port/common/bytes.h"

namespace {

constexpr uint32 kChunk = 256;

// The checked operations refuse an object whose magic word is not the usable
// value, with one line naming the operation.
bool usable(const BufferObj* b, const char* operation) {
    if (b->magic == kBuffObjMagic)
        return true;
    std::printf("BuffObj %s : tryng to use a non-allocated object !!!\n", operation);
    return false;
}

uint32 room(const BufferObj* b) {
    return b->m_bufferLength - b->m_currentLength;
}

}  // namespace

BufferObj* buffobj_new() {
    auto* b = static_cast<BufferObj*>(std::calloc(1, sizeof(BufferObj)));
    if (b == nullptr)
        return nullptr;
    b->pBase = static_cast<uint8*>(std::malloc(kChunk));
    if (b->pBase == nullptr) {
        std::free(b);
        return nullptr;
    }
    b->pCurrent = b->pBase;
    b->m_bufferLength = kChunk;
    b->m_allocated = 1;
    b->magic = kBuffObjMagic;
    return b;
}

BufferObj* buffobj_setbuf(uint8* buf, int len) {
    auto* b = static_cast<BufferObj*>(std::calloc(1, sizeof(BufferObj)));
    if (b == nullptr)
        return nullptr;
    b->pBase = b->pCurrent = buf;
    b->m_bufferLength = len < 0 ? 0 : static_cast<uint32>(len);
    b->m_allocated = 0;
    b->magic = kBuffObjMagic;
    return b;
}

void buffobj_del(BufferObj* b) {
    if (b == nullptr)
        return;
    if (!usable(b, "del"))
        return;
    if (b->m_allocated && b->pBase != nullptr) {
        std::free(b->pBase);
        b->magic = 0;
    }
    std::free(b);
}

void buffobj_dserial(BufferObj* b, uint8* ptr, uint32 length) {
    if (!usable(b, "Adavance"))
        return;
    if (b->m_allocated && b->pBase != nullptr)
        std::free(b->pBase);
    b->pBase = b->pCurrent = ptr;
    b->m_bufferLength = b->m_dataLength = length;
    b->m_currentLength = 0;
    b->m_allocated = 0;
}

char* alloc_init(int size) {
    if (size <= 0)
        return nullptr;
    return static_cast<char*>(std::calloc(1, static_cast<size_t>(size)));
}

namespace {

// The cursor is always m_currentLength bytes into the storage.
void place_cursor(BufferObj* b) {
    b->pCurrent =
        kestr::MutableBytes(b->pBase, b->m_bufferLength).subspan(b->m_currentLength).data();
}

}  // namespace

uint8* buffobj_Pos(BufferObj* b) {
    return b->pCurrent;
}
uint32 buffobj_Length(BufferObj* b) {
    return b->m_dataLength;
}
uint32 buffobj_Remaining(BufferObj* b) {
    return room(b);
}
uint8* buffobj_GetBuf(BufferObj* b) {
    return b->pBase;
}

uint8* buffobj_Append(BufferObj* b, uint32 length, uint8* pBuff) {
    if (pBuff == nullptr || length == 0)
        return b->pCurrent;
    if (!usable(b, "Append"))
        return nullptr;

    if (!b->m_allocated && length > room(b)) {
        // Caller storage that is too small becomes an owned copy first; the
        // caller's bytes are left as they were.
        auto* owned = static_cast<uint8*>(std::malloc(b->m_bufferLength + kChunk));
        if (owned == nullptr)
            return nullptr;
        if (b->m_currentLength != 0)
            std::memcpy(owned, b->pBase, b->m_currentLength);
        b->pBase = owned;
        b->m_bufferLength += kChunk;
        b->m_allocated = 1;
        place_cursor(b);
    }
    if (length > room(b)) {
        const uint32 grow = length > kChunk ? length : kChunk;
        auto* grown = static_cast<uint8*>(std::realloc(b->pBase, b->m_currentLength + grow));
        if (grown == nullptr) {
            // The old block is lost to the object; it is fit only for del.
            std::free(b->pBase);
            b->pBase = nullptr;
            return nullptr;
        }
        b->pBase = grown;
        b->m_bufferLength = b->m_currentLength + grow;
        place_cursor(b);
    }
    uint8* at = b->pCurrent;
    std::memcpy(at, pBuff, length);
    b->m_currentLength += length;
    b->m_dataLength = b->m_currentLength;
    place_cursor(b);
    return at;
}

uint8* buffobj_Write(BufferObj* b, uint32 length, uint8* pBuff) {
    if (pBuff == nullptr || length == 0 || length > room(b))
        return nullptr;
    std::memcpy(b->pCurrent, pBuff, length);
    return b->pCurrent;
}

uint8* buffobj_Advance(BufferObj* b, uint32 offset) {
    if (offset > room(b))
        return nullptr;
    b->m_currentLength += offset;
    place_cursor(b);
    return b->pCurrent;
}

uint8* buffobj_RewindLength(BufferObj* b, uint32 length) {
    if (!usable(b, "RewindLength"))
        return nullptr;
    if (length > b->m_currentLength)
        return nullptr;
    b->m_currentLength -= length;
    place_cursor(b);
    return b->pCurrent;
}

uint8* buffobj_Rewind(BufferObj* b) {
    if (!usable(b, "Rewind"))
        return nullptr;
    b->pCurrent = b->pBase;
    b->m_currentLength = 0;
    return b->pBase;
}

uint8* buffobj_Reset(BufferObj* b) {
    if (!usable(b, "Reset"))
        return nullptr;
    b->pCurrent = b->pBase;
    b->m_currentLength = 0;
    b->m_dataLength = 0;
    return b->pBase;
}

uint8* buffobj_Set(BufferObj* b, uint8* pos) {
    if (!usable(b, "Set"))
        return nullptr;
    // Compare as addresses, so a position outside the storage is refused
    // without forming an out-of-range pointer.
    const auto base = reinterpret_cast<uintptr_t>(b->pBase);
    const auto at = reinterpret_cast<uintptr_t>(pos);
    if (at < base || at - base > b->m_bufferLength)
        return nullptr;
    b->m_currentLength = static_cast<uint32>(at - base);
    b->pCurrent = pos;
    return pos;
}

uint16 buffobj_NextType(BufferObj* b) {
    if (!usable(b, "NextType"))
        return 0;
    if (room(b) < 4)
        return 0;
    return kestr::load_be16(b->pCurrent);
}

uint8 buffobj_NextSubId(BufferObj* b) {
    if (!usable(b, "NextSubId"))
        return 0;
    if (room(b) < 2)
        return 0;
    return *b->pCurrent;
}

int buffobj_lock(BufferObj* b) {
    if (b->magic == kBuffObjMagic)
        return 0;
    b->magic = kBuffObjMagic;
    return 1;
}

int buffobj_unlock(BufferObj* b) {
    if (b->magic != kBuffObjMagic)
        return 0;
    b->magic = kBuffObjUnlocked;
    return 1;
}
