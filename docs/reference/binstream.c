/* Measurements in a file: written through one stream, read back through another, with the numbers
   in the network's byte order. */
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>

#include "psp.h"

static const char* const path = "measurements.bin";

/* The transports: a context that is a file handle. The end of the file is a failure, eEOD. */
static ZYN_RETCODE to_file(const void* file, const void* data, uint32_t size)
{
    return psp_fileWrite((PSP_FH)file, data, size) == size ? sOKAY : eBADWRITE;
}

static ZYN_RETCODE from_file(const void* file, void* buf, uint32_t size, uint32_t* len,
                             uint32_t flags)
{
    (void)flags;
    *len = psp_fileRead((PSP_FH)file, buf, size);
    return *len != 0 ? sOKAY : eEOD;
}

static ZYN_RETCODE put(PSP_OUTPUTBUFF out, const char* name, int32_t number, double value)
{
    ZYN_RETCODE rc = psp_outputBuffPutStringWithLength(out, name);
    if (rc == sOKAY)
        rc = psp_outputBuffPutInt32(out, number);
    return rc == sOKAY ? psp_outputBuffPutFloat64(out, value) : rc;
}

static int write_all(PSP_FH file)
{
    PSP_OUTPUTBUFF out;
    if (psp_outputBuffCreate(to_file, file, 1, &out) != sOKAY)
        return 0;
    const int done = put(out, "wind", 1, 4.5) == sOKAY && put(out, NULL, 2, -0.25) == sOKAY &&
                     put(out, "a long name", 3, 1e3) == sOKAY && psp_outputBuffFlush(out) == sOKAY;
    psp_outputBuffDestroy(out); /* what is not flushed is lost */
    return done;
}

/* Gets ask for what the puts put, in the same order. How many came; -1 when the data is damaged. */
static int read_all(PSP_FH file)
{
    PSP_INPUTBUFF in;
    char name[6];
    int32_t number;
    double value;
    ZYN_RETCODE rc;
    int count = 0;
    if (psp_inputBuffCreate(from_file, file, 1, &in) != sOKAY)
        return -1;
    while ((rc = psp_inputBuffGetStringWithLength(in, name, sizeof name)) != eEOD) {
        if (psp_inputBuffGetInt32(in, &number) != sOKAY ||
            psp_inputBuffGetFloat64(in, &value) != sOKAY)
            break;
        printf("%" PRId32 " [%s]%s %g\n", number, name, rc == eTX_TRUNCATED ? " (cut)" : "", value);
        count++;
    }
    psp_inputBuffDestroy(in);
    return rc == eEOD ? count : -1;
}

int main(void)
{
    if (psp_init() != sOKAY)
        return 1;
    PSP_FH file = psp_fileOpen(path, O_RDWR | O_CREAT | O_TRUNC, 0);
    int count = -1;
    if (file != NULL && write_all(file)) {
        printf("%" PRIu64 " bytes\n", psp_fileLength(file));
        psp_fileSeek(file, 0, SEEK_SET, NULL);
        count = read_all(file);
    }
    psp_fileClose(file);
    const int removed = psp_fileRemove(path) == sOKAY;
    psp_term();
    return count == 3 && removed ? 0 : 1;
}
