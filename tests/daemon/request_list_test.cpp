// The pending-request list and its watcher: look-ups, expiry, and the
// lifetime of what an M1 request keeps while the receive task uses it.
#include "daemon/kestrd_request_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "daemon/kestrd_run.h"
#include "port/common/common.h"

namespace {

using namespace std::chrono_literals;

IEEE19051_Info_t request(int mid, int type, int timeout = 3, TIMEOUT_HANDLER on_expiry = nullptr) {
    IEEE19051_Info_t info{};
    info.mid = mid;
    info.msgType = type;
    info.timeout = timeout;
    info.sendAbsTime = getSysRunningTime();
    info.timeoutHandler = on_expiry;
    return info;
}

struct ether_addr mac(uint8_t last) {
    struct ether_addr a {};
    a.ether_addr_octet[5] = last;
    return a;
}

std::vector<int> pending() {
    std::vector<int> mids;
    for (auto* r = IEEE19051_GetFirstRequestRecord(); r; r = IEEE19051_GetNextRequestRecord(r))
        mids.push_back(r->info.mid);
    return mids;
}

class RequestList : public ::testing::Test {
  protected:
    void TearDown() override {
        while (auto* r = IEEE19051_GetFirstRequestRecord())
            IEEE19051_DelRequestRecord(r);
        IEEE19051_UninitList();
    }
};

TEST_F(RequestList, LookupsAndDeletesActOnTheOldestMatch) {
    uint8_t right[16], wrong[16];
    auto extra = std::make_unique<RequestExtraDataM1_t>();
    for (int i = 0; i < 16; ++i)
        right[i] = wrong[i] = extra->enrollee_nonce[i] = static_cast<uint8_t>(i + 1);
    wrong[15] ^= 1;  // the last byte counts too
    IEEE19051_AddRequestRecord(request(5, 7));
    auto m1 = request(5, 9);  // same identifier, newer, other type
    m1.destMac = mac(1);
    ASSERT_TRUE(kestr::add_request(m1, std::move(extra)));
    auto bare = request(6, 9);
    bare.destMac = mac(2);
    IEEE19051_AddRequestRecord(bare);

    IEEE19051_Info_t got{};
    ASSERT_EQ(IEEE19051_GetRequestRecordInfoByMid(9, 5, &got), 0);  // type takes no part
    EXPECT_EQ(got.msgType, 7);
    EXPECT_EQ(IEEE19051_GetRequestRecordInfoByMid(7, 1, &got), -1);
    // By nonce: {nonce, type, peer, identifier found or -1}; the last row is
    // the peer of a request without extra data.
    const std::tuple<uint8_t*, int, struct ether_addr, int> cases[] = {{right, 9, mac(1), 5},
                                                                       {wrong, 9, mac(1), -1},
                                                                       {right, 9, mac(3), -1},
                                                                       {right, 7, mac(1), -1},
                                                                       {right, 9, mac(2), -1}};
    for (const auto& [nonce, type, peer, mid] : cases) {
        got = {};
        const int rc = IEEE19051_GetRequestRecordInfoByEnrolleeNonce(nonce, type, peer, &got);
        EXPECT_EQ(rc == 0 ? got.mid : -1, mid) << type << " " << int(peer.ether_addr_octet[5]);
    }
    ASSERT_EQ(IEEE19051_GetRequestRecordInfoByDestmac(9, mac(2), &got), 0);
    EXPECT_EQ(got.mid, 6);

    IEEE19051_DelRequestRecordByMid(5);  // the older of the two only
    EXPECT_EQ(pending(), (std::vector<int>{5, 6}));
    // Releasing an M1 request's extra data leaves the request, without it.
    IEEE19051_Info_t copy{};
    IEEE19051_GetRequestRecordInfoByMid(9, 5, &copy);
    releaseRequestRecord(&copy);
    EXPECT_EQ(copy.extraData, nullptr);
    EXPECT_EQ(IEEE19051_GetRequestRecordInfoByEnrolleeNonce(right, 9, mac(1), &got), -1);
}

std::mutex g_lock;
std::vector<int> g_seen;

int note(void* p) {
    std::lock_guard<std::mutex> g(g_lock);
    g_seen.push_back(static_cast<IEEE19051_Info_t*>(p)->mid);
    return 0;
}
int note_and_delete(void* p) {
    note(p);
    IEEE19051_DelRequestRecordByMid(static_cast<IEEE19051_Info_t*>(p)->mid);
    return 0;
}
std::vector<int> seen() {
    std::lock_guard<std::mutex> g(g_lock);
    return g_seen;
}

// Lifetime 0 expires on the next pass, 3 s between two and four seconds
// (whole-second stamps, one-second passes). A handler may delete its own
// record; the walk goes on past it in the same pass. A request that stays
// is offered again on every pass; one without a handler stays for good.
TEST_F(RequestList, WatcherExpiresRequestsPassByPass) {
    IEEE19051_InitList();
    for (int mid : {1, 2, 3})
        IEEE19051_AddRequestRecord(request(mid, 7, 0, note_and_delete));
    IEEE19051_AddRequestRecord(request(4, 7, 0, note));
    IEEE19051_AddRequestRecord(request(5, 7, 0));
    IEEE19051_AddRequestRecord(request(6, 9, 3, note_and_delete));
    IEEE19051_InitList();  // a second init changes nothing
    std::this_thread::sleep_for(1500ms);
    auto s = seen();
    ASSERT_GE(s.size(), 4u);
    EXPECT_EQ(std::vector<int>(s.begin(), s.begin() + 4), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(std::count(s.begin(), s.end(), 6), 0);
    std::this_thread::sleep_for(3000ms);
    s = seen();
    EXPECT_GE(std::count(s.begin(), s.end(), 4), 3);
    EXPECT_EQ(std::count(s.begin(), s.end(), 6), 1);
    EXPECT_EQ(pending(), (std::vector<int>{4, 5}));
    IEEE19051_UninitList();
    const size_t after_stop = seen().size();
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(seen().size(), after_stop);  // a stopped watcher calls no handler
    IEEE19051_InitList();
    EXPECT_TRUE(pending().empty());  // the stop freed what was left
}

// What an M1 request keeps is freed by its expiry on the watcher while the
// receive task may be reading it through a copy. Many requests expire while
// another thread keeps looking them up and reading their kept M1 as the
// receive task does; ThreadSanitizer and AddressSanitizer see any use after
// free.
std::atomic<int> g_expired{0};

int release_and_delete(void* p) {
    auto* info = static_cast<IEEE19051_Info_t*>(p);
    releaseRequestRecord(info);
    IEEE19051_DelRequestRecordByMid(info->mid);
    g_expired.fetch_add(1);
    return 0;
}

TEST_F(RequestList, KeptDataIsNeverFreedUnderARunningResponseHandler) {
    constexpr int kRequests = 300;
    IEEE19051_InitList();
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0};
    std::thread receiver([&] {
        while (!stop.load()) {
            for (int mid = 0; mid < kRequests; ++mid) {
                kestr::RequestUseGuard use;
                IEEE19051_Info_t copy{};
                if (IEEE19051_GetRequestRecordInfoByMid(9, mid, &copy) != 0 || !copy.extraData)
                    continue;
                const auto* m1 = static_cast<const RequestExtraDataM1_t*>(copy.extraData);
                unsigned sum = 0;
                for (uint8_t b : m1->wsctlv)
                    sum += b;
                EXPECT_EQ(sum, 1492u * 0x11u);
                reads.fetch_add(1);
            }
        }
    });
    for (int mid = 0; mid < kRequests; ++mid) {
        auto m1 = std::make_unique<RequestExtraDataM1_t>();
        std::memset(m1->wsctlv, 0x11, sizeof m1->wsctlv);
        ASSERT_TRUE(kestr::add_request(request(mid, 9, 0, release_and_delete), std::move(m1)));
        if (mid % 50 == 0)
            std::this_thread::sleep_for(300ms);  // spread over passes
    }
    for (int i = 0; i < 100 && g_expired.load() < kRequests; ++i)
        std::this_thread::sleep_for(100ms);
    stop = true;
    receiver.join();
    EXPECT_EQ(g_expired.load(), kRequests);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(IEEE19051_ListEmpty(), 1);
}

}  // namespace
