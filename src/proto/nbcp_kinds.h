// Parsers of the message kinds that are decoded but never acted on: kinds 1 to 6 in their
// fixed-layout and TLV forms, and the fixed-layout types 15 and 16.
#pragma once

#include <cstdint>

#include "proto/nbcp_records.h"
#include "proto/nbcp_wire.h"

// Each parser starts at the first body byte. The TLV forms walk until limit bytes are
// consumed; the fixed layouts ignore limit and read a bounded number of fields.
void nbcp_parse_kind1_fixed(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind2_fixed(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind3_fixed(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind4_fixed(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind5_fixed(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind6_fixed(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);

void nbcp_parse_kind1_tlv(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind2_tlv(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind3_tlv(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind4_tlv(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind5_tlv(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_kind6_tlv(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);

void nbcp_parse_type15(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
void nbcp_parse_type16(nbcp_decoder &d, uint32_t limit, nbcp_msg &msg);
