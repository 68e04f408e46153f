// SPDX-License-Identifier: MIT
#pragma once

namespace Pellox {

/**
 * Makes the process ready for Qt where the host has not: its QCoreApplication, on a thread of its
 * own that stays until the process ends. Does nothing where there is one. Any thread. Throws
 * std::bad_alloc or std::system_error when the system does not give what it takes.
 */
void prepareQt();

} // namespace Pellox
