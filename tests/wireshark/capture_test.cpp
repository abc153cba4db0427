// What our builders put on the link, as Wireshark's IEEE 1905.1 and WPS
// dissectors read it. The test sends a discovery and registration exchange
// from br0 with the project's own senders, tcpdump captures it on the far
// end of the bridge (veth1), and the checker the end-to-end tests use
// (tests/e2e/wireshark_check.sh) decodes the capture with tshark. The same
// checker must refuse captures with faults our decoders would also reject.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "daemon/kestrd_apclone.h"
#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "daemon/kestrd_run.h"
#include "port/util.h"
#include "protocol/19051_msg.h"
#include "protocol/19051_parse_wsc.h"
#include "protocol/19051_protocol.h"
#include "tests/support/bytes.h"
#include "tests/support/netns.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/wsc.h"

extern char** environ;

namespace {

using kestr::test::cat;
using kestr::test::hex;
using kestr::test::PeerPort;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

bool have(const char* program) {
    return kestr::test::run_shell(std::string("command -v ") + program + " >/dev/null") == 0;
}

// Frames in a pcap file so far; the file is written by another process, so
// a record cut off at the end is not counted.
int pcap_frames(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const Bytes b((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (b.size() < 24)
        return -1;
    // The file is in the writer's byte order; its magic tells which.
    const bool big = b[0] == 0xA1 && b[1] == 0xB2;
    auto u32 = [&](size_t at) {
        return big ? uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 |
                         b[at + 3]
                   : uint32_t(b[at + 3]) << 24 | uint32_t(b[at + 2]) << 16 |
                         uint32_t(b[at + 1]) << 8 | b[at];
    };
    int n = 0;
    for (size_t at = 24; at + 16 <= b.size(); ++n) {
        const size_t next = at + 16 + u32(at + 8);
        if (next > b.size())
            break;
        at = next;
    }
    return n;
}

// tcpdump on veth1, writing 1905.1 frames to `path` until stop().
class Capture {
  public:
    explicit Capture(std::string path) : path_(std::move(path)) {
        std::vector<std::string> args = {
            "tcpdump", "-i", "veth1", "-U", "-s", "0", "-w", path_, "ether proto 0x893a"};
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t quiet;
        posix_spawn_file_actions_init(&quiet);
        posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
        if (posix_spawnp(&pid_, "tcpdump", &quiet, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&quiet);
        // tcpdump writes the file header only once its filter is in place.
        for (int i = 0; i < 300 && pid_ > 0 && pcap_frames(path_) < 0; ++i)
            std::this_thread::sleep_for(10ms);
    }
    ~Capture() { stop(0); }
    bool running() const { return pid_ > 0 && pcap_frames(path_) >= 0; }

    // Waits (a few seconds at most) until `frames` frames are in the file,
    // then ends tcpdump. The frames counted so far.
    int stop(int frames) {
        for (int i = 0; i < 300 && pid_ > 0 && pcap_frames(path_) < frames; ++i)
            std::this_thread::sleep_for(10ms);
        if (pid_ > 0) {
            kill(pid_, SIGINT);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        return pcap_frames(path_);
    }

  private:
    std::string path_;
    pid_t pid_ = -1;
};

struct Checked {
    int status = -1;
    std::string out;
};

// The checker, as the end-to-end tests run it.
Checked check(const std::string& pcap, const std::string& expected) {
    const std::string command =
        std::string("bash ") + KESTR_WIRESHARK_CHECK + " " + pcap + " " + expected + " 2>&1";
    Checked c;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr)
        return c;
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, p)) > 0)
        c.out.append(chunk, n);
    const int status = pclose(p);
    c.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return c;
}

Bytes encode(wsc_configuration_t c) {
    Bytes tlv(1495);
    const int n = IEEE19051_GetWscTlv(&c, tlv.data(), static_cast<int>(tlv.size()));
    tlv.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return tlv;
}

// An M1 and the M2 that answers it, made by the two roles' own code (fresh
// key pairs, sealed settings, both authenticators). The enrollee opens the
// M2, so the capture carries a real exchange.
struct Registration {
    Bytes m1, m2;  // whole WSC TLVs

