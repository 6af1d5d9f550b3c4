// text.h - bounded text: the only place where characters are copied into fixed-size fields.
// Every result is NUL-ended and at most the field's size minus one long. All calls: any thread, no lock, no log.
// Intended truncation is written (void)text_set(...); elsewhere the -1 is handled.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

// Copies src (null counts as empty) into dst of cap bytes (at least 1). Returns 0 when whole, -1 when truncated.
int text_copy(char *dst, size_t cap, const char *src);

// printf into dst of cap bytes (at least 1). Returns 0 when whole, -1 when truncated.
// The length to send or log is strlen(dst), not the length that an unbounded printf would have written.
int text_format(char *dst, size_t cap, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// The same, appended to the text that dst already holds.
int text_append(char *dst, size_t cap, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// text_copy and text_format for a field. A plain pointer does not compile, so the size is always the field's own.
template <size_t N> int text_set(char (&dst)[N], const char *src)
{
    return text_copy(dst, N, src);
}

template <size_t N> int text_fmt(char (&dst)[N], const char *fmt, ...) __attribute__((format(printf, 2, 3)));

int text_vformat(char *dst, size_t cap, const char *fmt, va_list args) __attribute__((format(printf, 3, 0)));

template <size_t N> int text_fmt(char (&dst)[N], const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = text_vformat(dst, N, fmt, args);
    va_end(args);
    return result;
}

// Text of an error number, truncated to 31 characters: what the socket and TLS log lines print.
struct ErrorText {
    char text[32];
};
ErrorText error_text(int error_number);

// Little-endian 32-bit words at any address: the length field of the device frames.
uint32_t le32_get(const void *bytes);
void le32_put(void *bytes, uint32_t value);

// Big-endian 32-bit words at any address: the length field of the remote-web frames.
uint32_t be32_get(const void *bytes);
void be32_put(void *bytes, uint32_t value);

// Value limited to the range of a signed 32-bit integer.
int32_t saturate_i32(int64_t value);
