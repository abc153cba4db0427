// Network (big-endian) byte order for WSC attributes and the key derivation.
// Written with shifts, never with host-order assumptions: the target
// processor is big-endian, development machines are not.
#pragma once

#include <cstdint>

typedef uint8_t uint8;
typedef uint16_t uint16;
typedef uint32_t uint32;
typedef int32_t int32;

uint32 WpsNtohl(uint8* a);
uint16 WpsNtohs(uint8* a);
// The value whose in-memory bytes are `v` in big-endian order.
uint32 WpsHtonl(uint32 intlong);
uint16 WpsHtons(uint16 intshort);
// Reads a host-order value at `in`, stores it big-endian at `out` and returns
// the network-order value.
uint16 WpsHtonsPtr(uint8* in, uint8* out);
uint32 WpsHtonlPtr(uint8* in, uint8* out);
