// Sockets on loopback.
#ifndef RUVO_TESTING_SOCKETS_H
#define RUVO_TESTING_SOCKETS_H

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdint>

// Port 0: any free one.
inline sockaddr_in loopback_address(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  return addr;
}

inline bool connect_to_loopback(int fd, int port) {
  const sockaddr_in addr = loopback_address(port);
  return connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
}

// Closing the socket will reset the connection, as a crashed machine does: sent data may be lost.
inline void reset_on_close(int fd) {
  const linger at_once{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
}

#endif
