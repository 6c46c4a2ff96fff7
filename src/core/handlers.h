// Handlers of the receive thread; each reads exactly one datagram from its socket.
#pragma once

// A driver event on sock_recv_hand.
void hand_receive();

struct nbcp_decode_area;

// An nbcp datagram on sock (IPv4 or IPv6); kind is the RecvMsg address kind. area is the
// receive thread's decode area, kept from one datagram to the next.
void nbcp_receive(int sock, int kind, nbcp_decode_area &area);

// A local control message on sock_recv_local.
void local_receive();
