/* Serves requests, two at a time, with buffers that are costly to set up: the pool makes each once
 * and hands it out again and again. */
#include <string.h>

#include "psp.h"

enum { BUFFER_SIZE = 4096 };

typedef struct {
    char* buffer;
    size_t used;
} request;

/* What the callbacks work on. */
typedef struct {
    PSP_MEMTAG tag;
    int made;
    int freed;
} service;

static void set_up(PSP_POOL_USERDATA userdata, void* object)
{
    service* srv = userdata;
    request* req = object;
    req->buffer = psp_getMem(BUFFER_SIZE, srv->tag, PSP_MEM_PLAIN, NULL, __FILE__, __LINE__);
    srv->made++;
}

static void tear_down(PSP_POOL_USERDATA userdata, const void* object)
{
    service* srv = userdata;
    psp_freeMem(((const request*)object)->buffer, srv->tag, __FILE__, __LINE__);
    srv->freed++;
}

/* A request as its last user left it, with its buffer; NULL when there is no memory for it. */
static request* begin(PSP_POOL pool, const char* text)
{
    request* req = psp_poolGetMem(pool, sizeof *req, PSP_MEM_PLAIN, NULL, __FILE__, __LINE__);
    if (req == NULL || req->buffer == NULL)
        return NULL;
    req->used = strlen(text);
    memcpy(req->buffer, text, req->used);
    return req;
}

static size_t serve_two(PSP_POOL pool, const char* first, const char* second)
{
    request* const a = begin(pool, first);
    request* const b = begin(pool, second);
    const size_t bytes = a == NULL || b == NULL ? 0 : a->used + b->used;
    psp_poolPut(pool, b);
    psp_poolPut(pool, a);
    return bytes;
}

int main(void)
{
    PSP_POOL pool;
    service srv = {0};
    size_t bytes = 0;
    if (psp_init() != sOKAY)
        return 1;
    srv.tag = psp_createTagEx(NULL, 0, BLOCK_ALLOCATOR, NULL, NULL, __FILE__, __LINE__);
    if (psp_poolCreateEx(srv.tag, PSP_POOL_FIXED_SIZE, NULL, set_up, tear_down, &srv, &pool) ==
        sOKAY) {
        for (int i = 0; i < 50; i++)
            bytes += serve_two(pool, "get /index", "get /picture");
        psp_printf("100 requests of %zu bytes, %d buffers made\n", bytes, srv.made);
        psp_poolDestroy(pool);
        psp_printf("%d buffers freed\n", srv.freed);
    }
    psp_freeTagMem(srv.tag, ZYN_TRUE, __FILE__, __LINE__);
    psp_term();
    return srv.made == 2 && srv.freed == 2 ? 0 : 1;
}
