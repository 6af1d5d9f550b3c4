// world.h - what stands around a fuzzed parser: one thread, peers whose bytes are the input, and time that passes at
// once. world.cpp takes the place of threads, clock, poll and the socket calls that would reach a peer; everything else
// is the agent's own code.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Begins an input: settings, periods and strategy as at a start, a device link, and no other connection. The peers send
// these bytes, at most piece (0: all) per read, then fall silent, then close; they take all that is sent to them.
// accepts: connects succeed, else they are refused. world_end closes everything.
void world_begin(const uint8_t *data, size_t size, size_t piece, bool accepts);
void world_end(void);

// What the peers still have to say.
size_t world_bytes_left(void);

// What a target wants beyond that, until the next input.
struct WorldWatch {
    void (*received)(int fd, const void *bytes, size_t len); // each read
    void (*sent)(const void *bytes, size_t len);             // each send; with it threads run, at once, to their end
    size_t send_max;                                         // most bytes that a send takes; 0: all
    int fail_each;      // one of so many looks for a writable socket, sends and reads fails; 0: none
    void (*peer)(void); // the peer's turn before each wait; with it waits are real, but time out at once
};
extern WorldWatch g_world_watch;
