#include "protocol/19051_msg.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "port/common/bytes.h"
#include "port/common/common.h"
#include "port/common/report.h"
#include "port/common/unique_fd.h"
#include "port/util.h"
#include "protocol/19051_view.h"

namespace {

// The receive socket. Written only by MsgInit/MsgUninit on the main thread,
// before the receive task starts and after it has been joined.
int sock = -1;

// The receive task runs key agreements inline (tens of milliseconds here,
// far longer on a small CPU), and frames that arrive meanwhile wait in the
// socket. The system default holds under a hundred frames, a few dozen
// milliseconds of a busy link, after which the kernel drops whatever comes,
// the M2 a run waits for included. This holds several hundred full frames.
constexpr int kReceiveBufferBytes = 1 << 20;

// An interface request naming `name`, cut to IFNAMSIZ - 1 characters.
void name_request(struct ifreq* ifr, const char* name) {
    std::memset(ifr, 0, sizeof *ifr);
    std::strncpy(ifr->ifr_name, name, IFNAMSIZ - 1);
}

// The interface part of the addressing record: the sending interface's own
// address and index.
int fill_interface(param_t* pparam, int sockfd, const char* tx_interface) {
    struct ifreq ifr;
    name_request(&ifr, tx_interface);
    if (ioctl(sockfd, SIOCGIFHWADDR, &ifr) < 0) {
        std::puts("Error running ioctl/SIOCGIFHWADDR");
        return -1;
    }
    std::memcpy(pparam->sa.ether_addr_octet, ifr.ifr_hwaddr.sa_data, ETH_ALEN);

    name_request(&ifr, tx_interface);
    if (ioctl(sockfd, SIOCGIFINDEX, &ifr) < 0) {
        std::puts("Error running ioctl/SIOCGIFINDEX");
        return -1;
    }
    pparam->tx_idx = ifr.ifr_ifindex;
    return 0;
}

}  // namespace

void IEEE19051_MsgInit(char* interface) {
    sock = IEEE19051_RecvSockCreate(interface, kIeee1905EtherType);
}

void IEEE19051_MsgUninit() {
    if (sock != -1) {
        close(sock);
        sock = -1;
    }
}

int32_t IEEE19051_RecvSockCreate(const char* ifName, uint16_t etherType) {
    static const char* const fn = "IEEE19051_RecvSockCreate";
    struct sockaddr_ll addr {};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(etherType);
    addr.sll_ifindex = 0;
    addr.sll_hatype = ARPHRD_ETHER;
    addr.sll_pkttype = PACKET_OTHERHOST;
    addr.sll_halen = ETH_ALEN;

    if (ifName == nullptr || *ifName == '\0') {
        std::fprintf(stderr, "%s: Empty interface name\n", fn);
        return -1;
    }
    kestr::UniqueFd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(etherType)));
    if (!fd.valid()) {
        std::fprintf(stderr, "%s: socket(): %s, try running with sudo.\n", fn, strerror(errno));
        return -1;
    }
    // Beyond the system's cap where the daemon may (it runs as root), within
    // it otherwise; a smaller queue still works, so neither is an error.
    if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBufferBytes,
                   sizeof kReceiveBufferBytes) != 0) {
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes,
                   sizeof kReceiveBufferBytes);
    }

    struct ifreq ifr;
    name_request(&ifr, ifName);
    if (ioctl(fd.get(), SIOCGIFINDEX, &ifr) < 0) {
        std::fprintf(stderr, "%s: ioctl index: %s\n", fn, strerror(errno));
        return -1;
    }
    addr.sll_ifindex = ifr.ifr_ifindex;
    if (ioctl(fd.get(), SIOCGIFHWADDR, &ifr) < 0) {
        std::fprintf(stderr, "%s: ioctl hwaddr: %s\n", fn, strerror(errno));
        return -1;
    }
    static_assert(sizeof addr.sll_addr == 8, "link-layer address field is 8 bytes");
    std::memcpy(addr.sll_addr, ifr.ifr_hwaddr.sa_data, sizeof addr.sll_addr);
    if (bind(fd.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) < 0) {
        std::fprintf(stderr, "%s: bind:%s\n", fn, strerror(errno));
        return -1;
    }
    if (ioctl(fd.get(), SIOCGIFFLAGS, &ifr) < 0) {
        std::fprintf(stderr, "%s: ioctl get flags:%s\n", fn, strerror(errno));
        return -1;
    }
    // Bring the interface up; promiscuous and all-multicast modes stay as
    // they are.
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_BROADCAST | IFF_MULTICAST);
    if (ioctl(fd.get(), SIOCSIFFLAGS, &ifr) < 0) {
        std::fprintf(stderr, "%s: ioctl set flags:%s\n", fn, strerror(errno));
        return -1;
    }
    return fd.release();
}

