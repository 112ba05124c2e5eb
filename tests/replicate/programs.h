/* SPDX-License-Identifier: GPL-2.0 */
/* Programs that change a source, and the records that the module makes of it. */
#ifndef TARN_TESTS_REPLICATE_PROGRAMS_H
#define TARN_TESTS_REPLICATE_PROGRAMS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include <fmt/format.h>

#include "tests/replicate/message_builder.h"

namespace tarn::test {

/* As records tell it. */
inline std::uint64_t record_time() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                        std::chrono::system_clock::now().time_since_epoch())
                                        .count());
}

/* A source that is changed as programs do, and the records of it, waiting. The rule includes in/
 * and excludes in/out/. */
class Programs {
 public:
  Programs(std::string source, unsigned seed) : source_(std::move(source)), random_(seed) {
    for (const char *name : {"in", "in/out", "in/a", "in/b", "in/out/c"})
      std::filesystem::create_directory(at(name));
    for (const char *name : {"in", "in/a", "in/b"}) names_changed(OX_OP_MKDIR, name, "", 0777);
  }

  void step() {
    using Step = void (Programs::*)();
    static constexpr Step kSteps[] = {
        &Programs::create,  &Programs::create,        &Programs::write,   &Programs::write,
        &Programs::write,   &Programs::mkdir,         &Programs::unlink,  &Programs::rmdir,
        &Programs::rename,  &Programs::rename,        &Programs::rename,  &Programs::link,
        &Programs::symlink, &Programs::truncate,      &Programs::chmod,   &Programs::chown,
        &Programs::mkfifo,  &Programs::mknod_regular, &Programs::refused, &Programs::nameless};
    (this->*kSteps[below(std::size(kSteps))])();
  }

  std::deque<Packet> records;
  std::string log; /* what was done, for whoever has to look into a failure */

  unsigned below(std::size_t n) { return static_cast<unsigned>(random_() % n); }

 private:
  std::string at(const std::string &name) const { return source_ + "/" + name; }

  std::string directory() {
    static constexpr const char *kDirectories[] = {"in",     "in/a",    "in/b",     "in/a/d",
                                                   "in/b/d", "in/out",  "in/out/c", "in/a/e",
                                                   "in/e",   "in/a/d/e"};
    return kDirectories[below(std::size(kDirectories))];
  }
  std::string name() {
    static constexpr const char *kNames[] = {"f", "g", "h", "d", "e"};
    return directory() + "/" + kNames[below(std::size(kNames))];
  }
  /* What may be changed under the name; 0: nothing. A file with a name in the rule is not changed
   * by an excluded one: no record would tell of that. */
  mode_t type(const std::string &name) const {
    struct stat s;
    if (lstat(at(name).c_str(), &s) != 0) return 0;
    return !in_rule(name) && !S_ISDIR(s.st_mode) && s.st_nlink > 1 ? 0 : s.st_mode & S_IFMT;
  }

  static bool in_rule(const std::string &name) {
    const bool in = name == "in" || name.starts_with("in/");
    return in && name != "in/out" && !name.starts_with("in/out/");
  }
  Stamp next(std::uint16_t cp = OX_CP_NAMED) {
    return {++number_, rule_uuid(), record_time(), cp, 7};
  }

  void send(std::vector<Packet> packets, const std::string &what) {
    for (Packet &p : packets) records.push_back(std::move(p));
    log += fmt::format("{}: {}\n", number_, what);
  }
  void names_changed(std::uint8_t op, const std::string &name, const std::string &second,
                     mode_t mode) {
    const bool two_paths = op == OX_OP_LINK || op == OX_OP_RENAME;
    if (!in_rule(name) && !(two_paths && in_rule(second))) {
      log += fmt::format("unseen op {} {} {}\n", op, name, second);
      return;
    }
    send({name_change(op, next(), at(name), two_paths ? at(second) : second, mode)},
         fmt::format("op {} {} {}", op, name, second));
  }
  void attributes_changed(const std::string &name, std::uint32_t valid, std::uint64_t size = 0) {
    if (!in_rule(name)) return;
    struct stat s {};
    lstat(at(name).c_str(), &s);
    send({set_attributes(next(), {at(name), valid | OX_ATTR_CTIME, s.st_mode, s.st_uid, s.st_gid,
                                  size, 0, 0, 0})},
         fmt::format("attributes {:x} of {} size {}", valid, name, size));
  }

