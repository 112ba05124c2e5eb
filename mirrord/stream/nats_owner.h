/* SPDX-License-Identifier: GPL-2.0 */
/* Owners of the client library's objects. */
#ifndef TARN_MIRRORD_STREAM_NATS_OWNER_H
#define TARN_MIRRORD_STREAM_NATS_OWNER_H

#include <memory>

#include <nats/nats.h>

namespace tarn {

struct NatsDeleter {
  void operator()(natsMsg *message) const { natsMsg_Destroy(message); }
  void operator()(natsSubscription *subscription) const { natsSubscription_Destroy(subscription); }
  void operator()(jsCtx *context) const { jsCtx_Destroy(context); }
  void operator()(jsStreamInfo *info) const { jsStreamInfo_Destroy(info); }
  void operator()(jsConsumerInfo *info) const { jsConsumerInfo_Destroy(info); }
  void operator()(jsMsgMetaData *data) const { jsMsgMetaData_Destroy(data); }
};
template <class T>
using NatsOwner = std::unique_ptr<T, NatsDeleter>;

}  // namespace tarn

#endif
