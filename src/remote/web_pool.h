// web_pool.h - the device side of a remote-web tunnel: ten slots, each a msg_id with its own connection to the device's
// web server, and the NM connection that they answer on.
// A slot is *bound* when it belongs to a msg_id; its connection is reference-counted. Slots are bound and connected by
// the NM-side thread, ended by either side's thread, and all unbound at once when the tunnel ends; each change names
// the connection that was tested, so that nobody ends another one's. All state is under one short lock inside; closes
// happen outside it, by the last user. Any thread.
#pragma once

#include <atomic>
#include <stdint.h>

#include "remote/web_frame.h"
#include "transport/conn_registry.h"

constexpr int WEB_SLOT_COUNT = 10;

// One opening of the pool; 0 is none. The device-side thread serves the opening that it was started for, and has its
// waits called off by the next change.
extern std::atomic<uint32_t> g_web_pool_generation;

// Takes the memory (once) and makes all slots free. 0, or -1 (logged). Then open until web_pool_close.
int web_pool_open(void);

// Unbinds every slot, shuts their connections down and drops the NM connection. Does nothing when it is closed.
void web_pool_close(void);

bool web_pool_is_open(void);

// The NM connection that carried the authentication; the pool takes over the hold.
void web_pool_nm_set(SocketConn *nm);

// A held copy of it: true. False, and nothing to drop, when the pool has another generation or the connection is no
// longer the registered one.
bool web_pool_nm_hold(uint32_t generation, SocketConn *copy);

// What a slot looked like. conn is a held copy: conn_drop it whether bound or not.
struct WebSlot {
    bool bound;
    bool failing;     // request bytes were lost: no more are sent, the device side ends the slot
    bool closing;     // NM closed the msg_id: the device side leaves the slot alone, the NM side ends it
    uint32_t binding; // differs for every msg_id that the slot was bound to
    uint8_t msg_id[WEB_ID_SIZE];
    SocketConn conn; // socket_fd -1: none
};
void web_slot_hold(int index, WebSlot *copy);

// The slot of a msg_id with its copy; -1 without one, and nothing to drop.
int web_slot_hold_id(const uint8_t *msg_id, WebSlot *copy);

// Binds the first free slot; -1 when all are bound.
int web_slot_bind(const uint8_t *msg_id);

// Gives a bound slot its connection (fresh from tcp_connect, taken over in any case). NM side only, which alone touches
// a bound slot without a connection. 0 with a held copy, or -1 without memory.
int web_slot_connect(int index, SocketConn conn, SocketConn *copy);

// Each acts only if ref (may be null) is still the slot's connection; true when it acted.
bool web_slot_disconnect(int index, const ConnRef *ref); // closes the connection, the slot stays bound
bool web_slot_end(int index, const ConnRef *ref);        // closes the connection and unbinds the slot
bool web_slot_fail(int index, const ConnRef *ref);       // sets failing
bool web_slot_close(int index, const ConnRef *ref);      // sets closing

// The device side sets this before it reads from the slot's device, and clears it when NM has all that was read.
void web_slot_answering_set(int index, uint32_t binding, bool answering);
bool web_slot_is_answering(int index, uint32_t binding);