  void create() {
    const std::string f = name();
    const int fd = open(at(f).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0640);
    if (fd < 0) return;
    ::close(fd);
    names_changed(OX_OP_CREATE, f, "", 0100640);
    attributes_changed(f, OX_ATTR_MODE | OX_ATTR_UID | OX_ATTR_GID);
  }
  void mkdir() {
    const std::string d = name();
    if (::mkdir(at(d).c_str(), 0755) != 0) return;
    names_changed(OX_OP_MKDIR, d, "", 0755);
    attributes_changed(d, OX_ATTR_MODE | OX_ATTR_UID | OX_ATTR_GID);
  }
  void write() {
    const std::string f = name();
    if (type(f) != S_IFREG) return;
    const int fd = open(at(f).c_str(), O_WRONLY | O_NOFOLLOW);
    if (fd < 0) return;
    const std::string data(1 + below(below(10) == 0 ? 9000 : 20),
                           static_cast<char>('a' + below(26)));
    const auto offset = below(100);
    if (pwrite(fd, data.data(), data.size(), offset) != static_cast<ssize_t>(data.size()))
      ADD_FAILURE() << "write";
    ::close(fd);
    if (in_rule(f))
      send(write_data(next(), at(f), offset, data),
           fmt::format("write {} {}+{} {}", f, offset, data.size(), data[0]));
    else
      log += fmt::format("unseen write {}\n", f);
  }
  void unlink() {
    const std::string f = name();
    if (::unlink(at(f).c_str()) == 0) names_changed(OX_OP_UNLINK, f, "", 0);
  }
  void rmdir() {
    const std::string d = name();
    if (type(d) != S_IFDIR) return;
    static_cast<void>(::rmdir(at(d).c_str()));  // recorded even if it is refused
    names_changed(OX_OP_RMDIR, d, "", 0);
  }
  void rename() {
    const std::string from = name(), to = name();
    struct stat a, b;
    if (lstat(at(from).c_str(), &a) != 0) return;
    // Two names of one file: nothing happens.
    if (lstat(at(to).c_str(), &b) == 0 && a.st_ino == b.st_ino) return;
    if (::rename(at(from).c_str(), at(to).c_str()) == 0)
      names_changed(OX_OP_RENAME, from, to, a.st_mode);
  }
  void link() {
    const std::string from = name(), to = name();
    if (::link(at(from).c_str(), at(to).c_str()) == 0) names_changed(OX_OP_LINK, from, to, 0);
  }
  void symlink() {
    const std::string l = name();
    if (::symlink("no/where", at(l).c_str()) == 0)
      names_changed(OX_OP_SYMLINK, l, "no/where", 07777);
  }
  void truncate() {
    const std::string f = name();
    if (type(f) != S_IFREG) return;
    const unsigned size = below(120);
    if (::truncate(at(f).c_str(), size) == 0) attributes_changed(f, OX_ATTR_SIZE, size);
  }
  void chmod() {
    const std::string f = name();
    if (type(f) == S_IFLNK || type(f) == 0) return;
    if (::chmod(at(f).c_str(), 0600 + below(0200)) == 0) attributes_changed(f, OX_ATTR_MODE);
  }
  void chown() {
    const std::string f = name();
    if (geteuid() != 0 || type(f) == 0) return;
    if (lchown(at(f).c_str(), 1000 + below(5), below(5)) == 0)
      attributes_changed(f, OX_ATTR_UID | OX_ATTR_GID);
  }
  void mkfifo() {
    const std::string f = name();
    if (::mkfifo(at(f).c_str(), 0600) != 0) return;
    log += "unseen mkfifo " + f + "\n";
    if (::chmod(at(f).c_str(), 0644) == 0) attributes_changed(f, OX_ATTR_MODE);
  }
  void mknod_regular() {
    const std::string f = name();
    if (::mknod(at(f).c_str(), S_IFREG | 0600, 0) != 0) return;
    log += "unseen mknod " + f + "\n";
    if (::chmod(at(f).c_str(), 0644) == 0) attributes_changed(f, OX_ATTR_MODE);
  }
  /* Said by a record, and not done. */
  void refused() {
    const std::string f = name();
    if (type(f) != S_IFREG || !in_rule(f)) return;
    send({set_attributes(next(),
                         {at(f), OX_ATTR_MODE | OX_ATTR_SIZE, 04777, 0, 0, below(60), 0, 0, 0})},
         "refused attributes of " + f);
  }
  void nameless() {
    const std::string f = name();
    if (in_rule(f))
      send(write_data(next(OX_CP_NAMELESS), at(f), 0, "NAMELESS"), "nameless as " + f);
  }

  std::string source_;
  std::mt19937 random_;
  std::uint32_t number_ = 0;
};

/* Everything that two trees must have in common, as text; `skip`, relative to it, is left out. */
inline std::string picture(const std::string &root, const std::string &skip = "") {
  std::map<ino_t, std::string> first_names;
  std::map<std::string, std::string> lines;
  std::vector<std::string> paths;
  for (auto entry = std::filesystem::recursive_directory_iterator(root);
       entry != std::filesystem::recursive_directory_iterator(); ++entry) {
    if (!skip.empty() && entry->path() == root + "/" + skip) {
      entry.disable_recursion_pending();
      continue;
    }
    paths.push_back(entry->path());
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string &path : paths) {
    struct stat s;
    if (lstat(path.c_str(), &s) != 0) ADD_FAILURE() << path;
    const std::string name = path.substr(root.size() + 1);
    std::string &line = lines[name];
    line = fmt::format("mode {:o} owner {}:{} modified {}.{:09}", s.st_mode, s.st_uid, s.st_gid,
                       s.st_mtim.tv_sec, s.st_mtim.tv_nsec);
    if (S_ISLNK(s.st_mode)) line += " -> " + std::filesystem::read_symlink(path).string();
    if (S_ISREG(s.st_mode)) {
      std::ifstream in(path, std::ios::binary);
      const std::string data((std::istreambuf_iterator<char>(in)), {});
      line += fmt::format(" size {} data {:x} {}", data.size(), std::hash<std::string>()(data),
                          data.substr(0, 20));
    }
    if (!S_ISDIR(s.st_mode)) line += " = " + first_names.try_emplace(s.st_ino, name).first->second;
  }
  std::string text;
  for (const auto &[name, line] : lines) text += name + ": " + line + "\n";
  return text;
}

}  // namespace tarn::test

#endif
