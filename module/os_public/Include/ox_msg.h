/* SPDX-License-Identifier: GPL-2.0 */
/*
 * All records between the module and user space: change records and control messages on the netlink
 * socket, the records of the socket options, and all codes. The only definition for both sides;
 * usable with kernel and libc headers, from C and C++.
 *
 * Integers are in host byte order. The records have no padding and no alignment: a pointer into any
 * byte buffer may be cast to them.
 */
#ifndef OX_MSG_H
#define OX_MSG_H

#include "TypeDef.h"

#define OX_PACKED __attribute__((packed))
#define OX_AT(type, field, offset)                                  \
  static_assert(__builtin_offsetof(struct type, field) == (offset), \
                #type "." #field " is misplaced")
#define OX_SIZE(type, size) static_assert(sizeof(struct type) == (size), #type " has a wrong size")

/*
 * The id of a rule or of a replicated directory: 16 raw bytes. The module compares with strncmp
 * over 16 bytes: two ids that agree up to a common zero byte are equal.
 */
#define OX_UUID_LEN 16
#define OX_UUID_TEXT 37 /* size of the text form with its NUL */
typedef unsigned char uuid_t[OX_UUID_LEN];

/* ---- change records ---- */

/* The `op` byte of a change record. */
enum ox_op {
  OX_OP_CREATE = 0,
  OX_OP_MKDIR = 1,
  OX_OP_UNLINK = 2,
  OX_OP_RMDIR = 3,
  /* 4 is never produced */
  OX_OP_SYMLINK = 5,
  OX_OP_LINK = 6,
  OX_OP_RENAME = 7,
  OX_OP_SETATTR = 8,
  OX_OP_WRITE = 9,     /* also the netlink type of one page of a large write */
  OX_OP_COLLECT = 10,  /* netlink type only: one whole change record */
  OX_OP_STOP_RULE = 12 /* netlink type only: the UUID of a rule that the module has stopped */
};

/* Values of `os`. */
#define OX_OS_LINUX 1

/* Values of `cp`: how the record's path (the first of two) relates to the object. */
enum ox_naming {
  OX_CP_NAMED = 0,    /* its name */
  OX_CP_NAMELESS = 1, /* for display only: the object is open, but has no name any more */
  OX_CP_UNPLACED = 2  /* a former name: the object's present one is unknown */
};

/* The common header of all change records. */
struct ox_msg {
  uuid_t uuid;   /* the rule of this copy of the record */
  ox_u64_t ts;   /* capture time, microseconds since the epoch */
  ox_u32_t wseq; /* 1, 2, 3, ... per rule */
  union {
    struct {
      ox_u8_t op;  /* enum ox_op */
      ox_u8_t os;  /* OX_OS_LINUX */
      ox_u16_t cp; /* enum ox_naming */
    } OX_PACKED;
    ox_s32_t error; /* no meaning */
  } OX_PACKED;
  ox_u32_t seq; /* the rule's generation: changes when it is deleted and added again */
  ox_u32_t l1;  /* l1 and l2 depend on the operation */
  ox_u32_t l2;
} OX_PACKED;

#define OX_MSG_LEN 44
OX_SIZE(ox_msg, OX_MSG_LEN);
OX_AT(ox_msg, uuid, 0);
OX_AT(ox_msg, ts, 16);
OX_AT(ox_msg, wseq, 24);
OX_AT(ox_msg, op, 28);
OX_AT(ox_msg, os, 29);
OX_AT(ox_msg, cp, 30);
OX_AT(ox_msg, error, 28);
OX_AT(ox_msg, seq, 32);
OX_AT(ox_msg, l1, 36);
OX_AT(ox_msg, l2, 40);

/*
 * A change of a name: OX_OP_CREATE, MKDIR, UNLINK, RMDIR, SYMLINK, LINK, RENAME. Its length is
 * 44 + dlen1 + dlen2. The second string is the target text of a symbolic link, or the new path of a
 * link or of a renamed object.
 */
struct ox_msg_para {
  uuid_t uuid;
  ox_u64_t ts;
  ox_u32_t wseq;
  ox_u8_t op;
  ox_u8_t os;
  ox_u16_t cp;
  ox_u32_t seq;
  ox_u16_t dlen1; /* bytes of the first path, NUL included */
  ox_u16_t dlen2; /* bytes of the second string, NUL included; 0: there is none */
  ox_u32_t mode;
  char data[]; /* both strings without a gap */
} OX_PACKED;

#define OX_MSG_PARA_LEN 44
OX_SIZE(ox_msg_para, OX_MSG_PARA_LEN);
OX_AT(ox_msg_para, ts, 16);
OX_AT(ox_msg_para, wseq, 24);
OX_AT(ox_msg_para, op, 28);
OX_AT(ox_msg_para, os, 29);
OX_AT(ox_msg_para, cp, 30);
OX_AT(ox_msg_para, seq, 32);
OX_AT(ox_msg_para, dlen1, 36);
OX_AT(ox_msg_para, dlen2, 38);
OX_AT(ox_msg_para, mode, 40);
OX_AT(ox_msg_para, data, 44);

/* The attributes of an attribute change; times in microseconds. Only those in ia_valid have a
 * meaning. */
struct attr_common {
  ox_s32_t ia_valid; /* the kernel's ATTR_* bits */
  ox_s32_t ia_mode;
  ox_u64_t ia_size;
  ox_u64_t ia_atime;
  ox_u64_t ia_mtime;
  ox_u64_t ia_ctime;
  short len;  /* OX_ATTR_LEN: attr_common and lin_sec together */
  short type; /* no meaning */
} OX_PACKED;

OX_SIZE(attr_common, 44);
OX_AT(attr_common, ia_valid, 0);
OX_AT(attr_common, ia_mode, 4);
OX_AT(attr_common, ia_size, 8);
OX_AT(attr_common, ia_atime, 16);
OX_AT(attr_common, ia_mtime, 24);
OX_AT(attr_common, ia_ctime, 32);
OX_AT(attr_common, len, 40);
OX_AT(attr_common, type, 42);

struct lin_sec {
  ox_u32_t ia_modeshadow; /* the same as ia_mode */
  ox_u32_t ia_uid;
  ox_u32_t ia_gid;
} OX_PACKED;

OX_SIZE(lin_sec, 12);
OX_AT(lin_sec, ia_modeshadow, 0);
OX_AT(lin_sec, ia_uid, 4);
OX_AT(lin_sec, ia_gid, 8);

#define OX_ATTR_LEN 56

/* The bits of ia_valid. */
enum ox_attr_bit {
  OX_ATTR_MODE = 1,
  OX_ATTR_UID = 2,
  OX_ATTR_GID = 4,
  OX_ATTR_SIZE = 8,
  OX_ATTR_ATIME = 16,
  OX_ATTR_MTIME = 32,
  OX_ATTR_CTIME = 64,
  OX_ATTR_ATIME_SET = 128,
  OX_ATTR_MTIME_SET = 256,
  OX_ATTR_FORCE = 512,
  OX_ATTR_ATTR_FLAG = 1024,
  OX_ATTR_KILL_SUID = 2048,
  OX_ATTR_KILL_SGID = 4096,
  OX_ATTR_FILE = 8192
};

/* A change of attributes, OX_OP_SETATTR. Its length is 88 + dlen1 + dlen2. */
struct ox_msg_attr {
  uuid_t uuid;
  ox_u64_t ts;
  ox_u32_t wseq;
  ox_u8_t op;
  ox_u8_t os;
  ox_u16_t cp;
  ox_u32_t seq;
  ox_u32_t dlen1; /* bytes of `sec`: 12 */
  ox_u32_t dlen2; /* bytes of the path, NUL included */
  struct attr_common com;
  struct lin_sec sec;
  char name[];
} OX_PACKED;

#define OX_MSG_ATTR_LEN 88 /* up to `sec`, which dlen1 counts */
OX_SIZE(ox_msg_attr, 100);
OX_AT(ox_msg_attr, ts, 16);
OX_AT(ox_msg_attr, wseq, 24);
OX_AT(ox_msg_attr, op, 28);
OX_AT(ox_msg_attr, os, 29);
OX_AT(ox_msg_attr, cp, 30);
OX_AT(ox_msg_attr, seq, 32);
OX_AT(ox_msg_attr, dlen1, 36);
OX_AT(ox_msg_attr, dlen2, 40);
OX_AT(ox_msg_attr, com, 44);
OX_AT(ox_msg_attr, sec, OX_MSG_ATTR_LEN);
OX_AT(ox_msg_attr, name, 100);

/* Values of ox_msg_wr.type. */
enum ox_write_type {
  OX_WRITE_WHOLE = 1, /* all data is in this record */
  OX_WRITE_PAGED = 2  /* the data is split over `pages` messages */
};

/* Written data, OX_OP_WRITE. Its length is 60 + dlen1 + dlen2. */
struct ox_msg_wr {
  uuid_t uuid;
  ox_u64_t ts;
  ox_u32_t wseq;
  ox_u8_t op;
  ox_u8_t os;
  ox_u16_t cp;
  ox_u32_t seq;
  ox_u16_t type;  /* enum ox_write_type */
  ox_u16_t dlen1; /* bytes of the path field: NUL included, rounded up to a multiple of 8; 0 in
                     later pages */
  ox_u32_t dlen2; /* data bytes in this record or page */
  ox_u64_t off;   /* file offset of its first data byte */
  ox_u32_t pagenr;
  ox_u32_t pages;
  char data[]; /* the path field, then the written bytes */
} OX_PACKED;

#define OX_MSG_WR_LEN 60
OX_SIZE(ox_msg_wr, OX_MSG_WR_LEN);
OX_AT(ox_msg_wr, ts, 16);
OX_AT(ox_msg_wr, wseq, 24);
OX_AT(ox_msg_wr, op, 28);
OX_AT(ox_msg_wr, os, 29);
OX_AT(ox_msg_wr, cp, 30);
OX_AT(ox_msg_wr, seq, 32);
OX_AT(ox_msg_wr, type, 36);
OX_AT(ox_msg_wr, dlen1, 38);
OX_AT(ox_msg_wr, dlen2, 40);
OX_AT(ox_msg_wr, off, 44);
OX_AT(ox_msg_wr, pagenr, 52);
OX_AT(ox_msg_wr, pages, 56);
OX_AT(ox_msg_wr, data, 60);

/* The largest payload of a write record, and of each page of a larger one. */
#define OX_PAGE_PAYLOAD 4096
/* Data bytes of a page that has no path field. */
#define OX_PAGE_DATA (OX_PAGE_PAYLOAD - OX_MSG_WR_LEN)
/* The longest path in a record, NUL included. */
#define OX_PATH_MAX 4096

/* ---- netlink ---- */

/* The netlink protocol. Every message is a struct nlmsghdr, 16 bytes, and its payload. */
#define OX_NETLINK_UNIT 29
#define OX_NLMSG_HDRLEN 16
#define OX_NLM_F_MULTI 2 /* the header flag of page messages */

/*
 * Message types from the daemon. It may also send OX_SO_REP_ADD and OX_SO_REP_DEL with a struct
 * prule and OX_SO_REP_FLUSH; each is answered by a message of the same type with the signed 32-bit
 * result.
 */
enum ox_nl_type {
  OX_NL_HELO = 100, /* registers the sender as the daemon */
  OX_NL_QUIT = 101, /* unregisters the daemon */
  OX_NL_RESPONSE = 103
};

/* The signal that the daemon gets when a message to it was lost. */
#define OX_SIG_LOST 58

/* ---- socket options (level PF_INET) ---- */

/* To change the rules. */
enum ox_so_rule_set {
  OX_SO_REP_ADD = 177,  /* struct prule */
  OX_SO_REP_DEL = 179,  /* struct prule, of which only the UUID counts */
  OX_SO_REP_FLUSH = 182 /* anything */
};

/* To read the rules. */
enum ox_so_rule_get {
  OX_SO_GET_INFO = 177, /* struct prule_info: by its `op` */
  OX_SO_GET_RULE =
      178, /* struct prule_info with a UUID; the buffer holds a struct prule afterwards */
  OX_SO_GET_RULES =
      179 /* struct prule_info with the number of rules; all struct prule afterwards */
};

/* To change the replicated directories and the daemon's program path. */
enum ox_so_dir_set {
  OX_SO_DIR_ADD = 190,   /* struct dir */
  OX_SO_DIR_DEL = 191,   /* struct dir, of which only the UUID counts */
  OX_SO_DIR_FLUSH = 192, /* anything */
  OX_SO_SET_DAEMON = 193 /* the path, NUL-terminated */
};

/* The registered ranges, first and last code. */
#define OX_SO_RULE_SET_FIRST 177
#define OX_SO_RULE_SET_LAST 188
#define OX_SO_RULE_GET_FIRST 177
#define OX_SO_RULE_GET_LAST 181
#define OX_SO_DIR_SET_FIRST 190
#define OX_SO_DIR_SET_LAST 195

/*
 * Results of the socket options and of the netlink rule messages, besides 0. A positive result is
 * the number of bytes that could not be copied from or to the caller's buffer. Changes and reads by
 * a caller without CAP_NET_ADMIN are refused with -EPERM.
 */
enum ox_result {
  OX_ERR_NOMEM = -1000,
  OX_ERR_REQUEST = -1001, /* unknown request; a delete of wrong length */
  OX_ERR_EXIST = -1002,   /* a rule or directory of that UUID exists */
  OX_ERR_NOENT = -1003,   /* none of that UUID exists */
  OX_ERR_SIZE = -1004,    /* wrong length of a record; unknown `op` */
  OX_ERR_COUNT = -1005,   /* the caller's rule count is not the set's */
  OX_ERR_PATTERN = -1007  /* the rule's workdir could not be compiled */
};

#define OX_WORKDIR_LEN 16000

/*
 * A replication rule. `workdir` lists directories: entries separated by ',', CR or LF, each the
 * Base64 text of one path, excluded when it begins with '!'.
 */
struct prule {
  uuid_t uuid;
  char workdir[OX_WORKDIR_LEN];
} OX_PACKED;

OX_SIZE(prule, 16016);
OX_AT(prule, uuid, 0);
OX_AT(prule, workdir, 16);

/* Values of prule_info.op. */
enum ox_info_op {
  OX_INFO_COUNT = 2, /* rulenum becomes the number of rules */
  OX_INFO_EXIST = 3  /* rulenum becomes 1 if the rule exists, else does not change */
};

struct prule_info {
  ox_s32_t op;
  ox_s32_t rulenum;
  uuid_t uuid;
} OX_PACKED;

OX_SIZE(prule_info, 24);
OX_AT(prule_info, op, 0);
OX_AT(prule_info, rulenum, 4);
OX_AT(prule_info, uuid, 8);

#define OX_REPDIR_LEN 512
#define OX_DAEMON_PATH_LEN 512

/* A directory whose contents the daemon owns. */
struct dir {
  uuid_t uuid;
  char repdir[OX_REPDIR_LEN];
} OX_PACKED;

OX_SIZE(dir, 528);
OX_AT(dir, uuid, 0);
OX_AT(dir, repdir, 16);

#endif
