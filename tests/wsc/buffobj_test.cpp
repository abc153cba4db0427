#include "wsc/encrypt/buffobj.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "tests/support/capture.h"

namespace {

using kestr::test::capture_output;

std::vector<uint8> pattern(size_t n, uint8 seed) {
    std::vector<uint8> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8>(seed + i);
    return v;
}

// Appends grow the storage (by what is in use plus the larger of the
// request and 256 bytes) and keep every byte written before; wrapped caller
// storage is copied, never written or freed.
TEST(BuffObj, AppendGrowsAndKeepsWhatWasWritten) {
    BufferObj* b = buffobj_new();
    ASSERT_NE(b, nullptr);
    auto first = pattern(300, 1), second = pattern(10, 99);
    EXPECT_EQ(buffobj_Append(b, 300, first.data()), b->pBase);
    EXPECT_EQ(b->m_bufferLength, 300u);
    uint8* at = buffobj_Append(b, 10, second.data());
    EXPECT_EQ(b->m_bufferLength, 556u);
    EXPECT_EQ(at, b->pBase + 300);
    EXPECT_EQ(buffobj_Length(b), 310u);
    EXPECT_EQ(0, std::memcmp(b->pBase, first.data(), 300));
    EXPECT_EQ(0, std::memcmp(b->pBase + 300, second.data(), 10));
    buffobj_Append(b, 246, pattern(246, 7).data());  // fits: no growth
    EXPECT_EQ(b->m_bufferLength, 556u);
    EXPECT_EQ(buffobj_Remaining(b), 0u);
    buffobj_del(b);

    uint8 caller[4] = {1, 2, 3, 4};
    b = buffobj_setbuf(caller, sizeof caller);
    ASSERT_NE(buffobj_Advance(b, 4), nullptr);
    auto big = pattern(600, 9);
    at = buffobj_Append(b, 600, big.data());
    EXPECT_EQ(b->m_allocated, 1u);
    EXPECT_EQ(b->m_bufferLength, 604u);  // a copy of 4 + 256 is too small: 4 + 600
    EXPECT_EQ(0, std::memcmp(b->pBase, caller, 4));
    EXPECT_EQ(at, b->pBase + 4);
    EXPECT_EQ(0, std::memcmp(at, big.data(), 600));
    EXPECT_EQ(caller[3], 4);
    buffobj_del(b);
}

TEST(BuffObj, CursorBounds) {
    // The object wraps 32 bytes in the middle of a larger array, so positions
    // just outside its storage are still valid addresses to offer it.
    uint8 outer[40] = {};
    uint8* storage = outer + 4;
    BufferObj* b = buffobj_setbuf(storage, 32);

    EXPECT_EQ(buffobj_Advance(b, 32), storage + 32);  // exactly to the end
    EXPECT_EQ(buffobj_Advance(b, 1), nullptr);        // one further: refused
    EXPECT_EQ(buffobj_RewindLength(b, 33), nullptr);
    EXPECT_EQ(buffobj_RewindLength(b, 32), storage);

    EXPECT_EQ(buffobj_Set(b, storage + 32), storage + 32);  // end itself accepted
    EXPECT_EQ(buffobj_Set(b, storage - 1), nullptr);
    EXPECT_EQ(buffobj_Set(b, storage + 33), nullptr);
    EXPECT_EQ(b->m_currentLength, 32u);
    EXPECT_EQ(buffobj_Set(b, storage + 5), storage + 5);
    EXPECT_EQ(b->m_currentLength, 5u);
    EXPECT_EQ(b->pCurrent, storage + 5);

    // Write never moves the cursor and never grows.
    uint8 two[2] = {0x11, 0x22};
    EXPECT_EQ(buffobj_Write(b, 2, two), storage + 5);
    EXPECT_EQ(storage[5], 0x11);
    EXPECT_EQ(b->m_currentLength, 5u);
    EXPECT_EQ(buffobj_Write(b, 28, two), nullptr);  // 27 remain
    EXPECT_EQ(buffobj_Write(b, 0, two), nullptr);

    // Peeks measure against capacity.
    storage[5] = 0x10;
    storage[6] = 0x4A;
    EXPECT_EQ(buffobj_NextType(b), 0x104A);
    storage[29] = 0x77;
    buffobj_Set(b, storage + 29);  // 3 left: enough for a sub-id, not for a type
    EXPECT_EQ(buffobj_NextType(b), 0);
    EXPECT_EQ(buffobj_NextSubId(b), 0x77);
    buffobj_Set(b, storage + 31);  // 1 left
    EXPECT_EQ(buffobj_NextSubId(b), 0);

    b->m_dataLength = 20;
    EXPECT_EQ(buffobj_Rewind(b), storage);
    EXPECT_EQ(b->m_dataLength, 20u);
    EXPECT_EQ(buffobj_Reset(b), storage);
    EXPECT_EQ(b->m_dataLength, 0u);
    buffobj_del(b);
}

TEST(BuffObj, UnusableObjectIsRefusedWithItsLine) {
    BufferObj* b = buffobj_new();
    EXPECT_EQ(buffobj_unlock(b), 1);
    EXPECT_EQ(buffobj_unlock(b), 0);

    uint8 byte = 1;
    struct Case {
        std::function<bool()> call;
        const char* line;
    } cases[] = {
        {[&] { return buffobj_NextSubId(b) == 0; }, "NextSubId"},
        {[&] { return buffobj_Rewind(b) == nullptr; }, "Rewind"},
        {[&] { return buffobj_RewindLength(b, 0) == nullptr; }, "RewindLength"},
        {[&] { return buffobj_Reset(b) == nullptr; }, "Reset"},
        {[&] { return buffobj_Set(b, b->pBase) == nullptr; }, "Set"},
        {[&] { return buffobj_NextType(b) == 0; }, "NextType"},
        {[&] { return buffobj_Append(b, 1, &byte) == nullptr; }, "Append"},
        {[&] {
             buffobj_dserial(b, &byte, 1);
             return b->pBase != &byte;
         },
         "Adavance"},
        {[&] {
             buffobj_del(b);
             return true;
         },
         "del"},
    };
    for (const auto& c : cases) {
        bool refused = false;
        const auto out = capture_output([&] { refused = c.call(); });
        EXPECT_TRUE(refused) << c.line;
        EXPECT_EQ(out.out, std::string("BuffObj ") + c.line +
                               " : tryng to use a non-allocated object !!!\n");
    }
    // Null source or zero length: the cursor, silently, even when unusable.
    const auto out = capture_output([&] {
        EXPECT_EQ(buffobj_Append(b, 0, &byte), b->pCurrent);
        EXPECT_EQ(buffobj_Append(b, 4, nullptr), b->pCurrent);
    });
    EXPECT_EQ(out.out, "");

    EXPECT_EQ(buffobj_lock(b), 1);
    EXPECT_EQ(buffobj_lock(b), 0);
    buffobj_del(b);  // usable again, so it really frees
}

TEST(ByteOrder, BigEndianWhateverTheHost) {
    uint8 l[4] = {0x00, 0x00, 0x02, 0x80};
    EXPECT_EQ(WpsNtohs(l + 2), 0x0280);
    EXPECT_EQ(WpsNtohl(l), 640u);
    const uint16 s = WpsHtons(0x1234);
    const uint32 w = WpsHtonl(0x01020304);
    EXPECT_EQ(std::memcmp(&s, "\x12\x34", 2), 0);
    EXPECT_EQ(std::memcmp(&w, "\x01\x02\x03\x04", 4), 0);

    uint16 host16 = 0xBEEF;
    uint32 host32 = 0xDEADBEEF;
    uint8 out16[2], out32[4];
    EXPECT_EQ(WpsHtonsPtr(reinterpret_cast<uint8*>(&host16), out16), WpsHtons(0xBEEF));
    EXPECT_EQ(WpsHtonlPtr(reinterpret_cast<uint8*>(&host32), out32), WpsHtonl(0xDEADBEEF));
    EXPECT_EQ(std::memcmp(out16, "\xBE\xEF", 2), 0);
    EXPECT_EQ(std::memcmp(out32, "\xDE\xAD\xBE\xEF", 4), 0);
}

}  // namespace
