#include "daemon/kestrd_request_list.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "port/common/common.h"

namespace {

using namespace std::chrono_literals;

IEEE19051_Info_t request(int mid, int type, int timeout = 3) {
    IEEE19051_Info_t info{};
    info.mid = mid;
    info.msgType = type;
    info.timeout = timeout;
    info.sendAbsTime = getSysRunningTime();
    return info;
}

struct ether_addr mac(uint8_t last) {
    struct ether_addr a {};
    a.ether_addr_octet[0] = 0x02;
    a.ether_addr_octet[5] = last;
    return a;
}

void drain() {
    while (IEEE19051_GetFirstRequestRecord() != nullptr) {
        IEEE19051_DelRequestRecord(IEEE19051_GetFirstRequestRecord());
    }
}

// Every test leaves the list empty while its lock is still valid, then the
// fixture stops the watcher.
class RequestList : public ::testing::Test {
  protected:
    void TearDown() override { IEEE19051_UninitList(); }
};

TEST_F(RequestList, LookupsAndDeletesActOnTheOldestMatch) {
    auto a = request(5, 7);
    a.freqBand = 0;
    auto b = request(5, 9);
    b.freqBand = 1;  // same identifier, newer, other type
    auto c = request(6, 9);
    IEEE19051_AddRequestRecord(a);
    IEEE19051_AddRequestRecord(b);
    IEEE19051_AddRequestRecord(c);
    EXPECT_EQ(IEEE19051_ListEmpty(), 0);

    IEEE19051_Info_t got{};
    EXPECT_EQ(IEEE19051_GetRequestRecordInfoByMid(7, 1, &got), -1);
    // The message type passed does not take part in the match.
    ASSERT_EQ(IEEE19051_GetRequestRecordInfoByMid(9, 5, &got), 0);
    EXPECT_EQ(got.msgType, 7);
    EXPECT_EQ(got.freqBand, 0);

    IEEE19051_DelRequestRecordByMid(5);  // removes the older one only
    ASSERT_EQ(IEEE19051_GetRequestRecordInfoByMid(7, 5, &got), 0);
    EXPECT_EQ(got.msgType, 9);
    EXPECT_EQ(got.freqBand, 1);

    // Walking visits oldest first.
    std::vector<int> mids;
    for (auto* r = IEEE19051_GetFirstRequestRecord(); r != nullptr;
         r = IEEE19051_GetNextRequestRecord(r)) {
        mids.push_back(r->info.mid);
    }
    EXPECT_EQ(mids, (std::vector<int>{5, 6}));
    drain();
}

TEST_F(RequestList, LookupByEnrolleeNonceAndDestination) {
    RequestExtraDataM1_t m1{};
    for (int i = 0; i < 16; ++i)
        m1.enrollee_nonce[i] = static_cast<uint8_t>(i + 1);
    auto with_extra = request(10, 9);
    with_extra.destMac = mac(1);
    with_extra.extraData = &m1;
    with_extra.extraDataType = RequestExtraDataType_M1;
    auto without_extra = request(11, 9);
    without_extra.destMac = mac(2);
    IEEE19051_AddRequestRecord(without_extra);
    IEEE19051_AddRequestRecord(with_extra);

    uint8_t right[16], wrong[16];
    std::memcpy(right, m1.enrollee_nonce, 16);
    std::memcpy(wrong, right, 16);
    wrong[15] ^= 1;  // the last byte counts too

    struct Case {
        const char* what;
        uint8_t* nonce;
        int type;
        struct ether_addr peer;
        int result;
    } cases[] = {
        {"match", right, 9, mac(1), 0},
        {"other nonce", wrong, 9, mac(1), -1},
        {"other peer", right, 9, mac(3), -1},
        {"other type", right, 7, mac(1), -1},
        {"peer of a request without extra data", right, 9, mac(2), -1},
    };
    for (const auto& c : cases) {
        IEEE19051_Info_t got{};
        EXPECT_EQ(IEEE19051_GetRequestRecordInfoByEnrolleeNonce(c.nonce, c.type, c.peer, &got),
                  c.result)
            << c.what;
        if (c.result == 0) {
            EXPECT_EQ(got.extraData, &m1);
        }
    }
    IEEE19051_Info_t got{};
    EXPECT_EQ(IEEE19051_GetRequestRecordInfoByDestmac(9, mac(2), &got), 0);
    EXPECT_EQ(got.mid, 11);
    EXPECT_EQ(IEEE19051_GetRequestRecordInfoByDestmac(7, mac(2), &got), -1);
    drain();
}

// Timeout handlers for the watcher tests; they record what they saw.
std::mutex g_seen_lock;
std::vector<int> g_seen;
std::atomic<int> g_passes{0};

int delete_self(void* p) {
    auto* info = static_cast<IEEE19051_Info_t*>(p);
    {
        std::lock_guard<std::mutex> g(g_seen_lock);
        g_seen.push_back(info->mid);
    }
    IEEE19051_DelRequestRecordByMid(info->mid);
    return 0;
}

int keep_self(void* p) {
    auto* info = static_cast<IEEE19051_Info_t*>(p);
    std::lock_guard<std::mutex> g(g_seen_lock);
    g_seen.push_back(info->mid);
    return 0;
}

std::vector<int> seen() {
    std::lock_guard<std::mutex> g(g_seen_lock);
    return g_seen;
}

TEST_F(RequestList, WatcherContinuesAfterSelfDeletingHandlers) {
    g_seen.clear();
    IEEE19051_InitList();
    for (int mid : {1, 2, 3}) {
        auto r = request(mid, 7, 0);  // lifetime 0: expires on the next pass
        r.timeoutHandler = delete_self;
        IEEE19051_AddRequestRecord(r);
    }
    auto stays = request(4, 7, 0);
    stays.timeoutHandler = keep_self;
    IEEE19051_AddRequestRecord(stays);
    auto no_handler = request(5, 7, 0);
    IEEE19051_AddRequestRecord(no_handler);
    auto young = request(6, 9, 100);
    young.timeoutHandler = delete_self;
    IEEE19051_AddRequestRecord(young);

    IEEE19051_InitList();  // a second init changes nothing: the records stay
    std::this_thread::sleep_for(1500ms);
    // First pass: 1, 2, 3 deleted themselves and 4 was offered; the walk
    // went on past each deleted record within the same pass.
    auto s = seen();
    ASSERT_GE(s.size(), 4u);
    EXPECT_EQ(std::vector<int>(s.begin(), s.begin() + 4), (std::vector<int>{1, 2, 3, 4}));
    std::this_thread::sleep_for(1200ms);
    // The kept record was offered again on every pass; 5 (no handler) and 6
    // (not expired) stay in the list.
    s = seen();
    EXPECT_GE(std::count(s.begin(), s.end(), 4), 2);
    EXPECT_EQ(std::count(s.begin(), s.end(), 6), 0);
    std::vector<int> left;
    for (auto* r = IEEE19051_GetFirstRequestRecord(); r; r = IEEE19051_GetNextRequestRecord(r))
        left.push_back(r->info.mid);
    EXPECT_EQ(left, (std::vector<int>{4, 5, 6}));
    drain();
}

std::atomic<long long> g_expired_after_ms{-1};
std::chrono::steady_clock::time_point g_added;

int note_expiry(void* p) {
    g_expired_after_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now() - g_added)
                             .count();
    IEEE19051_DelRequestRecordByMid(static_cast<IEEE19051_Info_t*>(p)->mid);
    return 0;
}

