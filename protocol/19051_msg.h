// Raw-socket transport of IEEE 1905.1 CMDUs: the long-lived receive socket on
// the bridge, the per-message send path, and the header getters used on
// received frames.
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>

#include "port/common/bytes.h"
#include "port/util.h"
#include "protocol/19051_frame.h"
#include "protocol/19051_protocol.h"

// Receive socket, opened once by the daemon before its receive task starts.
void IEEE19051_MsgInit(char* interface);
void IEEE19051_MsgUninit();
int32_t IEEE19051_RecvSockCreate(const char* ifName, uint16_t etherType);
// Waits up to `timeout_sec` (0: block) for one frame and validates EtherType,
// length (>= 25) and version (0). Its length, or -1.
int IEEE19051_RecvMsg(const char* ifName, uint8_t* buf, int buf_len, unsigned int timeout_sec);

namespace kestr {
// Keeps CMDUs that the reader would pass and the caller would drop unread
// out of the receive socket, in the kernel: those of message version 0, at
// least 25 bytes long, whose type lies outside `first`..`last`. Frames the
// reader refuses with a line still reach it. 0, or -1 when there is no
// socket or the kernel refused the filter (every frame then reaches the
// reader, as without it).
int receive_only_types(int first, int last);

// Ends the reader's wait for a frame at once, and every later wait until the
// receive socket is closed: IEEE19051_RecvMsg returns -1 without a word, as
// on a time-out. For stopping the reader; safe from any thread while the
// socket is open.
void wake_receive();
}  // namespace kestr

// Send path: fill the addressing record, then send one built frame, padded
// with zeros to 60 bytes when shorter.
int fillParam(param_t* pparam, int sockfd, const char* da_str, const char* tx_interface,
              const int mid);
int sendPacket(int sockfd, struct ether_addr sa, const void* packet, const int num_bytes,
               const int tx_idx);

// Senders: one packet socket per message, opened, used for one frame and
// closed on every path, so any thread may send at any time. Each returns 0
// when the frame was sent, -1 otherwise. A null interface name is refused
// ("tx_interface == NULL"), and so is a destination text that is not a MAC
// address: the text's own complaint is printed and nothing is sent.
int IEEE19051_SendMsgApAutoconfigurationSearch(const char* tx_interface, int mid,
                                               ap_autoconfig_search_param_t search_param);
int IEEE19051_SendMsgApAutoconfigurationResponse(const char* dest_mac, const char* tx_interface,
                                                 int mid,
                                                 ap_autoconfig_response_param_t response_param);
// M1 and M2: from a record, or from a WSC TLV built beforehand (the enrollee
// keeps the very bytes of its M1 to check the M2 that answers it).
int IEEE19051_SendMsgApAutoconfigurationWsc(const char* dest_mac, const char* tx_interface, int mid,
                                            wsc_configuration_t* config);
int IEEE19051_SendMsgApAutoconfigurationWsc2(const char* dest_mac, const char* tx_interface,
                                             int mid, ieee1905TLV_t* wsctlv);
int IEEE19051_SendMsgApAutoconfigurationRenew(const char* tx_interface, int mid,
                                              ap_autoconfig_renew_param_t* renew_param);

// One complete WSC TLV (type 17, length, attributes) for `config` in
// `tlvbuf`, never more than `maxlen` bytes in all. Its total length, or -1.
int IEEE19051_GetWscTlv(wsc_configuration_t* config, u_int8_t* tlvbuf, int maxlen);
int IEEE19051_SendMsgTopologyDiscovery(const char* tx_interface, int mid, struct ether_addr almac);
int IEEE19051_SendMsgTopologyNotification(const char* tx_interface, int mid,
                                          struct ether_addr almac);
int IEEE19051_SendMsgTopologyResponse(const char* da_str, const char* tx_interface, int mid,
                                      device_information_t device_info,
                                      ieee1905BridgingCapability_t capability,
                                      neighborDeviceList list);
int IEEE19051_SendMsgTopologyQuery(const char* da_str, const char* tx_interface, int mid);

namespace kestr {

// The interface part of an addressing record: the sending interface's own
// address and index, asked of the socket `sockfd`. 0, or -1 with the line
// of the request that failed.
int fill_interface(param_t* pparam, int sockfd, const char* tx_interface);

// What a sender does when its addressing record cannot be filled: go on (the
// send then fails for want of an interface index) or stop at once.
enum class OnAddressFailure { GoOn, Stop };

// Builds one frame into the zero-filled buffer; its length, or -1.
using CmduBuilder = std::function<int(ieee1905Message_t* packet, const param_t& param)>;

// The sending pattern every sender follows: check the interface name, open
// the send socket, fill the addressing record for `da`, `tx_interface` and
// `mid`, build into a zero-filled frame, refuse a result that is not
// positive or exceeds 1514 bytes, send, close. `sender` names the sender in
// its error lines.
int send_cmdu(const char* sender, const Mac& da, const char* tx_interface, int mid,
              OnAddressFailure on_address_failure, const CmduBuilder& build);

// The AP-autoconfiguration senders for an address the caller holds as a
// value; the IEEE19051_SendMsg* functions above take it as text.
int send_response(const Mac& to, const char* tx_interface, int mid,
                  ap_autoconfig_response_param_t response_param);
int send_wsc(const Mac& to, const char* tx_interface, int mid, wsc_configuration_t* config);
// A WSC message around a WSC TLV that is already built (`tlv`: type,
// length and attributes).
int send_wsc_tlv(const Mac& to, const char* tx_interface, int mid, ConstBytes tlv);

}  // namespace kestr

// Header getters; `buf` is the start of the Ethernet header.
int IEEE19051_GetEtherType(u_int8_t* buf);
int IEEE19051_GetType(u_int8_t* buf);
int IEEE19051_GetMid(u_int8_t* buf);
u_int8_t IEEE19051_GetFlags(u_int8_t* buf);
int IEEE19051_GetEtherSmac(u_int8_t* buf, struct ether_addr* mac);
int IEEE19051_GetEtherDmac(u_int8_t* buf, struct ether_addr* mac);
