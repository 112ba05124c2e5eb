/* SPDX-License-Identifier: GPL-2.0 */
/* Formats change records and rules as text and JSON. */
#ifndef TARN_TARN_REPORT_H
#define TARN_TARN_REPORT_H

#include <string>

#include <nlohmann/json.hpp>

#include "client/control.h"
#include "client/messages.h"
#include "client/sequence.h"

namespace tarn {

/* One line, without the newline. */
std::string record_line(const Record &record);

/* One object; the fields are those that tarn(1) lists. Written data is not shown. */
nlohmann::ordered_json record_json(const Record &record);

/* A rule's sequence events, as text and as an object. */
std::string event_line(const Sequencer::Event &event);
nlohmann::ordered_json event_json(const Uuid &rule, const Sequencer::Event &event);

/* "UUID +/included -/excluded". */
std::string rule_line(const Rule &rule);
nlohmann::ordered_json rule_json(const Rule &rule);

}  // namespace tarn

#endif
