// What the fuzz targets share: the namespaces each makes for itself before
// anything else, the seeds each writes from the product's own builders, the
// check that turns a broken expectation into a crash libFuzzer keeps, and
// one registration whose enrollee has a fixed key pair and nonce.
#pragma once

#include <linux/capability.h>
#include <openssl/dh.h>
#include <openssl/obj_mac.h>
#include <sanitizer/common_interface_defs.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "protocol/19051_msg.h"

// The summary reaches libFuzzer's log even when the code under test has no
// stderr; the abort makes libFuzzer keep the input.
#define KESTR_FUZZ_CHECK(c) \
    ((c) ? void() : (__sanitizer_report_error_summary("expectation failed: " #c), std::abort()))

// A target's LLVMFuzzerInitialize: kestr::fuzz::start with its seeds and
// what to make ready first.
#define KESTR_FUZZ_START(...)                                      \
    extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) { \
        kestr::fuzz::start(*argc, *argv, __VA_ARGS__);             \
        return 0;                                                  \
    }

namespace kestr::fuzz {

using Bytes = std::vector<uint8_t>;
using Seeds = std::vector<std::pair<std::string, Bytes>>;

// Moves the process into fresh network, IPC and mount namespaces (only a
// loopback, a private message-identifier counter, an empty "/var/run"
// without the machine's database socket, no system log) and gives up
// CAP_NET_RAW, so every send of the code under test fails at its first
// step. Then runs `ready`, and writes the seeds into the corpus directory
// (the first one named) when that is empty.
inline void start(int argc, char** argv, Seeds (*seeds)(), void (*ready)()) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct caps[2] = {};
    const bool alone =
        unshare(CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWNS) == 0 &&
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("tmpfs", "/var/run", "tmpfs", 0, "size=16m") == 0 &&
        (access("/dev/log", F_OK) != 0 || mount("/dev/null", "/dev/log", 0, MS_BIND, 0) == 0) &&
        syscall(SYS_capget, &header, caps) == 0;
    caps[0].effective &= ~(1u << CAP_NET_RAW);  // in the first word of the sets
    caps[0].permitted &= ~(1u << CAP_NET_RAW);
    if (!alone || syscall(SYS_capset, &header, caps) != 0) {
        std::perror("fuzz: namespaces of its own (needs root)");
        std::exit(2);
    }
    ready();
    char** dir = std::find_if(argv + 1, argv + argc, [](const char* a) { return *a != '-'; });
    std::error_code none;
    for (const auto& [name, bytes] :
         dir < argv + argc && std::filesystem::is_empty(*dir, none) ? seeds() : Seeds())
        std::ofstream(std::string(*dir) + "/" + name) << std::string(bytes.begin(), bytes.end());
}

// A WSC message's TLV as the encoder writes it.
inline Bytes wsc_tlv(wsc_configuration_t m) {
    Bytes tlv(4096);
    tlv.resize(size_t(std::max(0, IEEE19051_GetWscTlv(&m, tlv.data(), int(tlv.size())))));
    return tlv;
}

// The enrollee's own M1, pinned to a key pair and nonce that are the same in
// every process (so that kept M2s go on opening); the registrar's own M2
// answering it; and the keys that both derive.
struct Registration {
    DhKeyPair enrollee{DH_new_by_nid(NID_modp_1536)};
    wsc_configuration_t m1{}, m2{};
    Bytes m1_tlv;  // the M1's WSC TLV as sent
    wps_keys_t keys{};

    Registration() {
        const uint8_t x[] = "kestrd fuzzing enrollee";  // the private key
        KESTR_FUZZ_CHECK(DH_set0_key(enrollee.get(), nullptr, BN_bin2bn(x, sizeof x, nullptr)) &&
                         DH_generate_key(enrollee.get()));
        getWscConfigurationM1(&m1, Band::g2p4());
        std::fill_n(m1.enrollee_nonce.val, kWscNonceLen, 0x4b);
        reg_proto_BN_bn2bin(DH_get0_pub_key(enrollee.get()), m1.public_key.val);
        m1_tlv = wsc_tlv(m1);
        KESTR_FUZZ_CHECK(getWscConfigurationM2(&m2, m1, Band::g2p4(),
                                               ByteReader(&m1_tlv[3], m1_tlv.size() - 3)) == 0 &&
                         get_keys(m2.public_key.val, enrollee.get(), m1.enrollee_nonce.val,
                                  m2.registrar_nonce.val, m1.mac.val, &keys) == 0);
    }
};
inline Registration& registration() {
    static Registration r;
    return r;
}

// The frames of a registration as the product's builders make them, sent by
// the registrar 2:0:0:0:0:a: a Search and a Response for 2.4 GHz (with the
// identifier 1), the M1 and the M2, and a topology response.
inline Seeds frames() {
    Seeds seeds;
    auto add = [&](const char* name, int mid, auto build, auto... args) {
        ieee1905Message_t packet{};
        const int n = build(&packet, param_t{{}, {{2, 0, 0, 0, 0, 0x0a}}, 0, mid}, args...);
        const auto* raw = reinterpret_cast<const uint8_t*>(&packet);
        seeds.emplace_back(name, Bytes(raw, raw + std::clamp(n, 0, kCmduMaxFrameLen)));
    };
    add("search", 1, IEEE19051_GetPacketApAutoconfigurationSearch, ap_autoconfig_search_param_t{});
    add("response", 1, IEEE19051_GetPacketApAutoconfigurationResponse,
        ap_autoconfig_response_param_t());
    add("m1", 3, IEEE19051_GetPacketApAutoconfigurationWsc, &registration().m1);
    add("m2", 4, IEEE19051_GetPacketApAutoconfigurationWsc, &registration().m2);
    add("topology", 5, IEEE19051_GetPacketTopologyResponse, device_information_t{1, {}},
        ieee1905BridgingCapability_t{1, {{1, {}}}}, neighborDeviceList{1, {}});
    return seeds;
}

}  // namespace kestr::fuzz
