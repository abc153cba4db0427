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
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8>(seed + i);
    return v;
}

void expect_invariant(BufferObj* b) {
    EXPECT_EQ(b->pCurrent, b->pBase + b->m_currentLength);
    EXPECT_LE(b->m_currentLength, b->m_bufferLength);
}

TEST(BuffObj, OwnedStorageGrowsByTheRule) {
    BufferObj* b = buffobj_new();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->m_bufferLength, 256u);
    EXPECT_EQ(b->m_allocated, 1u);
    EXPECT_EQ(b->magic, 0x12345678u);

    auto first = pattern(300, 1);
    uint8* at = buffobj_Append(b, 300, first.data());
    EXPECT_EQ(at, b->pBase);
    EXPECT_EQ(b->m_bufferLength, 300u);  // 0 in use + max(300, 256)
    EXPECT_EQ(buffobj_Length(b), 300u);
    EXPECT_EQ(buffobj_Remaining(b), 0u);

    auto second = pattern(10, 99);
    at = buffobj_Append(b, 10, second.data());
    EXPECT_EQ(b->m_bufferLength, 556u);  // 300 in use + max(10, 256)
    EXPECT_EQ(at, b->pBase + 300);
    EXPECT_EQ(buffobj_Length(b), 310u);
    EXPECT_EQ(0, std::memcmp(b->pBase, first.data(), 300));
    EXPECT_EQ(0, std::memcmp(b->pBase + 300, second.data(), 10));
    expect_invariant(b);

    // Appending what fits does not grow.
    at = buffobj_Append(b, 246, pattern(246, 7).data());
    EXPECT_EQ(b->m_bufferLength, 556u);
    EXPECT_EQ(buffobj_Remaining(b), 0u);
    buffobj_del(b);
}

TEST(BuffObj, WrappedStorageBecomesAnOwnedCopy) {
    uint8 caller[36];
    std::memset(caller, 0x5A, sizeof caller);
    BufferObj* b = buffobj_setbuf(caller, sizeof caller);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->m_allocated, 0u);

    auto data = pattern(40, 3);
    uint8* at = buffobj_Append(b, 40, data.data());
    EXPECT_EQ(b->m_allocated, 1u);
    EXPECT_EQ(b->m_bufferLength, 292u);  // 36 + 256, enough for 40
    EXPECT_NE(b->pBase, caller);
    EXPECT_EQ(at, b->pBase);
    EXPECT_EQ(0, std::memcmp(b->pBase, data.data(), 40));
    for (uint8 c : caller) EXPECT_EQ(c, 0x5A);
    buffobj_del(b);

    // Bytes before the cursor are carried over; a wrapper that is still too
    // small after the copy grows again by the owned rule.
    uint8 small[4] = {1, 2, 3, 4};
    b = buffobj_setbuf(small, sizeof small);
    ASSERT_NE(buffobj_Advance(b, 4), nullptr);
    auto big = pattern(600, 9);
    at = buffobj_Append(b, 600, big.data());
    EXPECT_EQ(b->m_bufferLength, 604u);  // copy of 4 + 256 = 260 is too small: 4 + 600
    EXPECT_EQ(0, std::memcmp(b->pBase, small, 4));
    EXPECT_EQ(at, b->pBase + 4);
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
    EXPECT_EQ(b->m_currentLength, 32u);

    EXPECT_EQ(buffobj_RewindLength(b, 33), nullptr);
    EXPECT_EQ(buffobj_RewindLength(b, 32), storage);
    expect_invariant(b);

    EXPECT_EQ(buffobj_Set(b, storage + 32), storage + 32);  // end itself accepted
    EXPECT_EQ(b->m_currentLength, 32u);
    EXPECT_EQ(buffobj_Set(b, storage - 1), nullptr);
    EXPECT_EQ(buffobj_Set(b, storage + 33), nullptr);
    EXPECT_EQ(b->m_currentLength, 32u);
    EXPECT_EQ(buffobj_Set(b, storage + 5), storage + 5);
    EXPECT_EQ(b->m_currentLength, 5u);
    expect_invariant(b);

    // Write never moves the cursor and never grows.
    uint8 one[2] = {0xAB, 0xCD};
    uint8 two[2] = {0x11, 0x22};
    EXPECT_EQ(buffobj_Write(b, 2, one), storage + 5);
    EXPECT_EQ(buffobj_Write(b, 2, two), storage + 5);
    EXPECT_EQ(storage[5], 0x11);
    EXPECT_EQ(b->m_currentLength, 5u);
    EXPECT_EQ(buffobj_Write(b, 28, one), nullptr);  // 27 remain
    EXPECT_EQ(buffobj_Write(b, 0, one), nullptr);
    EXPECT_EQ(buffobj_Write(b, 1, nullptr), nullptr);

    // Peeks measure against capacity.
    storage[5] = 0x10;
    storage[6] = 0x4A;
    EXPECT_EQ(buffobj_NextType(b), 0x104A);
    EXPECT_EQ(buffobj_NextSubId(b), 0x10);
    storage[29] = 0x77;
    buffobj_Set(b, storage + 29);  // 3 left: enough for a sub-id, not for a type
    EXPECT_EQ(buffobj_NextType(b), 0);
    EXPECT_EQ(buffobj_NextSubId(b), 0x77);
    buffobj_Set(b, storage + 31);  // 1 left
    EXPECT_EQ(buffobj_NextSubId(b), 0);

    buffobj_Set(b, storage + 10);
    b->m_dataLength = 20;
    EXPECT_EQ(buffobj_Rewind(b), storage);
    EXPECT_EQ(b->m_dataLength, 20u);
    EXPECT_EQ(buffobj_Reset(b), storage);
    EXPECT_EQ(b->m_dataLength, 0u);
    buffobj_del(b);
}

