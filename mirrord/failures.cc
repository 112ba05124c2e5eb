// SPDX-License-Identifier: GPL-2.0
#include "mirrord/failures.h"

#include <cerrno>

namespace tarn {
namespace {

int weight(const Error &error) {
  return holds_target(error) ? 2 : is_absent(error) ? 0 : 1;
}

}  // namespace

bool holds_target(const Error &error) {
  switch (-error.code) {
    case ENOSPC:
    case EDQUOT:
    case EROFS:
    case EIO:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
    case ENODEV:
    case ENXIO:
    case ESTALE:
    case EHOSTDOWN:
    case ETIMEDOUT:
    case EMLINK:
    case ECANCELED:
      return true;
  }
  return false;
}

bool is_absent(const Error &error) {
  return error.code == -ENOENT || error.code == -ENOTDIR || error.code == -ELOOP;
}

void keep_worst(Result<void> &worst, const Error &error) {
  if (worst.ok() || weight(error) > weight(worst.error())) worst = error;
}

}  // namespace tarn