    explicit Registration(int band) {
        kestr::test::capture_output([&] {
            getWscConfigurationM1(&enrollee_m1_, band, &enrollee_);
            m1 = encode(enrollee_m1_);
            wsc_configuration_t r{};
            getWscConfigurationM2(&r, enrollee_m1_, band, m1.data() + 3,
                                  static_cast<int>(m1.size()) - 3);
            m2 = encode(r);
        });
    }
    ~Registration() { reg_proto_delete_dhkeypair(&enrollee_); }

    // The enrollee's verdict on the M2: 0 when it opens.
    int open() {
        wsc_configuration_t got{};
        IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(m2.data()), &got);
        wsc_encrypted_settings_t settings{};
        return IEEE19051_ParseTlvWscEncryptedSettings(
            &got, enrollee_, enrollee_m1_.mac.val, &settings, m1.data() + 3,
            static_cast<int>(m1.size()) - 3, m2.data() + 3, static_cast<int>(m2.size()) - 3);
    }

  private:
    wsc_configuration_t enrollee_m1_{};
    DH* enrollee_ = nullptr;
};

std::string mac_text(const Bytes& b) {
    const struct ether_addr a = kestr::test::mac(b);
    char t[kMacTextSize];
    mac_etheraddr_to_str(&a, t, sizeof t);
    return t;
}

struct Link {
    PeerPort peer;
    Bytes br0 = kestr::test::interface_mac("br0");
    std::string peer_text = mac_text(peer.mac());
};

// A directory of the test's own for its captures; "" if none could be made.
std::string scratch_dir() {
    char dir[] = "/tmp/kestr-wireshark-XXXXXX";
    return mkdtemp(dir) != nullptr ? dir : "";
}

class Wireshark : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!have("tshark") || !have("tcpdump"))
            GTEST_SKIP() << "tshark and tcpdump are needed (scripts/install-deps)";
        KESTR_ENTER_NAMESPACES();
        dir_ = scratch_dir();
        ASSERT_NE(dir_, "");
    }
    void TearDown() override {
        if (!dir_.empty() && !HasFailure())
            kestr::test::run_shell("rm -rf " + dir_);
        else if (!dir_.empty())
            std::printf("captures kept in %s\n", dir_.c_str());
    }
    std::string pcap(const std::string& name) { return dir_ + "/" + name + ".pcap"; }

    std::string dir_;
};

TEST_F(Wireshark, DiscoveryAndRegistrationDecodeCleanly) {
    Link link;
    ASSERT_TRUE(link.peer.ok());
    // Both bands, with the identifiers of a long-running device (above
    // 0x7fff, so a sign error in the header would show).
    const std::string file = pcap("exchange");
    {
        Capture capture(file);
        ASSERT_TRUE(capture.running());
        int mid = 0x8a10;
        for (int band : {0, 1}) {
            Registration reg(band);
            ASSERT_EQ(reg.open(), 0) << "the M2 we send must open for the enrollee";
            ASSERT_EQ(IEEE19051_SendMsgApAutoconfigurationSearch(
                          "br0", mid, {0, static_cast<uint8_t>(band), kestr::test::mac(link.br0)}),
                      0);
            ASSERT_EQ(IEEE19051_SendMsgApAutoconfigurationResponse(
                          link.peer_text.c_str(), "br0", mid, {0, static_cast<uint8_t>(band)}),
                      0);
            ASSERT_EQ(IEEE19051_SendMsgApAutoconfigurationWsc2(
                          link.peer_text.c_str(), "br0", mid + 1,
                          reinterpret_cast<ieee1905TLV_t*>(reg.m1.data())),
                      0);
            ASSERT_EQ(IEEE19051_SendMsgApAutoconfigurationWsc2(
                          link.peer_text.c_str(), "br0", mid + 2,
                          reinterpret_cast<ieee1905TLV_t*>(reg.m2.data())),
                      0);
            mid += 3;
        }
        ASSERT_EQ(capture.stop(8), 8);
    }
    const Checked c = check(file, "search response m1 m2 search response m1 m2");
    EXPECT_EQ(c.status, 0) << c.out;
    // Without an expected sequence every frame still has to be one of ours.
    const Checked any = check(file, "");
    EXPECT_EQ(any.status, 0) << any.out;
}

