/* Counts the words of a text. The index lives in a tag and is freed with it at once; when memory
 * runs out, wherever that is, the work ends in one place. */
#include <string.h>

#include "psp.h"

#define HERE __FILE__, __LINE__

typedef struct word {
    struct word* next;
    const char* text;
    uint32_t count;
} word;

static size_t hash(const char* text)
{
    size_t h = 5381;
    while (*text != '\0')
        h = h * 33 + (unsigned char)*text++;
    return h;
}

/* Nothing is checked here: the tag has a jump buffer, an allocation that fails does not return. */
static void index_words(PSP_MEMTAG tag, const char* text, size_t slots)
{
    word** const table = psp_getMem(slots * sizeof(word*), tag, PSP_MEM_ZERO, NULL, HERE);
    char* const copy = psp_getMem(0, tag, PSP_MEM_STRING, text, HERE);
    uint32_t words = 0, different = 0;
    for (char* t = strtok(copy, " ."); t != NULL; t = strtok(NULL, " .")) {
        word** at = &table[hash(t) % slots];
        while (*at != NULL && strcmp((*at)->text, t) != 0)
            at = &(*at)->next;
        if (*at == NULL) {
            const word fresh = {NULL, t, 0};
            *at = psp_getMem(sizeof fresh, tag, PSP_MEM_COPY, &fresh, HERE);
            different++;
        }
        (*at)->count++;
        words++;
    }
    psp_printf("%u words, %u different\n", words, different);
}

/* Where every failed allocation ends up: 0 when there is no room for the index. */
static int try_index(PSP_MEMTAG tag, const char* text, size_t slots)
{
    jmp_buf no_memory;
    if (setjmp(no_memory) != 0)
        return 0;
    psp_resetTag(&no_memory, tag);
    index_words(tag, text, slots);
    return 1;
}

static int count_words(const char* text, size_t slots)
{
    PSP_TAG_MEM_INFO info;
    PSP_MEMTAG tag = psp_createTagEx(NULL, 0, STACK_ALLOCATOR, NULL, NULL, HERE);
    if (tag == NULL)
        return 0;
    const int counted = try_index(tag, text, slots);
    psp_resetTag(NULL, tag); /* the buffer is gone */
    if (!counted)
        psp_printf("no room for %zu slots\n", slots);
    if (psp_getTagMemInfo(tag, &info) == sOKAY)
        psp_printf("%zu bytes in the tag\n", info.used.current);
    psp_freeTagMem(tag, ZYN_TRUE, HERE);
    return counted;
}

int main(void)
{
    const char* text = "the cat saw the dog and the dog saw a cat.";
    if (psp_init() != sOKAY)
        return 1;
    psp_setMemLimit(NULL, 4195328); /* the least: 4 MiB for the whole process */
    const int counted = count_words(text, 64);
    const int refused = !count_words(text, 1u << 20);
    psp_term();
    return counted && refused ? 0 : 1;
}
