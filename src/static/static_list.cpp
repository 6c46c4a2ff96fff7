// The static neighbor list: a singly linked list, newest node first.
#include <cstring>
#include <new>

#include "static/static_store.h"
#include "util/log.h"

static_member_list_t static_member_list = {0, nullptr};
uint32_t static_cnt = 0;
std::mutex stngbr_lock;

static_member *static_member_find(const mac_addr &mac) {
    for (static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        if (node->info.mac == mac) {
            TARN_DBG("find the same mac");
            return node;
        }
    }
    return nullptr;
}

void static_member_push(static_member *node) {
    if (node == nullptr) {
        return;
    }
    node->next = static_member_list.head;
    static_member_list.head = node;
    ++static_member_list.count;
}

void static_member_clear() {
    static_member *node = static_member_list.head;
    while (node != nullptr) {
        static_member *next = node->next;
        delete node;
        node = next;
    }
    static_member_list.head = nullptr;
    static_member_list.count = 0;
}

void static_member_remove(static_member *node) {
    static_member **link = &static_member_list.head;
    while (*link != nullptr && *link != node) {
        link = &(*link)->next;
    }
    if (*link == nullptr) {
        return;  // not a node of the list
    }
    *link = node->next;
    delete node;
    --static_member_list.count;
}

static_member *static_member_new() {
    static_member *node = new (std::nothrow) static_member;
    if (node != nullptr) {
        memset(node, 0, sizeof *node);
        node->info.state = AP_STATE_STATIC_OFFLINE;
    }
    return node;
}
