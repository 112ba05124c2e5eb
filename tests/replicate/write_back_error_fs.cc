// SPDX-License-Identifier: GPL-2.0
#include "tests/replicate/write_back_error_fs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tarnd/fuse/fuse_api.h"
#include "tests/replicate/run_program.h"

namespace tarn::test {

struct WriteBackErrorFs::Server {
  const std::string mountpoint;
  const Says says;
  fuse_session *session = nullptr;
  std::thread thread = {};
  // The rest is the thread's alone.
  std::map<std::string, fuse_ino_t> nodes = {};
  std::map<fuse_ino_t, off_t> sizes = {};

  static Server &of(fuse_req_t req) { return *static_cast<Server *>(fuse_req_userdata(req)); }

  struct stat attributes(fuse_ino_t node) {
    struct stat st {};
    st.st_ino = node;
    st.st_mode = node == FUSE_ROOT_ID ? S_IFDIR | 0777 : S_IFREG | 0666;
    st.st_nlink = 1;
    st.st_size = node == FUSE_ROOT_ID ? 0 : sizes[node];
    return st;
  }
  fuse_entry_param entry(fuse_ino_t node) {
    fuse_entry_param e{};
    e.ino = node;
    e.attr = attributes(node);
    return e;
  }
  bool full(fuse_ino_t node) const {
    for (const auto &[name, of_name] : nodes)
      if (of_name == node) return name.starts_with("full");
    return false;
  }

  static void init(void *server, fuse_conn_info *connection) {
    if (static_cast<Server *>(server)->says == Says::kAtWriteBack)
      connection->want |= FUSE_CAP_WRITEBACK_CACHE;
  }
  static void lookup(fuse_req_t req, fuse_ino_t, const char *name) {
    const auto found = of(req).nodes.find(name);
    if (found == of(req).nodes.end()) {
      fuse_reply_err(req, ENOENT);
      return;
    }
    const auto e = of(req).entry(found->second);
    fuse_reply_entry(req, &e);
  }
  static void readdir(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info *) {
    Server &server = of(req);
    std::vector<char> buffer(size);
    std::size_t used = 0;
    off_t next = 0;
    for (const auto &[name, node] : server.nodes) {
      if (next++ < offset) continue;
      const auto st = server.attributes(node);
      const std::size_t length =
          fuse_add_direntry(req, buffer.data() + used, size - used, name.c_str(), &st, next);
      if (length > size - used) break;
      used += length;
    }
    fuse_reply_buf(req, buffer.data(), used);
  }
  static void create(fuse_req_t req, fuse_ino_t, const char *name, mode_t, fuse_file_info *file) {
    Server &server = of(req);
    const fuse_ino_t node = FUSE_ROOT_ID + 1 + server.nodes.size();
    server.nodes[name] = node;
    const auto e = server.entry(node);
    fuse_reply_create(req, &e, file);
  }
  static void getattr(fuse_req_t req, fuse_ino_t node, fuse_file_info *) {
    const auto st = of(req).attributes(node);
    fuse_reply_attr(req, &st, 0);
  }
  static void setattr(fuse_req_t req, fuse_ino_t node, struct stat *to, int set, fuse_file_info *) {
    if (set & FUSE_SET_ATTR_SIZE) of(req).sizes[node] = to->st_size;
    getattr(req, node, nullptr);
  }
  static void write(fuse_req_t req, fuse_ino_t node, const char *, size_t length, off_t offset,
                    fuse_file_info *) {
    if (of(req).says == Says::kAtWriteBack) {
      fuse_reply_err(req, EIO);
      return;
    }
    off_t &size = of(req).sizes[node];
    size = std::max(size, offset + static_cast<off_t>(length));
    fuse_reply_write(req, length);
  }
  static void flush(fuse_req_t req, fuse_ino_t node, fuse_file_info *) {
    const Server &server = of(req);
    fuse_reply_err(req, server.says == Says::kAtClose && server.full(node) ? ENOSPC : 0);
  }
};

WriteBackErrorFs::WriteBackErrorFs(const std::string &mountpoint, Says says)
    : server_(new Server{.mountpoint = mountpoint, .says = says}) {
  fuse_lowlevel_ops operations{};
  operations.init = Server::init;
  operations.lookup = Server::lookup;
  operations.readdir = Server::readdir;
  operations.create = Server::create;
  operations.getattr = Server::getattr;
  operations.setattr = Server::setattr;
  operations.write = Server::write;
  operations.flush = Server::flush;
  fuse_args args = FUSE_ARGS_INIT(0, nullptr);
  fuse_opt_add_arg(&args, "write_back_error_fs");
  server_->session = fuse_session_new(&args, &operations, sizeof(operations), server_.get());
  fuse_opt_free_args(&args);
  if (!server_->session) throw std::runtime_error("fuse_session_new");
  if (fuse_session_mount(server_->session, mountpoint.c_str()) != 0) {
    fuse_session_destroy(server_->session);
    throw std::runtime_error("cannot mount on " + mountpoint);
  }
  server_->thread = std::thread([session = server_->session] { fuse_session_loop(session); });
}

WriteBackErrorFs::~WriteBackErrorFs() {
  // By somebody else: libfuse would close the session's descriptor while the thread uses it.
  run("/usr/bin/fusermount3", {"-u", "-z", "--", server_->mountpoint});
  server_->thread.join();
  fuse_session_unmount(server_->session);
  fuse_session_destroy(server_->session);
}

}  // namespace tarn::test
