// SPDX-License-Identifier: GPL-2.0
// dir add, del, flush and daemon: which directories' contents only the daemon moves.
#include <iostream>

#include "client/control.h"
#include "client/paths.h"
#include "client/site.h"
#include "tarn/commands.h"

namespace tarn {

int directory_add_command(const std::string &path, const std::optional<std::string> &uuid) {
  auto name = uuid ? read_uuid(*uuid) : make_uuid();
  if (!name) return fail(name.error()), uuid ? kExitUsage : kExitFailed;
  const auto whole = whole_path(path);
  if (!whole) return fail(whole.error());
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  if (auto added = channel->add_directory(*name, *whole); !added) return fail(added.error());
  if (!uuid) std::cout << to_string(*name) << '\n';
  return kExitOk;
}

int directory_delete_command(const std::string &text) {
  const auto uuid = read_uuid(text);
  if (!uuid) return fail(uuid.error()), kExitUsage;
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  const auto deleted = channel->delete_directory(*uuid);
  return deleted ? kExitOk : fail(deleted.error());
}

int directory_flush_command() {
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  const auto flushed = channel->flush_directories();
  return flushed ? kExitOk : fail(flushed.error());
}

int directory_daemon_command(const std::string &program) {
  const auto whole = whole_path(program);
  if (!whole) return fail(whole.error());
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  const auto set = channel->set_daemon_path(*whole);
  return set ? kExitOk : fail(set.error());
}

}  // namespace tarn
