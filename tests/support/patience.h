// SPDX-License-Identifier: MIT
#pragma once

/// Milliseconds that a test waits for what must come, from another process or thread or after a
/// turn of the event loop: many, as the machine may have other work, or stand still for seconds.
constexpr int Patience = 180000;
