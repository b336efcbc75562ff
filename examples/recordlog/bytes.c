#include "bytes.h"

#include <string.h>

ZYN_RETCODE bytes_reserve(bytes* self, uint32_t room)
{
    if (room <= self->room)
        return sOKAY;
    if (room < 2 * self->room)
        room = 2 * self->room; /* a run that grows is not copied at every step */
    char* data = psp_extendMem(self->data, room, self->tag, PSP_MEM_PLAIN, room - self->room, NULL,
                               __FILE__, __LINE__);
    if (data == NULL)
        return eNOMEMORY;
    self->data = data;
    self->room = room;
    return sOKAY;
}

/* A stream hands its context back as a pointer to const, whatever it is. */
ZYN_RETCODE bytes_write(const void* context, const void* data, uint32_t size)
{
    bytes* self = (bytes*)context;
    const ZYN_RETCODE rc = bytes_reserve(self, self->size + size);
    if (rc != sOKAY)
        return rc;
    memcpy(self->data + self->size, data, size);
    self->size += size;
    return sOKAY;
}

ZYN_RETCODE bytes_read(const void* context, void* buf, uint32_t size, uint32_t* len, uint32_t flags)
{
    bytes* self = (bytes*)context;
    const uint32_t left = self->size - self->pos;
    (void)flags;
    if (left == 0)
        return eEOD;
    *len = left < size ? left : size;
    memcpy(buf, self->data + self->pos, *len);
    self->pos += *len;
    return sOKAY;
}