TEST(BuffObj, DserialWrapsCallerDataForReading) {
    BufferObj* b = buffobj_new();
    buffobj_Append(b, 5, pattern(5, 0).data());
    uint8 data[80];
    buffobj_dserial(b, data, sizeof data);
    EXPECT_EQ(b->pBase, data);
    EXPECT_EQ(b->pCurrent, data);
    EXPECT_EQ(b->m_bufferLength, 80u);
    EXPECT_EQ(b->m_dataLength, 80u);
    EXPECT_EQ(b->m_currentLength, 0u);
    EXPECT_EQ(b->m_allocated, 0u);
    buffobj_del(b);  // frees only the object, not `data`
}

TEST(BuffObj, UnusableObjectIsRefusedWithItsLine) {
    BufferObj* b = buffobj_new();
    EXPECT_EQ(buffobj_unlock(b), 1);
    EXPECT_EQ(buffobj_unlock(b), 0);
    EXPECT_EQ(b->magic, 0xEDCBA987u);

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
    uint8 a[2] = {0x10, 0x0E};
    EXPECT_EQ(WpsNtohs(a), 0x100E);
    uint8 l[4] = {0x00, 0x00, 0x02, 0x80};
    EXPECT_EQ(WpsNtohl(l), 640u);

    const uint16 s = WpsHtons(0x1234);
    uint8 sb[2];
    std::memcpy(sb, &s, 2);
    EXPECT_EQ(sb[0], 0x12);
    EXPECT_EQ(sb[1], 0x34);
    const uint32 w = WpsHtonl(0x01020304);
    uint8 wb[4];
    std::memcpy(wb, &w, 4);
    EXPECT_EQ(wb[0], 0x01);
    EXPECT_EQ(wb[3], 0x04);

    const uint16 host16 = 0xBEEF;
    uint8 out16[2];
    const uint16 net16 = WpsHtonsPtr(reinterpret_cast<uint8*>(const_cast<uint16*>(&host16)), out16);
    EXPECT_EQ(out16[0], 0xBE);
    EXPECT_EQ(out16[1], 0xEF);
    EXPECT_EQ(net16, WpsHtons(0xBEEF));
    const uint32 host32 = 0xDEADBEEF;
    uint8 out32[4];
    const uint32 net32 = WpsHtonlPtr(reinterpret_cast<uint8*>(const_cast<uint32*>(&host32)), out32);
    EXPECT_EQ(out32[0], 0xDE);
    EXPECT_EQ(out32[3], 0xEF);
    EXPECT_EQ(net32, WpsHtonl(0xDEADBEEF));
    EXPECT_EQ(WpsNtohl(out32), 0xDEADBEEFu);
}

}  // namespace
