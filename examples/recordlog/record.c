#include "record.h"

#include <string.h>

/* ---- Pool ---- */

/* The pool calls this for a new record; its user data is the tag of the texts. */
static void construct(PSP_POOL_USERDATA tag, void* object)
{
    *(record*)object = (record){.text.tag = tag};
}

static void destroy(PSP_POOL_USERDATA tag, const void* object)
{
    psp_freeMem(((const record*)object)->text.data, tag, __FILE__, __LINE__);
}

ZYN_RETCODE record_pool(PSP_MEMTAG tag, PSP_POOL* pool)
{
    return psp_poolCreateEx(tag, PSP_POOL_FIXED_SIZE, NULL, construct, destroy, tag, pool);
}

ZYN_RETCODE record_set_text(record* self, const char* text, uint32_t size)
{
    const ZYN_RETCODE rc = bytes_reserve(&self->text, size + 1);
    if (rc != sOKAY)
        return rc;
    memcpy(self->text.data, text, size);
    self->text.data[size] = '\0';
    self->text.size = size;
    return sOKAY;
}

/* ---- Variable-length integers go through a stream byte by byte ---- */

static ZYN_RETCODE put_byte(ZYN_OUTPUT_CTX stream, uint32_t ch)
{
    return psp_outputBuffPutChar(stream, (char)ch);
}

static ZYN_RETCODE get_byte(ZYN_INPUT_CTX stream, uint32_t* ch)
{
    char byte;
    const ZYN_RETCODE rc = psp_inputBuffGetChar(stream, &byte);
    if (rc == sOKAY)
        *ch = (unsigned char)byte;
    return rc;
}

/* ---- Fields ---- */

ZYN_RETCODE record_put(const record* self, PSP_OUTPUTBUFF out)
{
    ZYN_RETCODE rc = psp_vintEncodeUIntmax(self->sequence, put_byte, out);
    if (rc == sOKAY)
        rc = psp_outputBuffPutInt64(out, (int64_t)self->millis);
    if (rc == sOKAY)
        rc = psp_vintEncodeUIntmax(psp_vintConvertToUnsigned(self->priority), put_byte, out);
    if (rc == sOKAY)
        rc = psp_outputBuffPutStringWithLength(out, self->text.data);
    return rc;
}

ZYN_RETCODE record_get(record* self, PSP_INPUTBUFF in, uint32_t size)
{
    uintmax_t priority = 0;
    int64_t millis = 0;
    ZYN_RETCODE rc = bytes_reserve(&self->text, size + 1); /* no text is longer than its record */
    if (rc == sOKAY)
        rc = psp_vintDecodeUIntmax(get_byte, in, &self->sequence);
    if (rc == sOKAY)
        rc = psp_inputBuffGetInt64(in, &millis);
    if (rc == sOKAY)
        rc = psp_vintDecodeUIntmax(get_byte, in, &priority);
    if (rc == sOKAY)
        rc = psp_inputBuffGetStringWithLength(in, self->text.data, self->text.room);
    if (rc != sOKAY)
        return rc;
    self->millis = (uint64_t)millis;
    self->priority = (int16_t)psp_vintConvertToSigned(priority);
    self->text.size = (uint32_t)strlen(self->text.data);
    return sOKAY;
}
