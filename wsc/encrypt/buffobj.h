// A byte buffer with a write cursor that either owns heap storage, which it
// grows on demand, or wraps storage of the caller. The WSC key derivation
// assembles its HMAC inputs and slices its derived key material with it.
#pragma once

#include "wsc/encrypt/wpsntoh.h"

typedef uint32_t wps_bool;

constexpr uint32 kBuffObjMagic = 0x12345678;
constexpr uint32 kBuffObjUnlocked = 0xEDCBA987;

struct BufferObj {
    uint8* pBase;
    uint8* pCurrent;  // always pBase + m_currentLength
    uint32 m_bufferLength;
    uint32 m_currentLength;
    uint32 m_dataLength;
    wps_bool m_allocated;  // 1: the object owns pBase
    uint32 magic;
};

BufferObj* buffobj_new();
BufferObj* buffobj_setbuf(uint8* buf, int len);
void buffobj_del(BufferObj* b);
void buffobj_dserial(BufferObj* b, uint8* ptr, uint32 length);
char* alloc_init(int size);

uint8* buffobj_Pos(BufferObj* b);
uint32 buffobj_Length(BufferObj* b);
uint32 buffobj_Remaining(BufferObj* b);
uint8* buffobj_GetBuf(BufferObj* b);

uint8* buffobj_Append(BufferObj* b, uint32 length, uint8* pBuff);
uint8* buffobj_Write(BufferObj* b, uint32 length, uint8* pBuff);
uint8* buffobj_Advance(BufferObj* b, uint32 offset);
uint8* buffobj_RewindLength(BufferObj* b, uint32 length);
uint8* buffobj_Rewind(BufferObj* b);
uint8* buffobj_Reset(BufferObj* b);
uint8* buffobj_Set(BufferObj* b, uint8* pos);
uint16 buffobj_NextType(BufferObj* b);
uint8 buffobj_NextSubId(BufferObj* b);
int buffobj_lock(BufferObj* b);
int buffobj_unlock(BufferObj* b);
