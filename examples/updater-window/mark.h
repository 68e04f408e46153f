// SPDX-License-Identifier: MIT
#pragma once

#include <QPixmap>

/// How things stand, as a round sign that looks the same on light and dark windows.
enum class Mark { Note, Working, Good, Warning, Bad };

/// @p size in pixels that do not depend on the screen, of which it has @p scale a pixel.
QPixmap pixmapOf(Mark mark, int size, qreal scale);
