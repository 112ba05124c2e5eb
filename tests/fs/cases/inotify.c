// SPDX-License-Identifier: GPL-2.0
// inotify: what a watcher is told of the operations on a directory.
#include "case.h"
#include <sys/inotify.h>

static const struct {
  unsigned bit;
  const char *name;
} kEvents[] = {
    {IN_ACCESS, "accessed"},       {IN_MODIFY, "modified"},           {IN_ATTRIB, "attributes"},
    {IN_CLOSE_WRITE, "closed"},    {IN_CLOSE_NOWRITE, "closed-read"}, {IN_OPEN, "opened"},
    {IN_MOVED_FROM, "moved-from"}, {IN_MOVED_TO, "moved-to"},         {IN_CREATE, "made"},
    {IN_DELETE, "removed"},        {IN_DELETE_SELF, "self-removed"},  {IN_ISDIR, "directory"},
    {IN_IGNORED, "ignored"}};

static void say_events(int fd) {
  static char buf[65536] __attribute__((aligned(8)));
  const ssize_t size = read(fd, buf, sizeof(buf));
  for (ssize_t at = 0; at < size;) {
    const struct inotify_event *event = (const void *)(buf + at);
    char line[256] = "";
    for (size_t i = 0; i < sizeof(kEvents) / sizeof(kEvents[0]); i++)
      if (event->mask & kEvents[i].bit) {
        strcat(line, " ");
        strcat(line, kEvents[i].name);
      }
    say("  %s:%s", event->len ? event->name : "(itself)", line);
    at += (ssize_t)(sizeof(*event) + event->len);
  }
  if (size <= 0) say("  nothing");
}

static void run_case(void) {
  char buf[8];
  SETUP(mkdir("d", 0755));
  SETUP(mkdir("e", 0755));
  const int watch = FD(inotify_init());
  if (watch < 0) return;
  SETUP(fcntl(watch, F_SETFL, O_NONBLOCK));
  OP(inotify_add_watch(watch, "d", IN_ALL_EVENTS) >= 0);
  OP(inotify_add_watch(watch, "missing", IN_ALL_EVENTS));
  const int fd = FD(open("d/f", O_CREAT | O_RDWR, 0644));
  say_events(watch);
  OP(write(fd, "x", 1));
  OP(pread(fd, buf, 1, 0));
  OP(ftruncate(fd, 0));
  OP(fchmod(fd, 0600));
  say_events(watch);
  OP(close(fd));
  say_events(watch);
  OP(close(FD(open("d/f", O_RDONLY))));
  say_events(watch);
  OP(mkdir("d/sub", 0755));
  OP(symlink("x", "d/link"));
  OP(link("d/f", "d/hard"));
  say_events(watch);
  OP(rename("d/f", "d/g"));
  OP(rename("d/g", "e/g"));
  OP(rename("e/g", "d/h"));
  say_events(watch);
  OP(unlink("d/h"));
  OP(unlink("d/hard"));
  OP(rmdir("d/sub"));
  say_events(watch);
  OP(unlink("d/link"));
  OP(rmdir("d"));
  say_events(watch);
}
