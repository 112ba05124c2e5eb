/* SPDX-License-Identifier: GPL-2.0 */
#define _GNU_SOURCE
#include "nfs.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "guest.h"
#include "image.h"

#define EXPORT "/tmp/export"
#define CLIENT "self"

enum {
  kServerCall = 180, /* nfsservctl, which the C library has forgotten */
  kServe = 0,
  kAddClient = 1,
  kExport = 3,
  kGetHandle = 8,
  kVersion = 0x0201,
  kPort = 2049,
  kThreads = 4,
  kInsecurePort = 2,
  kAsync = 0x10,
  /* A handle names the file alone, not also the directory that it was found in: two names of one
   * file are one inode here, whether they were looked up or linked. */
  kNoSubtreeCheck = 0x400,
};

/* What nfsservctl takes: the kernel's structures for its NFS server. */
struct server_arguments {
  int version;
  union {
    struct {
      unsigned short port;
      int threads;
    } serve;
    struct {
      char name[1025];
      int count;
      struct in_addr address[16];
      int key_type, key_length;
      unsigned char key[32];
    } client;
    struct {
      char client[1025], path[1025];
      unsigned long device, inode;
      int flags;
      unsigned uid, gid;
    } share;
    struct {
      struct sockaddr address;
      char path[1025];
      int length;
    } handle;
    void *align;
  };
};

struct file_handle {
  unsigned size;
  unsigned char data[128];
};

/* What mount takes for "nfs", version 6. */
struct mount_arguments {
  int version, fd;
  unsigned char old_root[32];
  int flags, rsize, wsize, timeo, retrans, acregmin, acregmax, acdirmin, acdirmax;
  struct sockaddr_in address;
  char hostname[256];
  int namlen;
  unsigned bsize;
  struct {
    unsigned short size;
    unsigned char data[64];
  } root;
  int flavour;
  char context[257];
};

/* Attributes hold for longer than the tests last: with a short time, or none, what the client asks
 * the server depends on how quickly the calls follow each other. */
enum { kMountVersion = 6, kVersion3 = 0x80, kNoLocks = 0x200, kSecondsOfAttributes = 86400 };

static struct sockaddr_in loopback(int port) {
  const struct sockaddr_in address = {.sin_family = AF_INET,
                                      .sin_port = htons((unsigned short)port),
                                      .sin_addr = {htonl(INADDR_LOOPBACK)}};
  return address;
}

static int bring_up_loopback(void) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  const struct sockaddr_in address = loopback(0);
  struct ifreq request = {.ifr_name = "lo"};
  int result;

  memcpy(&request.ifr_addr, &address, sizeof(address));
  result = ioctl(fd, SIOCSIFADDR, &request);
  request.ifr_flags = IFF_UP | IFF_RUNNING | IFF_LOOPBACK;
  if (result == 0) result = ioctl(fd, SIOCSIFFLAGS, &request);
  close(fd);
  return result;
}

/* The kernel's servers register with a port mapper and do not start without: this one agrees to
 * everything. It stays, for the server takes its leave of it some time after it was stopped. */
static void answer_registrations(int fd) {
  unsigned call[128];
  struct sockaddr_in from;
  socklen_t length = sizeof(from);

  while (recvfrom(fd, call, sizeof(call), 0, (struct sockaddr *)&from, &length) >=
         (ssize_t)(6 * sizeof(*call))) {
    const unsigned accepted[7] = {call[0], htonl(1), 0, 0, 0, 0, htonl(1)};
    sendto(fd, accepted, sizeof(accepted), 0, (struct sockaddr *)&from, length);
    length = sizeof(from);
  }
}

static int start_portmapper(void) {
  const struct sockaddr_in address = loopback(111);
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  pid_t pid;

  if (fd < 0 || bind(fd, (const struct sockaddr *)&address, sizeof(address))) return -1;
  pid = fork();
  if (pid == 0) {
    answer_registrations(fd);
    _exit(0);
  }
  close(fd);
  return pid < 0 ? -1 : 0;
}

static int call_server(int command, struct server_arguments *arguments, void *result) {
  arguments->version = kVersion;
  return (int)syscall(kServerCall, command, arguments, result);
}

