#ifndef CVCLOUD_MESSAGE_H
#define CVCLOUD_MESSAGE_H

/// @file
/// The record in which commands reach handlers and replies leave them.

#include <cstddef>
#include <cstdint>

/// One message on the box's local message exchange, `cvex`.
///
/// A fixed record shared with the daemon. Whoever creates it owns it and the payload; a receiver may read
/// both only during the call that hands them over.
struct Message {
    /// Kind of message. 2 marks a request whose sender waits for a direct reply; a reply carries 0.
    std::int32_t type;
    /// NUL-terminated command or message name.
    char name[260];
    /// Identifies the request; a reply carries the identifier of the request that it answers.
    std::uint64_t request_id;
    /// The daemon's own; zero in replies.
    std::uint64_t reserved;
    /// Length of the payload in bytes.
    std::uint32_t payload_len;
    /// The payload bytes; not necessarily NUL-terminated.
    const char* payload;
};

// The appliance's pointers are 32 bits wide: there the record is the daemon's, byte for byte.
static_assert(offsetof(Message, type) == 0);
static_assert(offsetof(Message, name) == 4);
static_assert(offsetof(Message, request_id) == 264);
static_assert(offsetof(Message, reserved) == 272);
static_assert(offsetof(Message, payload_len) == 280);
static_assert(sizeof(void*) != 4 || offsetof(Message, payload) == 284);
static_assert(sizeof(void*) != 4 || sizeof(Message) == 288);

#endif
