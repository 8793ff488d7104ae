// The system's socket types and constants (sockaddr_in, sockaddr_in6, in6_addr, AF_*,
// SOCK_*, SOL_SOCKET, IPPROTO_*, SO_*, IP_* and IPV6_* options, ip_mreq, ipv6_mreq,
// htons ...), which carry the same names on both systems. The socket classes use them
// with the calls of Platform/Socket.h; this is the one place that pulls in the system's
// socket headers.
#pragma once

#if defined(_WIN32)
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  ifndef NOMINMAX
#    define NOMINMAX
#  endif
#  include <winsock2.h>
#  include <ws2tcpip.h>
#else
#  include <arpa/inet.h>
#  include <netdb.h>
#  include <netinet/in.h>
#  include <netinet/tcp.h>
#  include <sys/socket.h>
#endif