TEST_F(RequestList, ThreeSecondLifetimeExpiresBetweenTwoAndFourSeconds) {
    // Whole-second stamps and one-second passes: 3 s means "the first pass at
    // which the seconds counter has moved on by 3", never before 2 s and never
    // after 4 s.
    IEEE19051_InitList();
    g_added = std::chrono::steady_clock::now();
    auto r = request(42, 9, 3);
    r.timeoutHandler = note_expiry;
    IEEE19051_AddRequestRecord(r);
    for (int i = 0; i < 60 && g_expired_after_ms.load() < 0; ++i)
        std::this_thread::sleep_for(100ms);
    EXPECT_GE(g_expired_after_ms.load(), 1900);
    EXPECT_LE(g_expired_after_ms.load(), 4200);
    EXPECT_EQ(IEEE19051_ListEmpty(), 1);
}

TEST_F(RequestList, TeardownWithPendingRequestsCallsNoHandler) {
    g_seen.clear();
    IEEE19051_UninitList();  // without init: nothing
    IEEE19051_InitList();
    auto r = request(7, 7, 2);
    r.timeoutHandler = keep_self;
    IEEE19051_AddRequestRecord(r);
    IEEE19051_RequestRecord_t* left = IEEE19051_GetFirstRequestRecord();
    IEEE19051_UninitList();
    std::this_thread::sleep_for(2500ms);
    EXPECT_TRUE(seen().empty());
    ASSERT_NE(left, nullptr);
    EXPECT_EQ(left->info.mid, 7);  // neither called nor freed: it belongs to nobody now
    delete left;
    IEEE19051_InitList();  // an empty list again for whatever runs next
}

