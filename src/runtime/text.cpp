#include "runtime/text.h"

#include <stdio.h>
#include <string.h>

int text_copy(char *dst, size_t cap, const char *src)
{
    size_t len = src ? strlen(src) : 0;
    size_t kept = len < cap ? len : cap - 1;
    if (kept > 0)
        memmove(dst, src, kept);
    dst[kept] = '\0';
    return kept == len ? 0 : -1;
}

int text_vformat(char *dst, size_t cap, const char *fmt, va_list args)
{
    int wanted = vsnprintf(dst, cap, fmt, args);
    if (wanted < 0) {
        dst[0] = '\0';
        return -1;
    }
    return (size_t)wanted < cap ? 0 : -1;
}

int text_format(char *dst, size_t cap, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = text_vformat(dst, cap, fmt, args);
    va_end(args);
    return result;
}

int text_append(char *dst, size_t cap, const char *fmt, ...)
{
    size_t used = strnlen(dst, cap);
    if (used >= cap)
        return -1;
    va_list args;
    va_start(args, fmt);
    int result = text_vformat(dst + used, cap - used, fmt, args);
    va_end(args);
    return result;
}

ErrorText error_text(int error_number)
{
    ErrorText result = {};
    char scratch[128] = {};
    (void)text_set(result.text, strerror_r(error_number, scratch, sizeof(scratch)));
    return result;
}

uint32_t le32_get(const void *bytes)
{
    const uint8_t *b = (const uint8_t *)bytes;
    return (uint32_t)b[0] | (uint32_t)b[1] << 8 | (uint32_t)b[2] << 16 | (uint32_t)b[3] << 24;
}

void le32_put(void *bytes, uint32_t value)
{
    uint8_t *b = (uint8_t *)bytes;
    b[0] = (uint8_t)value;
    b[1] = (uint8_t)(value >> 8);
    b[2] = (uint8_t)(value >> 16);
    b[3] = (uint8_t)(value >> 24);
}

uint32_t be32_get(const void *bytes)
{
    const uint8_t *b = (const uint8_t *)bytes;
    return (uint32_t)b[0] << 24 | (uint32_t)b[1] << 16 | (uint32_t)b[2] << 8 | (uint32_t)b[3];
}

void be32_put(void *bytes, uint32_t value)
{
    uint8_t *b = (uint8_t *)bytes;
    b[0] = (uint8_t)(value >> 24);
    b[1] = (uint8_t)(value >> 16);
    b[2] = (uint8_t)(value >> 8);
    b[3] = (uint8_t)value;
}

int32_t saturate_i32(int64_t value)
{
    if (value > INT32_MAX)
        return INT32_MAX;
    if (value < INT32_MIN)
        return INT32_MIN;
    return (int32_t)value;
}
