#include <gtest/gtest.h>

#include <thread>

#include "daemon/kestrd_msg_process.h"
#include "daemon/kestrd_run.h"
#include "protocol/19051_msg.h"
#include "tests/support/capture.h"
#include "tests/support/netns.h"

// The kernel keeps out exactly the CMDUs that were dropped without a word;
// those the read refuses with a line (version 1, 24 bytes), and those of the
// handled types, still reach it, in order.
TEST(Receive, OnlyFramesNoHandlerTakesStayInTheKernel) {
    KESTR_ENTER_NAMESPACES();
    kestr::open_receive_socket();
    kestr::test::PeerPort peer;
    // Version, type, length, whether it reaches the read; the row is the identifier.
    const int cases[][4] = {{0, 0, 60, 0},      {0, 6, 60, 0},  {0, 7, 25, 1},  {0, 8, 60, 1},
                            {0, 9, 1514, 1},    {0, 10, 60, 1}, {0, 11, 60, 0}, {0, 0x109, 60, 0},
                            {0, 0xFFFF, 25, 0}, {1, 3, 60, 1},  {0, 3, 24, 1}};
    std::vector<int> expected, arrived;
    for (int mid = 0; mid < static_cast<int>(std::size(cases)); ++mid) {
        const auto& c = cases[mid];
        std::vector<uint8_t> f = kestr::test::interface_mac("br0"), from = peer.mac();
        f.insert(f.end(), from.begin(), from.end());
        for (int b : {0x89, 0x3A, c[0], 0, c[1] >> 8, c[1] & 0xFF, 0, mid, 0, 0x80})
            f.push_back(static_cast<uint8_t>(b));
        f.resize(static_cast<size_t>(c[2]));
        ASSERT_TRUE(peer.send(f));
        if (c[3] == 1)
            expected.push_back(mid);
    }
    for (kestr::test::Captured out;;) {
        uint8_t buf[kCmduMaxFrameLen] = {};
        int n = 0;
        out = kestr::test::capture_output([&] { n = IEEE19051_RecvMsg("br0", buf, 1514, 1); });
        if (n < 0 && out.err.empty())
            break;  // nothing more within the time-out
        arrived.push_back(IEEE19051_GetMid(buf));
    }
    EXPECT_EQ(arrived, expected);
}

// The outcome, decided on the watcher, wakes the main thread's wait, and a
// stop wakes the reader's wait for a frame, even one asked for before the
// reader waits. Both waits are an hour long: only a wake-up ends them.
TEST(Receive, EndOfRunWakesTheWaits) {
    KESTR_ENTER_NAMESPACES();
    kestr::open_receive_socket();
    kestr::wake_receive();
    std::thread reader([] {
        uint8_t buf[kCmduMaxFrameLen];
        EXPECT_EQ(IEEE19051_RecvMsg("br0", buf, sizeof buf, 3600), -1);
    });
    IEEE19051_InitList();
    IEEE19051_Info_t m1{};  // sent at time 0, lifetime 0: expires on the next pass
    m1.msgType = IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC;
    m1.timeoutHandler = requestTimeout;
    IEEE19051_AddRequestRecord(m1);
    EXPECT_TRUE(kestr::run_state.wait_for_end(std::chrono::hours(1)));  // "exit:send m1 time out"
    IEEE19051_UninitList();
    reader.join();
    IEEE19051_MsgUninit();
}
