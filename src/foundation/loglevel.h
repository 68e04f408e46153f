// SPDX-License-Identifier: MIT
#pragma once

namespace Pellox {

/**
 * Severity of a log message. The numbers are the syslog severities that librsync
 * uses for its rs_loglevel; a value goes to librsync unchanged.
 */
enum loglevel : int {
    LOGLEVEL_EMERG = 0,   ///< system unusable
    LOGLEVEL_ALERT = 1,   ///< action needed at once
    LOGLEVEL_CRIT = 2,    ///< critical condition
    LOGLEVEL_ERR = 3,     ///< error
    LOGLEVEL_WARNING = 4, ///< warning
    LOGLEVEL_NOTICE = 5,  ///< normal but significant
    LOGLEVEL_INFO = 6,    ///< informational
    LOGLEVEL_DEBUG = 7,   ///< debugging detail
};

} // namespace Pellox
