// Raw-socket transport of IEEE 1905.1 CMDUs: the long-lived receive socket on
// the bridge, the per-message send path, and the header getters used on
// received frames.
#pragma once

#include <net/ethernet.h>
#include <sys/types.h>

#include <cstdint>

#include "protocol/19051_frame.h"

// Receive socket, opened once by the daemon before its receive task starts.
void IEEE19051_MsgInit(char* interface);
void IEEE19051_MsgUninit();
int32_t IEEE19051_RecvSockCreate(const char* ifName, uint16_t etherType);
// Waits up to `timeout_sec` (0: block) for one frame and validates EtherType,
// length (>= 25) and version (0). Its length, or -1.
int IEEE19051_RecvMsg(const char* ifName, uint8_t* buf, int buf_len, unsigned int timeout_sec);

// Send path: fill the addressing record, then send one built frame, padded
// with zeros to 60 bytes when shorter.
int fillParam(param_t* pparam, int sockfd, const char* da_str, const char* tx_interface,
              const int mid);
int sendPacket(int sockfd, struct ether_addr sa, const void* packet, const int num_bytes,
               const int tx_idx);

// Header getters; `buf` is the start of the Ethernet header.
int IEEE19051_GetEtherType(u_int8_t* buf);
int IEEE19051_GetType(u_int8_t* buf);
int IEEE19051_GetMid(u_int8_t* buf);
u_int8_t IEEE19051_GetFlags(u_int8_t* buf);
int IEEE19051_GetEtherSmac(u_int8_t* buf, struct ether_addr* mac);
int IEEE19051_GetEtherDmac(u_int8_t* buf, struct ether_addr* mac);

uint16_t IEEE19051_MeidaType(ieee1905MediaType_e type, int desc);
