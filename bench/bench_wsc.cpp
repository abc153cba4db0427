// The cryptographic cost of one registration on each side, next to the
// least any implementation of the same exchange must spend: the group's
// modular exponentiations, done with the crypto library's raw DH calls.
//
//   registrar: answering one M1 (key pair, key derivation, plaintext,
//              encryption, M2 encoding and authenticator)
//              vs. one raw key generation + one shared-secret computation
//   enrollee:  opening one M2 (parse, key derivation, decryption, both
//              authenticators) vs. one raw shared-secret computation
//
// After the runs the ratios are printed; the target is 1.10x or less.
#define OPENSSL_SUPPRESS_DEPRECATED  // the floor uses the library's raw DH

#include <benchmark/benchmark.h>
#include <openssl/bn.h>
#include <openssl/dh.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "protocol/19051_parse_wsc.h"
#include "wsc/encrypt/encrypt.h"
#include "wsc/encrypt/wps_openssl.h"
#include "wsc/wsc.h"

namespace {

using Bytes = std::vector<uint8_t>;

template <typename Record>
void set(Record& r, const uint8_t* v, size_t n) {
    r.valid = 1;
    r.valid_len = static_cast<u_int16_t>(n);
    std::memcpy(r.val, v, n);
}

template <typename Record>
void set_text(Record& r, const char* s) {
    set(r, reinterpret_cast<const uint8_t*>(s), std::strlen(s));
}

// A complete M1 as an enrollee sends it, with its key pair.
struct Enrollee {
    DH* dh = nullptr;
    uint8_t mac[6] = {0x02, 0x00, 0x0a, 0x1b, 0x2c, 0x3d};
    Bytes m1;  // the WSC TLV

    Enrollee() {
        wsc_configuration_t c;
        std::memset(&c, 0, sizeof c);
        c.version = {1, 0x10};
        c.message_type = {1, MessageType_M1};
        uint8_t uuid[16], nonce[16], pub[192];
        linux_random(uuid, 16);
        linux_random(nonce, 16);
        generatePublicKey(pub, 192, &dh);
        set(c.UUIDE, uuid, 16);
        set(c.mac, mac, 6);
        set(c.enrollee_nonce, nonce, 16);
        set(c.public_key, pub, 192);
        set_text(c.manufacturer, "kestrel devices");
        set_text(c.model_name, "PLC-1200");
        set_text(c.model_number, "1200-AC");
        set_text(c.serial_number, "KD0012345678");
        const uint8_t device_type[8] = {0x00, 0x06, 0x00, 0x50, 0xf2, 0x04, 0x00, 0x01};
        set(c.primary_device_type, device_type, 8);
        set_text(c.device_name, "extender");
        c.rf_bands = {1, RFBands_5G};
        c.pwd_id = {1, DevicePasswordID_PushButton};
        const uint8_t os_version[4] = {0x80, 0x00, 0x00, 0x01};
        set(c.os_version, os_version, 4);
        m1.resize(1495);
        m1.resize(static_cast<size_t>(
            get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(m1.data()), 1492, &c)));
    }
    ~Enrollee() { reg_proto_delete_dhkeypair(&dh); }
};

// The registrar's whole cryptographic answer to one parsed M1; returns the
// M2 WSC TLV.
Bytes answer_m1(const wsc_configuration_t& m1, const Bytes& m1_tlv) {
    wsc_configuration_t m2;
    std::memset(&m2, 0, sizeof m2);
    m2.version = {1, 0x10};
    m2.message_type = {1, MessageType_M2};
    set(m2.enrollee_nonce, m1.enrollee_nonce.val, 16);
    uint8_t rnonce[16];
    linux_random(rnonce, 16);
    set(m2.registrar_nonce, rnonce, 16);

    DH* dh = nullptr;
    uint8_t pub[192] = {};
    generatePublicKey(pub, 192, &dh);
    set(m2.public_key, pub, 192);
    m2.rf_bands = {1, RFBands_5G};
    m2.pwd_id = {1, DevicePasswordID_PushButton};

    wps_keys_t keys;
    get_keys(const_cast<u_int8_t*>(m1.public_key.val), dh,
             const_cast<u_int8_t*>(m1.enrollee_nonce.val), rnonce,
             const_cast<u_int8_t*>(m1.mac.val), &keys);

    wsc_encrypted_settings_t settings;
    std::memset(&settings, 0, sizeof settings);
    set_text(settings.ssid, "kestrel-home-5G");
    settings.authentication_type = {1, 0x0022};
    settings.encryption_type = {1, 0x000C};
    set_text(settings.network_key, "correct horse battery staple");
    uint8_t plain[254] = {};
    const int plain_len = get_plain_by_settings(settings, plain, 254, keys.authKey);
    uint8_t cipher[1024];
    int cipher_len = 0;
    uint8_t* sealed = m2.encrypted_settings.val;
    reg_proto_encrypt_data(plain, plain_len, keys.keyWrapKey, keys.authKey, cipher, &cipher_len,
                           sealed);
    std::memcpy(sealed + 16, cipher, static_cast<size_t>(cipher_len));
    m2.encrypted_settings.valid = 1;
    m2.encrypted_settings.valid_len = static_cast<u_int16_t>(16 + cipher_len);
    reg_proto_delete_dhkeypair(&dh);

    uint8_t input[2984] = {};
    const size_t m1_len = m1_tlv.size() - 3;
    std::memcpy(input, m1_tlv.data() + 3, m1_len);
    Bytes out(1495);
    const int n = get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(out.data()), 1492, &m2);
    std::memcpy(input + m1_len, out.data() + 3, static_cast<size_t>(n - 3));
    uint8_t digest[32];
    hmac_sha256(keys.authKey, 32, input, m1_len + static_cast<size_t>(n - 3), digest, nullptr);
    set(m2.authenticator, digest, 8);
    out.resize(
        static_cast<size_t>(get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(out.data()), 1492, &m2)));
    return out;
}

