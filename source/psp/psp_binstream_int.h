// The records behind the handles of binary streams.
#pragma once

#include "psp/binstream.h"

struct INPUTBUFFEREDSTREAM {
    PSP_BUFFREADFCN readFcn; // the transport
    const void* dataCB;      // its context
    char* buf;               // what was read ahead
    uint32_t size;           // capacity of buf
    uint32_t len;            // bytes in buf, as the last read reported
    uint32_t pos;            // bytes of buf that have been consumed
    int16_t byteswap;        // not 0: numbers are reversed after reading
};

struct OUTPUTBUFFEREDSTREAM {
    PSP_BUFFWRITEFCN writeFcn; // the transport
    const void* dataCB;        // its context
    char* buf;                 // what waits to be written
    uint32_t max;              // buf grows up to this size
    uint32_t size;             // capacity of buf
    uint32_t pos;              // bytes waiting in buf
    int16_t byteswap;          // not 0: numbers are reversed before writing
};
