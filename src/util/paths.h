// File-system paths of the daemon and its clients.
#pragma once

constexpr const char *TARN_SOCKET_PATH = "/tmp/socket/tarn_socket";
constexpr const char *TARN_CLIENT_PATH = "/tmp/tmp_tarn_dump";
constexpr const char *CLUSTER_NEIGHBOR_DUMP_PATH = "/tmp/socket/cluster_neighbor_dump";
constexpr const char *STATIC_NEIGHBOR_DUMP_PATH = "/tmp/socket/static_neighbor_dump";
constexpr const char *STATIC_NEIGHBOR_CONF_PATH = "/var/config/static_neighbor.conf";
constexpr const char *ECHO_TIME_PATH = "/tmp/echo_time";