static int export_directory(void) {
  static struct server_arguments arguments;
  struct stat st;

  memset(&arguments, 0, sizeof(arguments));
  strcpy(arguments.client.name, CLIENT);
  arguments.client.count = 1;
  arguments.client.address[0].s_addr = htonl(INADDR_LOOPBACK);
  if (call_server(kAddClient, &arguments, NULL) < 0 || stat(EXPORT, &st)) return -1;
  memset(&arguments, 0, sizeof(arguments));
  strcpy(arguments.share.client, CLIENT);
  strcpy(arguments.share.path, EXPORT);
  arguments.share.device = st.st_dev;
  arguments.share.inode = st.st_ino;
  arguments.share.flags = kInsecurePort | kAsync | kNoSubtreeCheck;
  /* 2.6.18 says ENOMEM also when it has done it; whether it has, the file handle will tell. */
  if (call_server(kExport, &arguments, NULL) < 0 && errno != ENOMEM) return -1;
  memset(&arguments, 0, sizeof(arguments));
  arguments.serve.port = kPort;
  arguments.serve.threads = kThreads;
  return call_server(kServe, &arguments, NULL) < 0 ? -1 : 0;
}

static int get_handle(struct file_handle *handle) {
  static struct server_arguments arguments;
  const struct sockaddr_in address = loopback(0);

  memset(&arguments, 0, sizeof(arguments));
  memcpy(&arguments.handle.address, &address, sizeof(address));
  strcpy(arguments.handle.path, EXPORT);
  arguments.handle.length = 64;
  return call_server(kGetHandle, &arguments, handle) < 0 ? -1 : 0;
}

static int mount_handle(const struct file_handle *handle, const char *at) {
  struct mount_arguments arguments = {.version = kMountVersion,
                                      .flags = kVersion3 | kNoLocks,
                                      .rsize = 4096,
                                      .wsize = 4096,
                                      .timeo = 30,
                                      .retrans = 5,
                                      .acregmin = kSecondsOfAttributes,
                                      .acregmax = kSecondsOfAttributes,
                                      .acdirmin = kSecondsOfAttributes,
                                      .acdirmax = kSecondsOfAttributes,
                                      .address = loopback(kPort),
                                      .hostname = CLIENT,
                                      .namlen = 255};

  arguments.fd = socket(AF_INET, SOCK_DGRAM, 0);
  arguments.root.size = (unsigned short)handle->size;
  memcpy(arguments.root.data, handle->data, sizeof(arguments.root.data));
  return mount(CLIENT ":" EXPORT, at, "nfs", 0, &arguments);
}

static int step(int result, const char *what) {
  if (result) printf("  nfs: %s: %s\n", what, strerror(errno));
  return result;
}

int nfs_mount(const char *at) {
  struct file_handle handle = {0, {0}};

  mkdir(EXPORT, 0755);
  if (step(bring_up_loopback(), "loopback") || step(start_portmapper(), "port mapper") ||
      step(mount_image("/ext2.img", "ext2", "user_xattr,acl", EXPORT),
           "mounting what is exported") ||
      step(export_directory(), "exporting") || step(get_handle(&handle), "file handle"))
    return -1;
  return step(mount_handle(&handle, at), "mounting");
}

static int stop_server(void) {
  static struct server_arguments arguments;

  memset(&arguments, 0, sizeof(arguments));
  arguments.serve.port = kPort;
  return call_server(kServe, &arguments, NULL) < 0 ? -1 : 0;
}

/* What the server has remembered until now is forgotten, handles first: they hold the exports. */
static int forget_exports(void) {
  static const char *const caches[] = {"/proc/net/rpc/nfsd.fh/flush",
                                       "/proc/net/rpc/nfsd.export/flush"};

  for (int i = 0; i < 2; i++) {
    if (write_text(caches[i], "2147483647") || write_text(caches[i], "1")) return -1;
  }
  return 0;
}

int nfs_unmount(const char *at) {
  int result = step(umount(at), "unmounting");

  if (result == 0) result = step(stop_server(), "stopping the server");
  if (result == 0) result = step(forget_exports(), "forgetting exports");
  return result ? result : step(unmount_image(EXPORT), "unmounting what was exported");
}
