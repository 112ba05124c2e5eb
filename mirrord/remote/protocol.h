/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a replica on another host asks the source's host, and the answers; their one encoder and
 * decoder. Each answer follows from its question alone: a question may be asked twice, and answers
 * may be late or lost. Whoever asked takes the answer with its question's number and no other.
 *
 *   question                              answer
 *    0  1  version, 1                      0  1  version, 1
 *    1  1  kind                            1  1  kind; 0: Failure
 *    2  8  number, the asker's own         2  8  number of the question
 *   10  n  fields of the kind             10  8  the source's clock, microseconds since the epoch
 *       8  checksum                       18  n  fields of the kind
 *                                             8  checksum
 *
 * kind      question                      answer
 *  1 now    -                             -
 *  2 status texts: paths                  list of Found, for the first paths that fit, at least one
 *  3 list   path, object, after (text)    more (1), list of entries: name, inode (8), flags (1)
 *  4 read   path, object, from (8),       status before and after, error (4), attributes, end (8),
 *           to (8)                        list of pieces: offset (8), bytes
 *  5 walk   replica, since (8)            -
 *  6 mark   -                             number of the mark (8)
 *  7 report replica, epoch, state and     -
 *           error (texts), position, lag in
 *           entries, bytes and microseconds,
 *           gaps (8 each)
 *  8 hash   path, from (8), to (8)        version: device, inode, change time in seconds and
 *                                         nanoseconds (8 each); list of hashes (16 each)
 *  9 holes  path, from (8)                more (1), list of holes of 64 KiB and more: offset and
 *                                         length (8 each)
 * 10 about  -                             run (8), directory, list of excluded paths (texts)
 * 11 again  epoch, position, number of    coming (1)
 *           the last message (8 each)
 *
 * The checksum is the XXH3-64 of all before it. Integers are little-endian. A text, like a list, is
 * its length (4 bytes) and its bytes or items. A path is relative to the source. An object is
 * device (8) and inode (8); a question about a path that no longer has that object fails with
 * ENOENT. A status is mode, user, group (4 each), device, inode, links, rdev, size, blocks (8
 * each), and the times of access, modification and change as seconds (8) and nanoseconds (4).
 * Attributes are a list of names and values, in ascending order. Found is error (4; ENOENT: no such
 * path) and, if it is 0, the status, the link's target, the error of reading the attributes (4) and
 * the attributes. Errors are numbers of Linux. A Failure is the error (4) and its text.
 *
 * Hashes are XXH3-128 of blocks of 1 MiB, low half first; fewer when the file ends. The version is
 * zero if the file changed meanwhile.
 *
 * The run is another one whenever mirrord has been started over there: walks that were asked for
 * before have ended.
 *
 * An entry that is not coming, although the stream lacks it, is not in the source's log any more.
 *
 * A decoder accepts exactly what its encoder writes, and trusts no length.
 */
#ifndef TARN_MIRRORD_REMOTE_PROTOCOL_H
#define TARN_MIRRORD_REMOTE_PROTOCOL_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "base/result.h"
#include "client/messages.h"
#include "mirrord/directory_walk.h"
#include "mirrord/verify/source_tree.h"
#include "mirrord/xattrs.h"

namespace tarn::remote {

/* Neither questions nor answers are longer: half of what the engine between takes at most. */
inline constexpr std::size_t kMessageMax = 512 << 10;

struct Object {
  std::uint64_t device = 0, inode = 0;
  bool operator==(const Object &) const = default;
};

struct NowQuestion {};
struct StatusQuestion {
  std::vector<std::string> paths;
};
struct ListQuestion {
  std::string path;
  Object object;
  std::string after; /* the last name of the answer before; "": from the beginning */
};
struct ReadQuestion {
  std::string path;
  Object object;
  std::uint64_t from = 0, to = 0;
};
struct WalkQuestion {
  std::string replica;
  std::int64_t since = 0;
};
struct MarkQuestion {};
struct ReportQuestion {
  std::string replica;
  std::string epoch;          /* of the source's log */
  std::string state, error;   /* as TargetReport has them */
  std::uint64_t position = 0; /* what lies before it nobody else has to keep */
  std::uint64_t lag_entries = 0, lag_bytes = 0, lag_us = 0, gaps = 0;
};
struct HashQuestion {
  std::string path;
  std::uint64_t from = 0, to = 0; /* `from`: a multiple of kBlockSize */
};
struct HolesQuestion {
  std::string path;
  std::uint64_t from = 0; /* where the last one of the answer before ends */
};
struct AboutQuestion {};
struct AgainQuestion {
  std::string epoch;          /* of the source's log */
  std::uint64_t position = 0; /* of the entry that the stream lacks */
  std::uint64_t seen = 0;     /* the number of the last message that was looked at */
};
using Question = std::variant<NowQuestion, StatusQuestion, ListQuestion, ReadQuestion, WalkQuestion,
                              MarkQuestion, ReportQuestion, HashQuestion, HolesQuestion,
                              AboutQuestion, AgainQuestion>;

struct Failure {
  int error = 0;
  std::string text;
};
struct NowAnswer {};
struct Found {
  int error = 0;
  struct stat status = {};
  std::string target;
  int xattrs_error = 0;
  Xattrs xattrs;
};
struct StatusAnswer {
  std::vector<Found> found;
};
struct ListAnswer {
  bool more = false;
  std::vector<DirectoryEntry> entries; /* in the order of their names' bytes */
};
struct Piece {
  std::uint64_t at = 0;
  Bytes data;
};
struct ReadAnswer {
  struct stat before = {}, after = {}; /* of the reading */
  int xattrs_error = 0;
  Xattrs xattrs;
  std::uint64_t end = 0;     /* what lies before it and in no piece is a hole, or behind the end */
  std::vector<Piece> pieces; /* ascending and apart; the bytes are the message's */
};
struct WalkAnswer {};
struct MarkAnswer {
  std::uint64_t number = 0;
};
struct ReportAnswer {};
struct HashAnswer {
  Version version;
  std::vector<Hash> hashes;
};
struct HolesAnswer {
  bool more = false;
  std::vector<Hole> holes;
};
struct AboutAnswer {
  std::uint64_t run = 0;
  std::string directory;            /* of the source; absolute */
  std::vector<std::string> exclude; /* absolute paths below it */
};
struct AgainAnswer {
  bool coming = false; /* the entry and all that follow are sent again */
};
/* In the order of the questions, behind Failure. */
using Answer =
    std::variant<Failure, NowAnswer, StatusAnswer, ListAnswer, ReadAnswer, WalkAnswer, MarkAnswer,
                 ReportAnswer, HashAnswer, HolesAnswer, AboutAnswer, AgainAnswer>;

struct NumberedQuestion {
  std::uint64_t number = 0;
  Question question;
};
struct NumberedAnswer {
  std::uint64_t number = 0;
  std::int64_t now = 0;
  Answer answer;
};

std::vector<std::byte> encode(const NumberedQuestion &question);
std::vector<std::byte> encode(const NumberedAnswer &answer);
/* How many bytes of an answer it takes. */
std::size_t size_of(const Found &item);
std::size_t size_of(const DirectoryEntry &item);

/* Error codes: -EPROTONOSUPPORT, another version; -EBADMSG. */
Result<NumberedQuestion> decode_question(Bytes message);
/* Its bytes are those of the message. */
Result<NumberedAnswer> decode_answer(Bytes message);

}  // namespace tarn::remote

#endif