wsc_configuration_t parse(Bytes tlv) {
    wsc_configuration_t c;
    std::memset(&c, 0, sizeof c);
    IEEE19051_ParseTlvWsc(reinterpret_cast<ieee1905TLV_t*>(tlv.data()), &c);
    return c;
}

// The group as a library DH object, for the floor.
kestr::DhKeyPair group_template() {
    kestr::DhKeyPair dh(DH_new());
    BIGNUM* g = BN_new();
    BN_set_word(g, 2);
    DH_set0_pqg(dh.get(), BN_get_rfc3526_prime_1536(nullptr), nullptr, g);
    return dh;
}

void BM_RegistrarFloor(benchmark::State& state) {
    const kestr::DhKeyPair group = group_template();
    Enrollee e;
    const BIGNUM* peer = nullptr;
    DH_get0_key(e.dh, &peer, nullptr);
    uint8_t secret[192];
    for (auto _ : state) {
        const kestr::DhKeyPair dh(DHparams_dup(group.get()));
        DH_generate_key(dh.get());
        benchmark::DoNotOptimize(DH_compute_key(secret, peer, dh.get()));
    }
}

void BM_RegistrarAnswersM1(benchmark::State& state) {
    Enrollee e;
    const wsc_configuration_t m1 = parse(e.m1);
    for (auto _ : state)
        benchmark::DoNotOptimize(answer_m1(m1, e.m1));
}

void BM_EnrolleeFloor(benchmark::State& state) {
    Enrollee e;
    DH* registrar = nullptr;
    uint8_t pub[192];
    generatePublicKey(pub, 192, &registrar);
    const BIGNUM* peer = nullptr;
    DH_get0_key(registrar, &peer, nullptr);
    uint8_t secret[192];
    for (auto _ : state)
        benchmark::DoNotOptimize(DH_compute_key(secret, peer, e.dh));
    reg_proto_delete_dhkeypair(&registrar);
}

void BM_EnrolleeOpensM2(benchmark::State& state) {
    Enrollee e;
    const Bytes m2 = answer_m1(parse(e.m1), e.m1);
    Bytes m1_attrs(e.m1.begin() + 3, e.m1.end());
    Bytes m2_attrs(m2.begin() + 3, m2.end());
    int failures = 0;
    for (auto _ : state) {
        wsc_configuration_t c = parse(m2);
        wsc_encrypted_settings_t s;
        std::memset(&s, 0, sizeof s);
        failures += IEEE19051_ParseTlvWscEncryptedSettings(
                        &c, e.dh, e.mac, &s, m1_attrs.data(), static_cast<int>(m1_attrs.size()),
                        m2_attrs.data(), static_cast<int>(m2_attrs.size())) != 0;
    }
    if (failures != 0)
        state.SkipWithError("an M2 did not open");
}

constexpr int kRepetitions = 7;
#define KESTR_BENCH(fn)                 \
    BENCHMARK(fn)                       \
        ->Unit(benchmark::kMicrosecond) \
        ->Repetitions(kRepetitions)     \
        ->ReportAggregatesOnly(true)
KESTR_BENCH(BM_RegistrarFloor);
KESTR_BENCH(BM_RegistrarAnswersM1);
KESTR_BENCH(BM_EnrolleeFloor);
KESTR_BENCH(BM_EnrolleeOpensM2);

// Shows the usual console output and keeps the median CPU time of each
// benchmark for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
                median_[r.run_name.function_name] = r.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double median(const std::string& name) const {
        const auto it = median_.find(name);
        return it == median_.end() ? 0 : it->second;
    }

  private:
    std::map<std::string, double> median_;
};

}  // namespace

int main(int argc, char** argv) {
    // Interleave the repetitions of the work and of its floor, so a change
    // in the machine's load affects both alike.
    std::vector<char*> args(argv, argv + argc);
    static char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    int n = static_cast<int>(args.size());
    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data()))
        return 1;

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const struct {
        const char* what;
        const char* work;
        const char* floor;
    } pairs[] = {
        {"registrar, one M1 answered", "BM_RegistrarAnswersM1", "BM_RegistrarFloor"},
        {"enrollee, one M2 opened", "BM_EnrolleeOpensM2", "BM_EnrolleeFloor"},
    };
    std::printf("\nratio to the raw DH floor (median CPU time, target <= 1.10x)\n");
    for (const auto& p : pairs) {
        const double work = reporter.median(p.work);
        const double floor = reporter.median(p.floor);
        if (work <= 0 || floor <= 0) {
            std::printf("  %-28s not measured\n", p.what);
            continue;
        }
        std::printf("  %-28s %8.1f us / %8.1f us = %.3fx\n", p.what, work, floor, work / floor);
    }
    return 0;
}
