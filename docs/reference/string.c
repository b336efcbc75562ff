/* Takes the query of a web address apart and fills a record with it. */
#include "psp.h"

#include <stdio.h>
#include <string.h>

struct Record {
    char name[16];
    char city[8];
};

/* Decodes "%C3" and "+" in place. A '%' without two digits stays as it is. */
static void decode(char* text)
{
    char* to = text;
    for (; *text != '\0'; text++, to++) {
        *to = *text == '+' ? ' ' : *text;
        const uint8_t high = *text == '%' ? psp_hexdigit(text[1]) : 255;
        const uint8_t low = high != 255 ? psp_hexdigit(text[2]) : 255;
        if (low != 255) {
            *to = (char)(high * 16 + low);
            text += 2;
        }
    }
    *to = '\0';
}

static void setField(struct Record* record, const char* setting)
{
    char copy[64];
    char* rest;
    char* key = psp_strtok(psp_strncpyZ(copy, setting, sizeof copy), "=", &rest);
    char* value = psp_strtok(NULL, "", &rest);
    if (key == NULL || value == NULL)
        return;
    decode(value);
    if (strcmp(strlwr(key), "name") == 0)
        psp_strncpyZ(record->name, value, sizeof record->name);
    else if (strcmp(key, "city") == 0)
        psp_strncpyZ(record->city, value, sizeof record->city);
    else
        printf("no field for %s\n", key);
}

int main(void)
{
    char query[] = "NAME=Ada+Lovelace&&city=Z%C3%BCrich&page=2";
    struct Record record = {"", ""};
    const char** settings;
    uint32_t count;

    if (psp_init() != sOKAY)
        return 1;
    if (psp_tokenize(query, "&", &settings, &count, ZYN_FALSE, PSP_THREAD_TAG) != sOKAY)
        return 1;
    for (uint32_t i = 0; i < count; i++)
        setField(&record, settings[i]);
    /* The array goes; its words lie in `query`. */
    psp_freeMem(settings, PSP_THREAD_TAG, __FILE__, __LINE__);

    printf("%u settings, name \"%s\", city \"%s\"\n", (unsigned)count, record.name, record.city);
    psp_term();
    return strcmp(record.name, "Ada Lovelace") == 0 ? 0 : 1;
}
