/* The baseline of the answer-rate benchmark: the least a UDP responder can do. Answers every
 * datagram on a port with a reply of a fixed size to its source, nothing else; the same
 * receive buffer size as the daemon. Development only.
 *
 *     udp_responder PORT REPLY_BYTES
 */
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: udp_responder PORT REPLY_BYTES\n");
        return 2;
    }
    static unsigned char in[65535];
    static unsigned char reply[65535];
    size_t reply_len = (size_t)atoi(argv[2]);
    if (reply_len > sizeof reply) {
        reply_len = sizeof reply;
    }
    memset(reply, 0x5a, reply_len);
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons((unsigned short)atoi(argv[1]));
    if (sock < 0 || bind(sock, (struct sockaddr *)&addr, sizeof addr) < 0) {
        perror("udp_responder");
        return 1;
    }
    for (;;) {
        struct sockaddr_in from;
        socklen_t from_len = sizeof from;
        ssize_t got = recvfrom(sock, in, sizeof in, 0, (struct sockaddr *)&from, &from_len);
        if (got > 0) {
            sendto(sock, reply, reply_len, 0, (struct sockaddr *)&from, from_len);
        }
    }
}