// The extra data of an M1 request is freed by its timeout handler on the
// watcher while the receive task may be using it through a copy. Expire many
// requests while another thread keeps looking them up and reading their extra
// data; under AddressSanitizer or ThreadSanitizer any use after free shows.
std::atomic<int> g_freed{0};

int free_extra_then_delete(void* p) {
    auto* info = static_cast<IEEE19051_Info_t*>(p);
    auto* m1 = static_cast<RequestExtraDataM1_t*>(info->extraData);
    std::memset(m1->wsctlv, 0xDD, sizeof m1->wsctlv);  // a write the reader would race with
    delete m1;
    info->extraData = nullptr;
    IEEE19051_DelRequestRecordByMid(info->mid);
    g_freed.fetch_add(1);
    return 0;
}

TEST_F(RequestList, ExtraDataIsNeverFreedUnderARunningResponseHandler) {
    constexpr int kRequests = 300;
    IEEE19051_InitList();
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0};
    std::thread receiver([&] {
        while (!stop.load()) {
            for (int mid = 0; mid < kRequests; ++mid) {
                kestr::RequestUseGuard use;
                IEEE19051_Info_t copy{};
                if (IEEE19051_GetRequestRecordInfoByMid(9, mid, &copy) != 0)
                    continue;
                auto* m1 = static_cast<RequestExtraDataM1_t*>(copy.extraData);
                unsigned sum = 0;
                for (uint8_t b : m1->wsctlv)
                    sum += b;  // reads the whole kept M1
                EXPECT_EQ(sum, 1492u * 0x11u);
                reads.fetch_add(1);
            }
        }
    });
    for (int mid = 0; mid < kRequests; ++mid) {
        auto* m1 = new RequestExtraDataM1_t{};
        std::memset(m1->wsctlv, 0x11, sizeof m1->wsctlv);
        auto r = request(mid, 9, 0);
        r.extraData = m1;
        r.extraDataType = RequestExtraDataType_M1;
        r.timeoutHandler = free_extra_then_delete;
        IEEE19051_AddRequestRecord(r);
        if (mid % 50 == 0)
            std::this_thread::sleep_for(300ms);  // spread over passes
    }
    for (int i = 0; i < 100 && g_freed.load() < kRequests; ++i)
        std::this_thread::sleep_for(100ms);
    stop = true;
    receiver.join();
    EXPECT_EQ(g_freed.load(), kRequests);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(IEEE19051_ListEmpty(), 1);
}

}  // namespace
