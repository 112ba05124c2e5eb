// SPDX-License-Identifier: GPL-2.0
// dir add, del, flush and daemon: directories whose contents only the daemon may rename.
#include <iostream>

#include "client/paths.h"
#include "tarn/commands.h"
#include "tarn/request.h"

namespace tarn {

int directory_add_command(const std::string &path, const std::optional<std::string> &uuid) {
  auto name = uuid ? read_uuid(*uuid) : make_uuid();
  if (!name) return fail(name.error()), uuid ? kExitUsage : kExitFailed;
  const auto whole = whole_path(path);
  if (!whole) return fail(whole.error());
  const int exit =
      ask_module([&](ControlChannel &channel) { return channel.add_directory(*name, *whole); });
  if (exit == kExitOk && !uuid) std::cout << to_string(*name) << '\n';
  return exit;
}

int directory_delete_command(const std::string &uuid_text) {
  const auto uuid = read_uuid(uuid_text);
  if (!uuid) return fail(uuid.error()), kExitUsage;
  return ask_module([&](ControlChannel &channel) { return channel.delete_directory(*uuid); });
}

int directory_flush_command() {
  return ask_module([](ControlChannel &channel) { return channel.flush_directories(); });
}

int directory_daemon_command(const std::string &program) {
  const auto whole = whole_path(program);
  if (!whole) return fail(whole.error());
  return ask_module([&](ControlChannel &channel) { return channel.set_daemon_path(*whole); });
}

}  // namespace tarn