int IEEE19051_RecvMsg(const char* /*ifName*/, uint8_t* buf, int buf_len, unsigned int timeout_sec) {
    static const char* const fn = "IEEE19051_RecvMsg";
    if (sock < 0)
        return -1;
    if (buf == nullptr || buf_len <= 0)
        return -1;
    if (read_timeout(sock, timeout_sec) != 0)
        return -1;

    const ssize_t n = read(sock, buf, static_cast<size_t>(buf_len));
    if (n < 0) {
        std::fprintf(stderr, "Read response failure: %s\n", strerror(errno));
        return -1;
    }
    // A frame too short to hold an EtherType is refused on its length alone,
    // so no byte beyond what was read is ever examined.
    const kestr::FrameView frame(buf, static_cast<size_t>(n));
    if (n >= kEtherHeaderLen) {
        const uint16_t type = frame.ether_type();
        if (type != kIeee1905EtherType) {
            std::fprintf(stderr,
                         "%s: Not an IEEE1905.1 EtherType (received 0x%04X, expected 0x%04X)", fn,
                         type, kIeee1905EtherType);
            return -1;
        }
    }
    if (n < kCmduMinFrameLen) {
        std::fprintf(stderr, "%s: Bad length of the frame: %d\n", fn, static_cast<int>(n));
        return -1;
    }
    if (frame.version() != 0) {
        std::fprintf(stderr, "%s: Unsupported version: %d\n", fn, frame.version());
        return -1;
    }
    return static_cast<int>(n);
}

int fillParam(param_t* pparam, int sockfd, const char* da_str, const char* tx_interface,
              const int mid) {
    if (pparam == nullptr)
        return -1;
    pparam->mid = mid;
    mac_str_to_etheraddr(da_str, &pparam->da);
    if (tx_interface == nullptr)
        return 0;
    return fill_interface(pparam, sockfd, tx_interface);
}

int sendPacket(int sockfd, struct ether_addr sa, const void* packet, const int num_bytes,
               const int tx_idx) {
    if (packet == nullptr || num_bytes <= 0)
        return -1;

    struct sockaddr_ll to {};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(kIeee1905EtherType);
    to.sll_ifindex = tx_idx;
    to.sll_halen = ETH_ALEN;
    std::memcpy(to.sll_addr, sa.ether_addr_octet, ETH_ALEN);

    // Short frames are padded here, in a buffer of our own, so the caller's
    // buffer is never read past the length it gave.
    uint8_t padded[kMinEtherFrameLen] = {};
    const void* out = packet;
    size_t len = static_cast<size_t>(num_bytes);
    if (num_bytes < kMinEtherFrameLen) {
        std::memcpy(padded, packet, static_cast<size_t>(num_bytes));
        out = padded;
        len = sizeof padded;
    }
    if (sendto(sockfd, out, len, 0, reinterpret_cast<const struct sockaddr*>(&to), sizeof to) < 0) {
        std::fprintf(stderr, "Error running sendto()\n");
        return -1;
    }
    return 0;
}

// The header getters read a bare buffer, which by contract holds a whole
// frame.
int IEEE19051_GetEtherType(u_int8_t* buf) {
    return buf == nullptr ? -1 : kestr::FrameView(buf, kCmduMaxFrameLen).ether_type();
}

int IEEE19051_GetType(u_int8_t* buf) {
    return buf == nullptr ? -1 : kestr::FrameView(buf, kCmduMaxFrameLen).type();
}

int IEEE19051_GetMid(u_int8_t* buf) {
    return buf == nullptr ? -1 : kestr::FrameView(buf, kCmduMaxFrameLen).mid();
}

