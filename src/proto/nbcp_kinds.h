// Parsers of the message kinds that are decoded but never acted on: kinds 1 to 6 in their
// fixed-layout and TLV forms, and the fixed-layout types 15 and 16.
#pragma once

#include <cstddef>
#include <cstdint>

#include "proto/nbcp_records.h"
#include "proto/nbcp_touched.h"
#include "proto/nbcp_wire.h"

// Each parser reads a datagram of size readable bytes from its first body byte. The TLV forms
// walk until limit bytes are consumed; the fixed layouts ignore limit and read a bounded number
// of fields. Each marks in touched (when not null) the list items it writes; the caller marks
// the record up to its first list (nbcp_decode).
void nbcp_parse_kind1_fixed(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                            nbcp_touched *touched);
void nbcp_parse_kind2_fixed(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                            nbcp_touched *touched);
void nbcp_parse_kind3_fixed(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                            nbcp_touched *touched);
void nbcp_parse_kind4_fixed(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                            nbcp_touched *touched);
void nbcp_parse_kind5_fixed(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                            nbcp_touched *touched);
void nbcp_parse_kind6_fixed(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                            nbcp_touched *touched);

void nbcp_parse_kind1_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched);
void nbcp_parse_kind2_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched);
void nbcp_parse_kind3_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched);
void nbcp_parse_kind4_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched);
void nbcp_parse_kind5_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched);
void nbcp_parse_kind6_tlv(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                          nbcp_touched *touched);

void nbcp_parse_type15(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                       nbcp_touched *touched);
void nbcp_parse_type16(const uint8_t *datagram, size_t size, uint32_t limit, nbcp_msg &msg,
                       nbcp_touched *touched);