// Each case puts frames on the link that are wrong in one way; the checker
// must fail (status 1) and say what it found.
TEST_F(Wireshark, CheckerRefusesFaultyFrames) {
    Link link;
    ASSERT_TRUE(link.peer.ok());
    const Bytes head = cat({hex("01 80 c2 00 00 13"), link.peer.mac(), hex("89 3a")});
    auto raw = [&](const Bytes& cmdu) {
        return [&link, frame = cat({head, cmdu})] {
            Bytes padded = frame;
            padded.resize(std::max<size_t>(padded.size(), 60), 0);
            return link.peer.send(padded) ? 0 : -1;
        };
    };
    auto wsc = [&](std::function<void(Bytes&)> edit) {
        return [&link, edit] {
            Registration reg(0);
            Bytes tlv = reg.m1;
            edit(tlv);
            return IEEE19051_SendMsgApAutoconfigurationWsc2(
                link.peer_text.c_str(), "br0", 0x0101,
                reinterpret_cast<ieee1905TLV_t*>(tlv.data()));
        };
    };
    // Attribute `n` (0-based) of a WSC TLV: its offset.
    auto attr_at = [](const Bytes& tlv, int n) {
        size_t at = 3;
        for (int i = 0; i < n; ++i)
            at += 4 + (size_t(tlv[at + 2]) << 8 | tlv[at + 3]);
        return at;
    };
    auto swap_attrs = [attr_at](int a) {  // attribute a and a + 1 change places
        return [attr_at, a](Bytes& tlv) {
            const size_t x = attr_at(tlv, a), y = attr_at(tlv, a + 1), z = attr_at(tlv, a + 2);
            Bytes swapped(tlv.begin() + y, tlv.begin() + z);
            swapped.insert(swapped.end(), tlv.begin() + x, tlv.begin() + y);
            std::copy(swapped.begin(), swapped.end(), tlv.begin() + x);
        };
    };
    const Bytes al_mac = hex("01 00 06 02 00 00 00 00 0b");
    const struct Case {
        const char* what;
        std::vector<std::function<int()>> send;
        const char* expected;
        const char* says;
    } cases[] = {
        {"a TLV length that runs past the frame",
         {raw(cat({hex("00 00 00 07 01 00 00 80"), hex("01 04 00 02 00 00 00 00 0b")}))},
         "search",
         "Malformed"},
        {"a Search without its frequency band",
         {raw(cat({hex("00 00 00 07 01 00 00 80"), al_mac, hex("0d 00 01 00  00 00 00")}))},
         "search",
         "frame 1 (search): TLVs"},
        {"M1 with Manufacturer and Model Name swapped",
         {wsc(swap_attrs(11))},
         "m1",
         "frame 1 (m1): WSC attributes"},
        {"a WSC attribute longer than the TLV that holds it",
         {wsc([attr_at](Bytes& tlv) { tlv[attr_at(tlv, 22) + 3] += 40; })},
         "m1",
         "frame 1 (m1): Malformed"},
        {"a Response where a Search was expected",
         {raw(hex("00 00 00 08 01 00 00 80  0f 00 01 00  10 00 01 00  00 00 00"))},
         "search",
         "frame 1: a response, expected a search"},
        {"one frame more than expected",
         {raw(cat(
              {hex("00 00 00 07 01 00 00 80"), al_mac, hex("0d 00 01 00 0e 00 01 00 00 00 00")})),
          raw(cat(
              {hex("00 00 00 07 01 01 00 80"), al_mac, hex("0d 00 01 00 0e 00 01 00 00 00 00")}))},
         "search",
         "2 frames, expected 1"},
    };
    int n = 0;
    for (const Case& c : cases) {
        const std::string file = pcap("fault" + std::to_string(++n));
        {
            Capture capture(file);
            ASSERT_TRUE(capture.running()) << c.what;
            for (const auto& send : c.send)
                ASSERT_EQ(send(), 0) << c.what;
            ASSERT_EQ(capture.stop(static_cast<int>(c.send.size())),
                      static_cast<int>(c.send.size()))
                << c.what;
        }
        const Checked got = check(file, c.expected);
        EXPECT_EQ(got.status, 1) << c.what << "\n" << got.out;
        EXPECT_NE(got.out.find(c.says), std::string::npos) << c.what << "\n" << got.out;
    }
}

}  // namespace
