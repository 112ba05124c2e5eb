/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The control socket of the mirrord service: what the service reports of itself, what it can be
 * asked to do, and the server that lets other processes ask. The protocol is in protocol.h, the
 * commands that use it in commands.h.
 *
 * Reports are plain values. The service implements ServiceControl and owns it; the server calls it
 * from a thread per connection until ~ControlServer().
 */
#ifndef TARN_MIRRORD_CONTROL_CONTROL_H
#define TARN_MIRRORD_CONTROL_CONTROL_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "mirrord/verify/difference.h"

namespace tarn {

/* What a target is: only the first kind can be compared, mended or stepped on by this service. */
inline constexpr char kDirectoryKind[] = "directory"; /* on this host */
inline constexpr char kStreamKind[] = "stream";
inline constexpr char kReplicaKind[] = "replica"; /* of a stream, on another host */

struct TargetReport {
  std::string name, directory;
  std::string kind = kDirectoryKind;
  /* One word: equal, following, copying, healing, paused, held, away, starting. */
  std::string state;
  std::string last_error;     /* one line; "" if there is none */
  std::uint64_t position = 0; /* the next log entry to apply */
  std::uint64_t lag_entries = 0, lag_bytes = 0;
  double lag_seconds = 0;
  std::uint64_t applied = 0, failures = 0;
  std::uint64_t gaps = 0; /* declared and not healed yet */
  std::uint64_t skipped = 0;
  double progress = -1;         /* 0..1 of a copy or a healing; -1: there is none */
  double seconds_left = -1;     /* -1: unknown */
  double bytes_per_second = -1; /* that it reads of the source, on average; -1: there is none */
  /* Since the last report of a replica on another host; -1: none came since the service started, or
   * it is no replica. */
  double contact_seconds = -1;
};

struct SourceReport {
  std::string name, directory;
  std::string rule;           /* the UUID's text */
  std::uint64_t captured = 0; /* the highest record number that was seen */
  std::uint64_t logged = 0;   /* records appended since the log was made */
  std::uint64_t gaps = 0;     /* declared since the log was made */
  std::string last_gap;       /* one line; "" if there is none */
  std::uint64_t log_bytes = 0, log_limit = 0, log_first = 0, log_end = 0, log_durable = 0;
  double log_age_seconds = 0;
  bool stopped = false; /* the module captures nothing more for the rule */
  std::vector<TargetReport> targets;
};

struct ServiceReport {
  int pid = 0;
  std::string version;
  double uptime_seconds = 0;
  bool connected = false; /* to the module */
  std::string connection_error;
  std::vector<SourceReport> sources;
};

/* What an administrator has to look at, one line each: there is no connection, a source is stopped,
 * a target is held or away or has gaps that are not healed. */
std::vector<std::string> problems(const ServiceReport &report);

/* "" target: all of the source; both "": all targets. */
struct TargetName {
  std::string source, target;
};

/* Any thread may call, several at once; each call blocks as long as its work takes. */
class ServiceControl {
 public:
  /*
   * Called from time to time (every 200 ms is enough) by whatever lasts, from any thread. False:
   * the caller has gone or the service ends; return -ECANCELED soon. `done` is 0..1, or negative if
   * it is unknown; `what` is one line.
   */
  using Progress = std::function<bool(double done, const std::string &what)>;

  virtual ~ServiceControl() = default;
  virtual ServiceReport report() = 0;
  /* Returns when everything changed before the call is in the targets. Errors: -ETIMEDOUT; -ENOENT:
   * no such target; -EIO with why it cannot end (held, away, paused). */
  virtual Result<void> wait(const TargetName &name, std::chrono::milliseconds timeout,
                            const Progress &progress) = 0;
  virtual Result<void> pause(const TargetName &name) = 0;
  virtual Result<void> resume(const TargetName &name) = 0;
  /* Compares everything anew. */
  virtual Result<void> resync(const TargetName &name) = 0;
  /* Steps over the entry that holds one target; returns what was skipped. */
  virtual Result<std::string> skip(const TargetName &name) = 0;
  /* Forgets a replica on another host, which has the name STREAM:REPLICA: nothing is kept for it
   * any more. Errors: -ENOENT; -EINVAL: it is none. */
  virtual Result<void> retire(const TargetName &name) = 0;
  /* Of one target. Returns what differs or, with `repair`, what still does. */
  virtual Result<std::vector<Difference>> verify(const TargetName &name, bool repair,
                                                 const Progress &progress) = 0;
};

struct ControlLimits {
  std::size_t connections = 64; /* more are refused */
  /* For a client to send a whole request, and to take something of an answer. */
  std::chrono::milliseconds patience{10'000};
};

/*
 * Listens on a Unix socket of mode 0600 and serves each connection in a thread of its own. Peers
 * other than root and the user that runs the service are refused.
 */
class ControlServer {
 public:
  /*
   * Makes the socket's directory if it is missing; replaces a socket that nobody serves. Errors:
   * -EBUSY: a service answers there; -EPERM: the directory can be written by others; -EEXIST: there
   * is something that is no socket; those of socket(2), bind(2) and pthread_create(3).
   */
  static Result<std::unique_ptr<ControlServer>> open(const std::string &socket,
                                                     ServiceControl &service,
                                                     const ControlLimits &limits = {});

  /* Ends all connections and their threads; calls that last are told so by their Progress, the
   * others are waited for. Removes the socket. */
  ~ControlServer();
  ControlServer(const ControlServer &) = delete;
  ControlServer &operator=(const ControlServer &) = delete;

 private:
  class Impl;
  explicit ControlServer(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

/* In Prometheus' text format; mirrord(8) lists the names. */
std::string metrics_text(const ServiceReport &report);

/* Replaces the file atomically; meant for the node exporter, which may read it at any time. */
Result<void> write_metrics(const std::string &file, const ServiceReport &report);

}  // namespace tarn

#endif
