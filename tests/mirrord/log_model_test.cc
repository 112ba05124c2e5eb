// SPDX-License-Identifier: GPL-2.0
// Any sequence of calls and openings against a list in memory.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <cerrno>
#include <deque>

#include "tests/mirrord/log_kit.h"

namespace tarn {
namespace {

using namespace test;

struct Kept {
  LogPosition position;
  std::string payload;
};

struct Model {
  std::deque<Kept> entries;
  LogPosition end = 1;
};

void expect_equal(const Log &log, const Model &model, LogPosition from) {
  RC_ASSERT(log.end() == model.end);
  RC_ASSERT(log.durable_end() <= log.end());
  LogReader reader(log, std::max(from, log.first()));
  auto at = std::find_if(model.entries.begin(), model.entries.end(),
                         [&](const Kept &kept) { return kept.position >= reader.position(); });
  for (; at != model.entries.end(); ++at) {
    const auto entry = reader.next();
    RC_ASSERT(entry.ok() && entry->has_value());
    RC_ASSERT((*entry)->position == at->position);
    const Bytes payload = (*entry)->payload;
    RC_ASSERT(std::equal(payload.begin(), payload.end(),
                         std::as_bytes(std::span(at->payload)).begin(),
                         std::as_bytes(std::span(at->payload)).end()));
  }
  RC_ASSERT(!(*reader.next()).has_value());
}

void append(Log &log, Model &model) {
  const auto length = *rc::gen::weightedOneOf<int>(
      {{5, rc::gen::inRange(0, 40)}, {3, rc::gen::inRange(0, 900)}, {1, rc::gen::just(5000)}});
  const std::string payload(static_cast<std::size_t>(length), static_cast<char>(model.end));
  const Bytes part = std::as_bytes(std::span(payload));
  const auto done = log.append(static_cast<std::uint8_t>(length), std::span(&part, 1));
  if (!done) {
    RC_ASSERT(done.error().code == (length == 5000 ? -EMSGSIZE : -ENOSPC));
    RC_ASSERT(length == 5000 || log.bytes() + 1200 > 16384);
    return;
  }
  RC_ASSERT(*done == model.end);
  model.entries.push_back({model.end++, payload});
}

void release(Log &log, Model &model) {
  const auto before = *rc::gen::inRange<LogPosition>(0, model.end + 3);
  const LogPosition first = log.first();
  RC_ASSERT(log.release(before).ok());
  RC_ASSERT(log.first() == first || log.first() <= before);
  RC_ASSERT(log.first() >= first);
  while (!model.entries.empty() && model.entries.front().position < log.first())
    model.entries.pop_front();
  RC_ASSERT(before < model.end || log.bytes() < 16384 / 2);
}

TEST(LogModel, any_sequence_of_calls_and_openings_ends_as_a_list_would) {
  ASSERT_TRUE(rc::check([] {
    const LogDirectory dir;
    const Log::Options options{16384, *rc::gen::inRange<std::uint64_t>(1, 4000)};
    Model model;
    auto log = open_log(dir.log(), options);
    const int steps = *rc::gen::inRange(1, 120);
    for (int step = 0; step < steps; ++step) {
      switch (*rc::gen::weightedElement<int>({{12, 0}, {2, 1}, {2, 2}, {1, 3}, {1, 4}})) {
        case 0:
          append(*log, model);
          break;
        case 1:
          RC_ASSERT(log->sync().ok());
          RC_ASSERT(log->durable_end() == model.end);
          break;
        case 2:
          release(*log, model);
          break;
        case 3:
          log.reset();
          log = open_log(dir.log(), options);
          RC_ASSERT(log->recovery().damage.empty());
          RC_ASSERT(log->recovery().bytes_cut == 0u);
          break;
        default:
          expect_equal(*log, model, *rc::gen::inRange<LogPosition>(0, model.end + 1));
      }
    }
    expect_equal(*log, model, 0);
  }));
}

}  // namespace
}  // namespace tarn
