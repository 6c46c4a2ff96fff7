// The static neighbor list and its file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "neighbor/ap_info.h"

// One static neighbor: its description and the link to the next (older) node.
struct static_member {
    ap_info info;
    static_member *next;
};

// Newest node first.
struct static_member_list_t {
    int32_t count;
    static_member *head;
};

extern static_member_list_t static_member_list;
extern uint32_t static_cnt;
// Guards static_member_list and the file; never held together with ngb_lock.
extern std::mutex stngbr_lock;

// List primitives; the caller holds stngbr_lock.
static_member *static_member_find(const mac_addr &mac);
void static_member_push(static_member *node);
void static_member_clear();
void static_member_remove(static_member *node);

// File and edit operations (they take stngbr_lock themselves).
int load_static_neighbor();
int save_as_json();
int static_mac_add(const char *mac, const char *ip, const char *ip6);
int static_mac_del(const char *mac);
int static_mac_qv(const ap_info *records, int32_t count);

// Longest MAC text and IPv4 text accepted from the file or an edit.
constexpr size_t MAC_TEXT_MAX = 63;
constexpr int MAC_GROUPS_MAX = 6;
constexpr size_t IPV4_TEXT_MAX = 15;

// Reads a MAC text of ":"-separated hexadecimal groups into out (low 8 bits of each group).
// Returns 0 when accepted, -1 when the text is refused (out is then left untouched).
int parse_mac_text(const char *text, mac_addr &out);

// Largest file read_whole_file takes; a longer one is refused.
constexpr long WHOLE_FILE_MAX = 1024 * 1024;

// The whole content of a file, zero-terminated, or null for a file that cannot be opened
// (logged), is empty, cannot be sized or read, is larger than WHOLE_FILE_MAX, or when memory
// runs out.
std::unique_ptr<char[]> read_whole_file(const char *path);

// A new zero-filled node, state static offline; released with delete (the list does so).
static_member *static_member_new();
