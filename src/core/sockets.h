// The daemon's sockets and the receive thread.
#pragma once

// Opens sock_send_nbcp, sock_recv_nbcp, sock_recv_hand and sock_recv_local, in this order.
// Exits the process with status 1 when one cannot be opened.
void tarn_socket_init();

// Opens sock6_nbcp (IPv6 only); exits the process with status 1 on failure.
void tarn_socket6_init();

// The receive thread: waits on the four receiving sockets and hands one datagram per ready
// socket per pass to its handler, driver first. Never returns.
void *recv_thread(void *arg);

struct nbcp_decode_area;

// One pass of the receive loop (select, then the handlers of the ready sockets).
void recv_once(nbcp_decode_area &area);
