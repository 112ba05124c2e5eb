/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The service's messages: one line each, on stderr. Under the service manager a line begins with
 * its priority, as sd-daemon(3) says, and has no time of its own. Any thread.
 */
#ifndef TARN_MIRRORD_SERVICE_JOURNAL_H
#define TARN_MIRRORD_SERVICE_JOURNAL_H

#include <string>

namespace tarn {

enum class Level { kError, kWarning, kNotice };

/* `about`: the source or SOURCE/TARGET that the line is about; "": the service. */
void say(Level level, const std::string &about, const std::string &text);

}  // namespace tarn

#endif
