#include "remote/byte_queue.h"

#include <stdlib.h>
#include <string.h>

size_t byte_queue_len(const ByteQueue *queue)
{
    return queue->end - queue->begin;
}

// Moves the queued bytes to the front and grows the memory to hold len more bytes.
static int make_room(ByteQueue *queue, size_t len)
{
    size_t held = byte_queue_len(queue);
    if (queue->begin > 0)
        memmove(queue->bytes, queue->bytes + queue->begin, held);
    queue->begin = 0;
    queue->end = held;
    if (queue->cap - held >= len)
        return 0;
    uint8_t *grown = (uint8_t *)realloc(queue->bytes, held + len);
    if (!grown)
        return -1;
    queue->bytes = grown;
    queue->cap = held + len;
    return 0;
}

int byte_queue_append(ByteQueue *queue, const uint8_t *bytes, size_t len)
{
    if (queue->cap - queue->end < len && make_room(queue, len) != 0)
        return -1;
    if (len > 0)
        memcpy(queue->bytes + queue->end, bytes, len);
    queue->end += len;
    return 0;
}

void byte_queue_consume(ByteQueue *queue, size_t len)
{
    queue->begin += len;
    if (queue->begin == queue->end)
        byte_queue_clear(queue);
}

void byte_queue_clear(ByteQueue *queue)
{
    free(queue->bytes);
    *queue = {};
}
