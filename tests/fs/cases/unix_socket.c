// SPDX-License-Identifier: GPL-2.0
// Unix sockets that are bound to names of the directory.
#include "case.h"
#include <sys/socket.h>
#include <sys/un.h>

static void run_case(void) {
  struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "socket"};
  struct sockaddr *at = (struct sockaddr *)&address;
  const socklen_t size = sizeof(address);
  char buf[16];
  const int server = FD(socket(AF_UNIX, SOCK_STREAM, 0)),
            client = FD(socket(AF_UNIX, SOCK_STREAM, 0));
  OP(connect(client, at, size));
  OP(bind(server, at, size));
  say_stat("socket");
  OP(bind(FD(socket(AF_UNIX, SOCK_STREAM, 0)), at, size));
  OP(connect(client, at, size));
  OP(listen(server, 1));
  OP(connect(client, at, size));
  const int peer = FD(accept(server, NULL, NULL));
  OP(write(client, "hello", 5));
  OP(read(peer, buf, sizeof(buf)));
  FD(open("socket", O_RDWR));
  OP(chmod("socket", 0600));
  OP(rename("socket", "moved"));
  strcpy(address.sun_path, "moved");
  OP(connect(FD(socket(AF_UNIX, SOCK_STREAM, 0)), at, size));
  OP(unlink("moved"));
  OP(connect(FD(socket(AF_UNIX, SOCK_STREAM, 0)), at, size));
  OP(bind(FD(socket(AF_UNIX, SOCK_DGRAM, 0)), at, size));
  say_stat("moved");
  strcpy(address.sun_path, "missing/socket");
  OP(bind(FD(socket(AF_UNIX, SOCK_DGRAM, 0)), at, size));
}
