// SPDX-License-Identifier: GPL-2.0
// The first line of a document is "tarn-document 1 CHECKSUM LENGTH", of all bytes behind it.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>

#include <fmt/format.h>
#include <xxhash.h>

#include "base/text.h"
#include "base/text_file.h"
#include "base/unique_fd.h"
#include "mirrord/config/state_directory.h"

namespace tarn {
namespace {

constexpr off_t kDocumentMax = 64 << 20;

std::string head_of(std::string_view body) {
  const XXH128_hash_t hash = XXH3_128bits(body.data(), body.size());
  return fmt::format("tarn-document 1 {:016x}{:016x} {}\n", hash.high64, hash.low64, body.size());
}

std::string parent_of(const std::string &file) {
  const std::size_t slash = file.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : file.substr(0, slash);
}

std::string cannot_write(const std::string &file) {
  return "cannot write the state " + printable(file);
}

Error damaged(const std::string &file, const std::string &why) {
  return {-EBADMSG,
          fmt::format("the state {} is damaged: {}; restore the directory {} as a whole, or remove "
                      "it to begin with a full copy again",
                      printable(file), why, printable(parent_of(file)))};
}

/* Writes a new file and syncs it; 0 or an error number, after which there is none. */
int write_new(const std::string &file, std::string_view text) {
  UniqueFd fd(
      open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  if (!fd) return errno;
  int err = write_text(fd.get(), text);
  if (err == 0 && fsync(fd.get()) != 0) err = errno;
  if (const int close_error = fd.close(); err == 0) err = close_error;
  if (err != 0) unlink(file.c_str());
  return err;
}

}  // namespace

Result<void> write_document(const std::string &file, const nlohmann::json &document) {
  std::string body;
  try {
    body = document.dump() + "\n";
  } catch (const nlohmann::json::exception &error) {
    return Error{-EINVAL, fmt::format("{}: {}", cannot_write(file), escape_controls(error.what()))};
  }
  if (body.size() > static_cast<std::size_t>(kDocumentMax) / 2)
    return Error{-EFBIG, fmt::format("{}: it has {} bytes and {} fit", cannot_write(file),
                                     body.size(), kDocumentMax / 2)};
  const std::string temporary = file + ".new";
  if (const int err = write_new(temporary, head_of(body) + body); err != 0)
    return system_error(err, cannot_write(file));
  if (rename(temporary.c_str(), file.c_str()) != 0) {
    const int err = errno;
    unlink(temporary.c_str());
    return system_error(err, cannot_write(file));
  }
  const UniqueFd directory(open(parent_of(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || fsync(directory.get()) != 0) return system_error(errno, cannot_write(file));
  return {};
}

Result<std::optional<nlohmann::json>> read_document(const std::string &file) {
  const std::string what = "cannot read the state " + printable(file);
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  if (!fd && errno == ENOENT) return std::optional<nlohmann::json>();
  if (!fd && errno == ELOOP) return damaged(file, "it is a symbolic link");
  if (!fd) return system_error(errno, what);
  struct stat status;
  if (fstat(fd.get(), &status) != 0) return system_error(errno, what);
  if (!S_ISREG(status.st_mode)) return damaged(file, "it is no regular file");
  if (status.st_size > kDocumentMax) return damaged(file, "it is too long");
  const auto text = read_text(fd.get(), what);
  if (!text) return text.error();
  std::string_view body = *text;
  const std::string_view head = take_until(body, '\n');
  if (std::string(head) + "\n" != head_of(body))
    return damaged(file, "its checksum does not match");
  nlohmann::json document = nlohmann::json::parse(body, nullptr, false);
  if (document.is_discarded()) return damaged(file, "it is no JSON text");
  return std::optional(std::move(document));
}

std::uint64_t count_field(const nlohmann::json &document, const char *name) {
  const nlohmann::json &value = document.at(name);
  if (!value.is_number_unsigned())
    throw nlohmann::json::type_error::create(302, fmt::format("{} must be a count", name), &value);
  return value;
}

std::int64_t time_field(const nlohmann::json &document, const char *name) {
  const nlohmann::json &value = document.at(name);
  constexpr std::uint64_t kLast = std::numeric_limits<std::int64_t>::max();
  if (!value.is_number_integer() ||
      (value.is_number_unsigned() && value.get<std::uint64_t>() > kLast))
    throw nlohmann::json::type_error::create(302, fmt::format("{} must be a time", name), &value);
  return value;
}

}  // namespace tarn