u_int8_t IEEE19051_GetFlags(u_int8_t* buf) {
    return buf == nullptr ? 255 : kestr::FrameView(buf, kCmduMaxFrameLen).flags();
}

int IEEE19051_GetEtherSmac(u_int8_t* buf, struct ether_addr* mac) {
    if (buf == nullptr || mac == nullptr)
        return -1;
    *mac = kestr::FrameView(buf, kCmduMaxFrameLen).source().ether();
    return 0;
}

int IEEE19051_GetEtherDmac(u_int8_t* buf, struct ether_addr* mac) {
    if (buf == nullptr || mac == nullptr)
        return -1;
    *mac = kestr::FrameView(buf, kCmduMaxFrameLen).destination().ether();
    return 0;
}

// ---- Senders ----

namespace {

// A destination that cannot be read would leave the frame addressed to
// 00:00:00:00:00:00: the text senders refuse it (the conversion prints why).
bool destination(const char* text, kestr::Mac* out) {
    struct ether_addr da;
    if (mac_str_to_etheraddr(text, &da) != 0)
        return false;
    *out = kestr::Mac::of(da);
    return true;
}

}  // namespace

int kestr::send_cmdu(const char* sender, const Mac& da, const char* tx_interface, int mid,
                     OnAddressFailure on_address_failure, const CmduBuilder& build) {
    if (tx_interface == nullptr) {
        std::puts("tx_interface == NULL");
        return -1;
    }
    // Protocol 0: the socket only sends and never queues received frames.
    kestr::UniqueFd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        std::puts("Error creating socket() -- you may need to run in sudo mode!");
        return -1;
    }
    param_t param{};
    param.mid = mid;
    param.da = da.ether();
    if (fill_interface(&param, fd.get(), tx_interface) != 0 &&
        on_address_failure == OnAddressFailure::Stop) {
        kestr::report_line(kestr::LineKind::Error, KESTR_MODULE, sender, __LINE__,
                           "fill_param error");
        return -1;
    }

    ieee1905Message_t frame;
    std::memset(&frame, 0, sizeof frame);
    const int num_bytes = build(&frame, param);
    if (num_bytes <= 0 || num_bytes > static_cast<int>(sizeof frame)) {
        kestr::report_line(
            kestr::LineKind::Error, KESTR_MODULE, sender, __LINE__,
            "num_bytes <= 0 || num_bytes > sizeof(ieee1905Message_t), num_bytes %d\n", num_bytes);
        return -1;
    }
    return sendPacket(fd.get(), param.sa, &frame, num_bytes, param.tx_idx);
}

using kestr::OnAddressFailure;
using kestr::send_cmdu;

namespace {

// The multicast address of Searches, Renews and topology announcements.
constexpr const kestr::Mac& kMulticast = kIeee1905Multicast;

int response_to(const char* sender, const kestr::Mac& to, const char* tx_interface, int mid,
                ap_autoconfig_response_param_t response_param) {
    return send_cmdu(sender, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationResponse(packet, param,
                                                                               response_param);
                     });
}

int wsc_to(const char* sender, const kestr::Mac& to, const char* tx_interface, int mid,
           wsc_configuration_t* config) {
    return send_cmdu(sender, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationWsc(packet, param, config);
                     });
}

int wsc_tlv_to(const char* sender, const kestr::Mac& to, const char* tx_interface, int mid,
               ieee1905TLV_t* wsctlv) {
    return send_cmdu(sender, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationWsc2(packet, param, wsctlv);
                     });
}

}  // namespace

int kestr::send_response(const Mac& to, const char* tx_interface, int mid,
                         ap_autoconfig_response_param_t response_param) {
    return response_to("IEEE19051_SendMsgApAutoconfigurationResponse", to, tx_interface, mid,
                       response_param);
}

int kestr::send_wsc(const Mac& to, const char* tx_interface, int mid, wsc_configuration_t* config) {
    return wsc_to("IEEE19051_SendMsgApAutoconfigurationWsc", to, tx_interface, mid, config);
}

