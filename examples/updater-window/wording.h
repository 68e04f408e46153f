// SPDX-License-Identifier: MIT
#pragma once

#include "mark.h"
#include "updater.h"

/// What the window says of the state of things.
struct Words
{
    Mark mark;
    QString headline;
    QString detail;
};

Words wordsBefore(); ///< anything was done
Words wordsOf(Updater::Stage stage, Updater::Job job);
Words wordsOf(const Pellox::UpdatePlan &plan);
Words wordsOf(const Pellox::IntegrityReport &report);
/// @p advice: what the player can do about the problems that were told.
Words wordsOf(Updater::Result result, Updater::Job job, const QString &advice);

/// "12.3 MB"
QString bytesText(qint64 bytes);
/// "1 file", "1,234 files"
QString filesText(qint64 files);
/// Without the separator that relative paths begin with.
QString pathText(const QString &relativePath);
