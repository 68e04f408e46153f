// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QTextCodec>
#endif

/*
 * What is not the same to our code with Qt 5 and with Qt 6; QtMajorVersion.cmake beside has what
 * is not the same to the build. Nothing else asks for Qt's version.
 */

/// File names are UTF-8 from now on, whatever the locale. Qt 6 always takes them so.
inline void takeFileNamesAsUtf8()
{
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
#endif
}