int kestr::send_wsc_tlv(const Mac& to, const char* tx_interface, int mid, ConstBytes tlv) {
    // The builder reads 3 + the TLV's own length bytes; a buffer shorter
    // than that is refused here, so it is never read past its end.
    ByteReader whole(tlv.data(), tlv.size());
    ByteReader value;
    if (!whole.skip(1) || !whole.u16_length_prefixed(&value))
        return -1;
    return wsc_tlv_to("IEEE19051_SendMsgApAutoconfigurationWsc2", to, tx_interface, mid,
                      reinterpret_cast<ieee1905TLV_t*>(const_cast<uint8_t*>(tlv.data())));
}

int IEEE19051_SendMsgApAutoconfigurationSearch(const char* tx_interface, int mid,
                                               ap_autoconfig_search_param_t search_param) {
    return send_cmdu(__func__, kMulticast, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationSearch(packet, param,
                                                                             search_param);
                     });
}

int IEEE19051_SendMsgApAutoconfigurationResponse(const char* dest_mac, const char* tx_interface,
                                                 int mid,
                                                 ap_autoconfig_response_param_t response_param) {
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(dest_mac, &to))
        return -1;
    return response_to(__func__, to, tx_interface, mid, response_param);
}

int IEEE19051_SendMsgApAutoconfigurationWsc(const char* dest_mac, const char* tx_interface, int mid,
                                            wsc_configuration_t* config) {
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(dest_mac, &to))
        return -1;
    return wsc_to(__func__, to, tx_interface, mid, config);
}

int IEEE19051_SendMsgApAutoconfigurationWsc2(const char* dest_mac, const char* tx_interface,
                                             int mid, ieee1905TLV_t* wsctlv) {
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(dest_mac, &to))
        return -1;
    return wsc_tlv_to(__func__, to, tx_interface, mid, wsctlv);
}

int IEEE19051_GetWscTlv(wsc_configuration_t* config, u_int8_t* tlvbuf, int maxlen) {
    // The encoder's room counts attribute bytes only; the TLV header comes
    // out of `maxlen` too, so a buffer of `maxlen` bytes is never overrun.
    if (config == nullptr || tlvbuf == nullptr || maxlen < kTlvHeaderLen)
        return -1;
    return get_tlv_wsc(reinterpret_cast<ieee1905TLV_t*>(tlvbuf), maxlen - kTlvHeaderLen, config);
}

int IEEE19051_SendMsgApAutoconfigurationRenew(const char* tx_interface, int mid,
                                              ap_autoconfig_renew_param_t* renew_param) {
    return send_cmdu(__func__, kMulticast, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketApAutoconfigurationRenew(packet, param,
                                                                            renew_param);
                     });
}

int IEEE19051_SendMsgTopologyDiscovery(const char* tx_interface, int mid, struct ether_addr almac) {
    // The discovery carries the sending interface's own address in a TLV, so
    // it is worthless without it.
    return send_cmdu(__func__, kMulticast, tx_interface, mid, OnAddressFailure::Stop,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketTopologyDiscovery(packet, param, almac);
                     });
}

int IEEE19051_SendMsgTopologyNotification(const char* tx_interface, int mid,
                                          struct ether_addr almac) {
    return send_cmdu(__func__, kMulticast, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketTopologyNotification(packet, param, almac);
                     });
}

int IEEE19051_SendMsgTopologyResponse(const char* da_str, const char* tx_interface, int mid,
                                      device_information_t device_info,
                                      ieee1905BridgingCapability_t capability,
                                      neighborDeviceList list) {
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(da_str, &to))
        return -1;
    return send_cmdu(__func__, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [&](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketTopologyResponse(packet, param, device_info,
                                                                    capability, list);
                     });
}

int IEEE19051_SendMsgTopologyQuery(const char* da_str, const char* tx_interface, int mid) {
    if (tx_interface == nullptr || da_str == nullptr) {
        std::puts("tx_interface == NULL || da_str == NULL");
        return -1;
    }
    kestr::Mac to;
    if (tx_interface != nullptr && !destination(da_str, &to))
        return -1;
    return send_cmdu(__func__, to, tx_interface, mid, OnAddressFailure::GoOn,
                     [](ieee1905Message_t* packet, const param_t& param) {
                         return IEEE19051_GetPacketTopologyQuery(packet, param);
                     });
}
