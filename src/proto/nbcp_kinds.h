// Parsers of the message kinds that are decoded but never acted on: kinds 1 to 6 in their
// fixed-layout and TLV forms, and the fixed-layout types 15 and 16. Kinds 1 to 6 and type 16
// are read from descriptor tables; type 15 alone keeps hand code for its subtype rules.
#pragma once

#include <cstddef>
#include <cstdint>

#include "proto/nbcp_records.h"
#include "proto/nbcp_touched.h"
#include "proto/nbcp_wire.h"

// Each parser reads a datagram of size readable bytes from its first body byte into the record
// of msg.kind, which the dispatch has set. The TLV form walks until limit bytes are consumed;
// the fixed layouts ignore limit and read a bounded number of fields. Each marks in touched
// (when not null) the list items it writes; the caller marks the record up to its first list
// (nbcp_decode).
void nbcp_parse_kind_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                         nbcp_touched *touched);
void nbcp_parse_kind_fixed(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                           nbcp_touched *touched);
void nbcp_parse_type15(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                       nbcp_touched *touched);
