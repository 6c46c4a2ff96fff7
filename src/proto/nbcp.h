// The nbcp codec: builders of the probe, the answer and the neighbor list, the datagram
// parser with its dispatch by type, and the neighbor-list reader.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/local_msg.h"
#include "neighbor/ap_info.h"
#include "proto/nbcp_records.h"
#include "proto/nbcp_touched.h"
#include "proto/nbcp_wire.h"

// A probe always encodes to exactly this many bytes.
constexpr uint32_t NBCP_NDRP_LEN = 60;
// An answer with empty strings and no radio; each radio adds NBCP_RADIO_LEN bytes.
constexpr uint32_t NBCP_NDSP_BASE_LEN = 139;
constexpr uint32_t NBCP_RADIO_LEN = 30;
// Longest answer: four radios and strings of capacity - 1 characters (the builders never send
// more than that of a string field, terminated or not).
constexpr uint32_t NBCP_NDSP_MAX =
    NBCP_NDSP_BASE_LEN + AP_RADIO_MAX * NBCP_RADIO_LEN + (64 - 1) + (16 - 1) + (32 - 1);
static_assert(NBCP_NDSP_MAX == 368, "longest answer");

// Neighbor list: local header, entries, 16-bit zero; sent as one local datagram.
constexpr uint32_t NBCP_LIST_MAX = 65535;
constexpr uint32_t NBCP_LIST_HDR_LEN = 8;
constexpr uint32_t NBCP_LIST_ENTRY_BASE_LEN = 104;
constexpr uint32_t NBCP_LIST_ENTRY_MAX =
    NBCP_LIST_ENTRY_BASE_LEN + AP_RADIO_MAX * NBCP_RADIO_LEN + (64 - 1) + (16 - 1) + (32 - 1);
static_assert(NBCP_LIST_ENTRY_MAX == 333, "longest neighbor-list entry");
// Entries a list buffer of NBCP_LIST_MAX bytes always has room for, header and end included.
constexpr uint32_t NBCP_LIST_ENTRIES_MAX =
    (NBCP_LIST_MAX - NBCP_LIST_HDR_LEN - NBCP_END_LEN) / NBCP_LIST_ENTRY_MAX;
static_assert(NBCP_LIST_ENTRIES_MAX >= 64 + STATIC_NGBR_MAX,
              "a full neighbor table and every static neighbor fit one list datagram");
// The shortest element that closes a list entry: type, length and one value byte.
constexpr size_t NBCP_LIST_ENTRY_END_MIN = 5;
// The reader stops once it has consumed this many bytes after the local header.
constexpr uint32_t NBCP_LIST_WALK_LIMIT = 12000;

// Pieces written by nbcp_list_put; any selector other than these two writes one entry.
constexpr uint8_t NBCP_LIST_PIECE_HEADER = 1;
constexpr uint8_t NBCP_LIST_PIECE_END = 2;
constexpr uint8_t NBCP_LIST_PIECE_ENTRY = 0;

// Fills msg->kind and the header from the first 10 bytes of a datagram of len readable bytes
// (missing bytes read as zero). Returns 1, or 0 when a pointer is null.
int nbcp_hdr_decode(const uint8_t *data, size_t len, nbcp_msg *msg);

// Encodes a probe into out, which must hold NBCP_NDRP_LEN bytes; sets rec->hdr.type.
// Returns the byte count (always NBCP_NDRP_LEN), or 0 when a pointer is null.
uint32_t nbcp_build_ndrp(uint8_t *out, nbcp_ndrp *rec);

// Encodes an answer into out, which must hold NBCP_NDSP_MAX bytes; sets rec->hdr.type.
// Returns the byte count, or 0 when a pointer is null.
uint32_t nbcp_build_ndsp(uint8_t *out, nbcp_ndsp *rec);

// Appends one piece of a neighbor list at out and returns its length: the header (selector 1,
// from hdr after its op is set to TARN_MSG_LIST_REPLY), the end (selector 2), or the entry
// for *entry (any other selector; at most NBCP_LIST_ENTRY_MAX bytes). The caller keeps the
// offset and must not append more than NBCP_LIST_ENTRIES_MAX entries to an NBCP_LIST_MAX
// buffer. Returns 0 when a pointer the piece needs is null.
uint32_t nbcp_list_put(uint8_t *out, const ap_info *entry, local_msg_hdr *hdr, uint8_t selector);

// Prepares msg for decoding the datagram: clears kind and the record that the datagram's
// type selects (or only the header for an unknown type), which is all that the decode that
// follows can observe. Clearing the whole record instead would cost the size of the largest
// kind for every datagram.
void nbcp_msg_reset(nbcp_msg *msg, const uint8_t *data, size_t len);

// Decodes a datagram of len readable bytes (bytes past len read as zero) into msg, which must
// be cleared (nbcp_msg_reset, nbcp_touched::clear or zero-filled). Returns 1 for a known type, 0
// for an unknown type or a null pointer. Prints nothing. When touched is given, every byte the
// decode writes lies in a line it marks there.
int nbcp_decode(const uint8_t *data, size_t len, nbcp_msg *msg, nbcp_touched *touched = nullptr);

// nbcp_decode plus the diagnostic lines on standard output: the type of every datagram, and a
// second line for an unknown type.
int nbcp_parse(const uint8_t *data, size_t len, nbcp_msg *msg, nbcp_touched *touched = nullptr);

// Reads a neighbor-list reply of len readable bytes into entries, a zero-filled array of
// capacity records. Returns the number of entries closed by their end-of-entry element. The
// walk ends at a zero type, at NBCP_LIST_WALK_LIMIT consumed bytes, or once capacity entries
// are complete: later entries are neither stored nor counted, so the result never exceeds
// capacity. Returns 0 when a pointer is null.
size_t nbcp_list_read(const uint8_t *reply, size_t len, ap_info *entries, size_t capacity);

// The most entries a neighbor-list reply of len bytes can close: each needs at least its
// 5-byte end-of-entry element.
constexpr size_t nbcp_list_entries_bound(size_t len) {
    return len > NBCP_LIST_HDR_LEN ? (len - NBCP_LIST_HDR_LEN) / NBCP_LIST_ENTRY_END_MIN : 0;
}

// Reads a whole neighbor-list reply of len bytes, for readers that are not bound by the show
// commands' limits: the walk is bounded only by len and by capacity (size it with
// nbcp_list_entries_bound(len) to take every entry). entries is a zero-filled array. Returns
// the number of entries closed by their end-of-entry element. *complete (when given) tells
// whether the walk met the list's end mark inside the reply with no entry left open and no
// entry left out for want of capacity. Returns 0 when a pointer is null or len is shorter than
// the local header.
size_t nbcp_list_read_whole(const uint8_t *reply, size_t len, ap_info *entries, size_t capacity,
                            bool *complete);
