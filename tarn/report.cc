// SPDX-License-Identifier: GPL-2.0
#include "tarn/report.h"

#include <fmt/format.h>

#include "base/text.h"
#include "client/json_bytes.h"
#include "client/workdir.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

template <class... Fs>
struct Cases : Fs... {
  using Fs::operator()...;
};
template <class... Fs>
Cases(Fs...) -> Cases<Fs...>;

std::string octal(std::uint32_t mode) {
  return fmt::format("{:04o}", mode & 07777);
}

/* Only the attributes that the change sets. */
void add_attributes(Json &json, const SetAttr &c) {
  if (c.valid & OX_ATTR_MODE) json["mode"] = octal(c.mode);
  if (c.valid & OX_ATTR_UID) json["uid"] = c.uid;
  if (c.valid & OX_ATTR_GID) json["gid"] = c.gid;
  if (c.valid & OX_ATTR_SIZE) json["size"] = c.size;
  if (c.valid & OX_ATTR_ATIME) json["atime_us"] = c.atime;
  if (c.valid & OX_ATTR_MTIME) json["mtime_us"] = c.mtime;
  if (c.valid & OX_ATTR_CTIME) json["ctime_us"] = c.ctime;
}

void add_change(Json &json, const Change &change) {
  const auto with_mode = [&](const auto &c) {
    json["path"] = json_bytes(c.path);
    json["mode"] = octal(c.mode);
  };
  std::visit(Cases{
                 [&](const Create &c) { with_mode(c); },
                 [&](const Mkdir &c) { with_mode(c); },
                 [&](const Unlink &c) { json["path"] = json_bytes(c.path); },
                 [&](const Rmdir &c) { json["path"] = json_bytes(c.path); },
                 [&](const Symlink &c) {
                   json["path"] = json_bytes(c.path);
                   json["target"] = json_bytes(c.target);
                 },
                 [&](const Link &c) {
                   json["existing"] = json_bytes(c.existing);
                   json["path"] = json_bytes(c.path);
                 },
                 [&](const Rename &c) {
                   json["from"] = json_bytes(c.from);
                   json["to"] = json_bytes(c.to);
                 },
                 [&](const SetAttr &c) {
                   json["path"] = json_bytes(c.path);
                   add_attributes(json, c);
                 },
                 [&](const Write &c) {
                   json["path"] = json_bytes(c.path);
                   json["offset"] = c.offset;
                   json["bytes"] = c.data.size();
                 },
                 [&](const WritePage &c) {
                   json["offset"] = c.offset;
                   json["bytes"] = c.data.size();
                   json["page"] = c.page;
                   json["pages"] = c.pages;
                 },
             },
             change);
}

Json json_list(const std::vector<std::string> &list) {
  Json json = Json::array();
  for (const std::string &item : list) json.push_back(json_bytes(item));
  return json;
}

}  // namespace

std::string record_line(const Record &record) {
  return fmt::format("{} #{} {} {}", to_string(record.rule), record.wseq,
                     utc_time(static_cast<std::int64_t>(record.ts)), describe(record.change));
}

Json record_json(const Record &record) {
  Json json;
  json["rule"] = to_string(record.rule);
  json["wseq"] = record.wseq;
  json["time_us"] = record.ts;
  json["op"] = change_name(record.change);
  add_change(json, record.change);
  return json;
}

std::string event_line(const Sequencer::Event &event) {
  return std::visit(
      Cases{
          [](const Sequencer::Joined &e) {
            return fmt::format("joined at #{}: earlier records went elsewhere", e.first);
          },
          [](const Sequencer::Restarted &e) {
            return fmt::format("deleted and added again after #{}: changes in between are missing",
                               e.last);
          },
          [](const Sequencer::Missing &e) {
            return fmt::format("#{} to #{} missing", e.first, e.last);
          },
          [](const Sequencer::MissingPages &e) {
            return fmt::format("#{} incomplete: {} pages arrived, the others are missing", e.wseq,
                               e.arrived);
          },
          [](const Sequencer::Duplicate &e) { return fmt::format("#{} arrived again", e.wseq); },
      },
      event);
}

Json event_json(const Uuid &rule, const Sequencer::Event &event) {
  Json json;
  json["rule"] = to_string(rule);
  std::visit(Cases{
                 [&](const Sequencer::Joined &e) {
                   json["event"] = "joined";
                   json["first"] = e.first;
                 },
                 [&](const Sequencer::Restarted &e) {
                   json["event"] = "restarted";
                   json["last"] = e.last;
                 },
                 [&](const Sequencer::Missing &e) {
                   json["event"] = "missing";
                   json["first"] = e.first;
                   json["last"] = e.last;
                 },
                 [&](const Sequencer::MissingPages &e) {
                   json["event"] = "missing_pages";
                   json["wseq"] = e.wseq;
                   json["arrived"] = e.arrived;
                 },
                 [&](const Sequencer::Duplicate &e) {
                   json["event"] = "duplicate";
                   json["wseq"] = e.wseq;
                 },
             },
             event);
  return json;
}

std::string rule_line(const Rule &rule) {
  const ReadWorkdir read = read_workdir(rule.workdir);
  std::string line = to_string(rule.uuid);
  for (const std::string &path : read.directories.include) line += " +" + printable(path);
  for (const std::string &path : read.directories.exclude) line += " -" + printable(path);
  for (const std::string &entry : read.broken) line += " ?" + printable(entry);
  return line;
}

Json rule_json(const Rule &rule) {
  const ReadWorkdir read = read_workdir(rule.workdir);
  Json json;
  json["uuid"] = to_string(rule.uuid);
  json["include"] = json_list(read.directories.include);
  json["exclude"] = json_list(read.directories.exclude);
  if (!read.broken.empty()) json["broken"] = json_list(read.broken);
  return json;
}

}  // namespace tarn
