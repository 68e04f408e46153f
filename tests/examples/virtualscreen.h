// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

/**
 * An X server of its own for the windows of a test program, while it lives. To be made before the
 * QApplication. Ends the test program when it cannot.
 */
class VirtualScreen
{
public:
    VirtualScreen();
    ~VirtualScreen();
    VirtualScreen(const VirtualScreen &) = delete;
    VirtualScreen &operator=(const VirtualScreen &) = delete;

private:
    pid_t m_server;
};
